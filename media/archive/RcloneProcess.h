#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "media/archive/ArchiveStore.h"

namespace tarn {

// One run of the program rclone, which gets bytes or gives them. It dies with this process, and
// with this object. Used by one thread. Not part of the interface.
class RcloneProcess {
 public:
  // Exit codes of rclone that say what is not there.
  static constexpr int kNoFolder = 3;
  static constexpr int kNoFile = 4;

  // It is told to give up a connection that moves nothing for so long, and is ended where it does
  // not do so.
  explicit RcloneProcess(uint32_t patienceSeconds) : patienceSeconds_(patienceSeconds) {}
  ~RcloneProcess() { stop(); }
  RcloneProcess(const RcloneProcess&) = delete;
  RcloneProcess& operator=(const RcloneProcess&) = delete;

  // `feed`: it reads what write() gives it; otherwise read() gives what it writes.
  bool start(const std::vector<std::string>& arguments, bool feed);
  bool write(const uint8_t* data, size_t size);
  // To its end.
  bool read(const ByteSink& take);
  // Nothing more comes; waits for its end. Its exit code, 127 where there is no such program, 128
  // and the signal where one ended it.
  int wait();
  // Ends it at once.
  void stop();
  // Behind wait(): what it complained of, in a person's words.
  bool wasStuck() const { return wasStuck_; }
  std::string complaint() const { return complaint_; }

 private:
  bool isReady(short events);
  void takeComplaint(int exitCode);

  const uint32_t patienceSeconds_;
  pid_t pid_ = 0;
  UniqueFd data_;    // to it or from it
  UniqueFd errors_;  // what it says on standard error
  bool wasStuck_ = false;
  std::string complaint_;
};

}  // namespace tarn
