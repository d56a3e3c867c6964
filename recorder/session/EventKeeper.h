#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"
#include "recorder/session/KeptCopies.h"

namespace tarn {

struct KeeperOptions {
  KeepOptions budget;
  bool everyEvent = false;  // keeps each event that a session of this process ends
};

// Keeps events in the background of a process that records: a thread of low priority that copies
// what it is asked for (KeptCopies) once it is over, a quarter of the time at most, so that the
// recordings have the card. It is asked by the process itself and by others, through a socket
// (`tarn keep`). One a process; another process's stands in the way of start().
//
// kMostWaiting requests wait at most; one more is refused, and the log names its event. Asking
// twice for the same takes one place.
//
// With everyEvent, start() goes on with the last events before it that a power loss left without
// their copies. What else was asked for and not done is forgotten at the end of the process:
// whoever asked is told when it is on the card. Any thread. Nothing throws.
class TARN_API EventKeeper {
 public:
  static constexpr size_t kMostWaiting = 1000;

  EventKeeper();
  ~EventKeeper();  // stop()
  EventKeeper(const EventKeeper&) = delete;
  EventKeeper& operator=(const EventKeeper&) = delete;

  // 0, or -1 when it runs already, here or elsewhere, or has no thread or no socket.
  int start(const KeeperOptions& options);
  // Ends within one step of a copy, which is dropped; finishes what is waiting first with `finish`.
  void stop(bool finish = false);

  // Notes that an event is to be kept once it is over. 0, or -1 when no keeper runs or too many
  // requests wait.
  int keepEvent(uint32_t eventID);

  // The same of the keeper of this process, whichever object that is.
  static int keepEventOfProcess(uint32_t eventID);
  // A session of this process has ended an event.
  static void eventEnded(uint32_t eventID);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
