#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "db/DbRecords.h"

namespace faults {

struct JudgeOptions {
  std::string promises;             // file with what the programs said
  std::array<uint32_t, 2> mayLose;  // pictures of the oldest session, by channel, from its start
  bool strict = true;               // changes of rows were promised, too
  bool leftBehind = false;  // the RAM disk is as a program left it: recovery may say what it met
};

// What became of a card, without faults: recovery, check, all that was promised, a new recording
// and another start. Prints "FAIL text" for each thing that is wrong, and "lost N M", how many of
// the oldest session's pictures are gone.
class Judge {
 public:
  explicit Judge(JudgeOptions options) : options_(std::move(options)) {}
  int run();  // 0, or 1 when something is wrong

 private:
  struct Begun {
    uint32_t session, channel, index;
  };

  void readPromises();
  void takePromise(const std::string& line);
  void wrong(const std::string& text);
  bool start(const char* when);
  void checkCard(const char* when);
  void readRows(const char* when);
  void readRow(const DB_STREAM& row, const char* when);
  void checkPictures(const char* when);
  void checkEvents(const char* when);
  void checkEdits(const char* when);
  void checkCopies(const char* when);
  void checkLog();
  void recordAnew();

  JudgeOptions options_;
  bool failed_ = false;
  // Pictures by session and channel: how many were promised, and which are there.
  std::map<std::pair<uint32_t, uint32_t>, uint32_t> safe_;
  std::map<std::pair<uint32_t, uint32_t>, std::set<uint32_t>> found_;
  std::map<std::pair<uint32_t, uint32_t>, std::set<uint32_t>> rowsBegun_;  // with these pictures
  std::map<std::pair<uint32_t, uint32_t>, std::set<uint32_t>> copied_;     // there in kept copies
  std::map<std::pair<uint32_t, uint32_t>, std::pair<uint32_t, uint32_t>> kept_;  // promised
  bool releasing_ = false;                                                       // copies may go
  bool released_ = false;                                     // and none may be left
  std::map<uint32_t, Begun> begun_;                           // events by key
  std::map<uint32_t, std::pair<uint32_t, uint32_t>> events_;  // ended: first and last picture
  std::map<uint32_t, uint32_t> triggers_;                     // of changed rows
  std::set<uint32_t> deleted_, eventsDeleted_;
  std::vector<uint32_t> logLines_;
  uint32_t clipSafe_ = 0;  // pictures of the clip that was recorded
  uint32_t clipFound_ = 0;
  std::vector<DB_STREAM> rows_;
  uint32_t newSession_ = 0;
};

}  // namespace faults
