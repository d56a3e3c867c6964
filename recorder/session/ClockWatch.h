#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// Notices that the wall clock is set, and tells a correction from a clock that becomes known: one
// that showed a time before 2020, or that the kernel did not call synchronised (NTP) before it was
// set and calls so behind it. Asked a few times a second. Used by one thread.
class TARN_API ClockWatch {
 public:
  // Microseconds of the machine's clocks, and whether the kernel calls the wall clock synchronised.
  struct Reading {
    int64_t wallUs = 0;
    int64_t monotonicUs = 0;
    bool synchronised = false;
  };
  enum class Verdict {
    kSame,
    kStepped,      // RecordingSession::clockStepped(stepUs())
    kBecameKnown,  // RecordingSession::clockBecameKnown(stepUs())
  };

  explicit ClockWatch(const Reading& first) : last_(first) {}
  static Reading read();

  Verdict look(const Reading& now);
  int64_t stepUs() const { return stepUs_; }  // of the last verdict that was not kSame
  // Wall clock minus monotonic clock, as of the last step.
  int64_t offsetUs() const { return last_.wallUs - last_.monotonicUs; }

 private:
  Reading last_;  // its offset is that behind the last step
  int64_t stepUs_ = 0;
};

}  // namespace tarn
