#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "media/MediaInput.h"
#include "recorder/session/ClockWatch.h"
#include "recorder/session/PictureQueue.h"
#include "recorder/session/RecordingSession.h"

namespace tarn {

// Opens a session in a thread of its own while the pictures of a live input come in already: the
// start-up may still be rebuilding the database. What came until the session is open waits in
// memory and is given to it with its own times. Used by the thread of the input; until finish()
// says so the session belongs to the other one.
class EarlyPictures {
 public:
  // The session outlives this. `limitBytes`: most memory that the pictures take.
  EarlyPictures(RecordingSession* session, size_t limitBytes)
      : session_(session), queue_(limitBytes) {}
  ~EarlyPictures();
  EarlyPictures(const EarlyPictures&) = delete;
  EarlyPictures& operator=(const EarlyPictures&) = delete;

  // Begins to open it. Where the program waits for its server as long as it takes
  // (ServerPatience.h), neither card nor database are touched before there is one: a recovery
  // may be at work on them. Throws std::system_error without a thread.
  void open(const RecordingOptions& options);
  // Whether the session is not yet the caller's.
  bool isOpening() const { return thread_.joinable(); }

  void add(MediaPicture picture, PictureTime presentation);
  // The input begins anew.
  void markDiscontinuity() { queue_.markDiscontinuity(); }
  // The clock that the times come from was set.
  void clockChanged(ClockWatch::Verdict verdict, int64_t stepUs);

  enum class Outcome {
    kOpening,  // go on adding
    kDone,     // the session is open and has all pictures
    kFailed,   // the session tells why
  };
  // To be asked often. With `wait`, nothing more comes, and the opening is waited for.
  Outcome finish(bool wait);
  // An opening that waits for a server gives up.
  void stop() { stopped_ = true; }

  PictureQueue::Dropped dropped() const { return queue_.dropped(); }
  uint64_t received() const { return received_; }  // as long as it was opening
  size_t waiting() const { return queue_.pictures(); }

 private:
  void work(const RecordingOptions& options);
  bool handOver();

  RecordingSession* const session_;
  PictureQueue queue_;
  uint64_t received_ = 0;
  std::thread thread_;
  std::atomic<bool> stopped_ = false;
  std::atomic<bool> over_ = false;
  bool opened_ = false;  // behind over_
  ClockWatch::Verdict clock_ = ClockWatch::Verdict::kSame;
  int64_t clockStepUs_ = 0;
};

}  // namespace tarn
