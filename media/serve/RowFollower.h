#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/Export.h"
#include "media/serve/EventFeed.h"
#include "media/serve/ServedRows.h"

namespace tarn {

class RecordingReader;
class RowReader;

// Keeps what the database lists, and how far running recordings are safe, at hand for questions,
// and tells the feed what is new. One thread of its own reads, however many ask. Any number of
// threads.
class TARN_API RowFollower {
 public:
  // The feed outlives this.
  explicit RowFollower(EventFeed* feed);
  ~RowFollower();
  RowFollower(const RowFollower&) = delete;
  RowFollower& operator=(const RowFollower&) = delete;

  // Reads everything once, then goes on in a thread until stop(). False with *error set when the
  // database cannot be read.
  bool start(std::string* error);
  void stop();

  // Never null after start().
  std::shared_ptr<const ServedRows> rows() const;
  // Of a running recording; nothing known of others. Asking keeps it looked after for a while.
  SafePictures safe(uint32_t streamID);
  // Whether a picture of a recording is among the newest of one that runs, which memory still
  // holds.
  bool isNewest(uint32_t streamID, uint32_t picture);
  // Why the database cannot be read right now; "" while it can.
  std::string problem() const;

 private:
  void run();
  void look();
  void followSafe(const ServedRows& rows);
  void tellOfRows(const ServedRows& before, const ServedRows& now);
  bool isWanted() const;

  EventFeed* feed_;
  std::unique_ptr<RowReader> reader_;                             // the thread's own, as readers_
  std::map<uint32_t, std::unique_ptr<RecordingReader>> readers_;  // of running recordings
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::shared_ptr<const ServedRows> rows_;  // guarded by mutex_, as all below
  std::map<uint32_t, SafePictures> safe_;
  std::string problem_;
  bool stopped_ = false;
  int64_t askedMs_ = -1;  // when somebody asked last how far a recording is
  std::thread thread_;
};

}  // namespace tarn
