#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace tarn {

// Makes way for whoever records on the same card: rests as long as it has worked, and the longer
// the more others have the device to do; and while they keep it busy just now, or it takes longer
// over writes, or the recorder over flushes, than they do otherwise. Used by one thread.
class TARN_API ReadYield {
 public:
  // `statistics`: the device's file of the kernel's, see statisticsOf(); "" where there is none.
  // Neither the processor nor the device is asked for before all others from now on, in this
  // thread.
  // `urgent`: what is waited for, as an event's clip, rests as long as it has worked and no longer,
  // unless the device is taken just now.
  explicit ReadYield(const std::string& statistics, bool urgent = false);

  // Between two pieces of work of a few milliseconds. Returns when it is to go on.
  void rest();

  // What the kernel counts of a block device, and of what is no device "".
  static std::string statisticsOf(const std::string& device);
  // Of two lines of it, in front of a pause of so many microseconds and behind it: whether the
  // device belongs to others just now. Told apart for tests, as the next one.
  bool isTaken(const std::string& before, const std::string& behind, int64_t pausedUs);
  // How long it rests behind so much work, by all that isTaken() has seen of others so far.
  int64_t restUs(int64_t workedUs) const;
  // By what the recorder tells: flushes so far, and how long they took, all together.
  bool areFlushesSlow(uint64_t flushes, int64_t allUs);

 private:
  // What something usually takes, and whether it takes longer now.
  class Usual {
   public:
    // `count` of them have taken `ms` so far, all together. As it was where there was none since.
    bool isExceeded(uint64_t count, double ms);

   private:
    bool known_ = false;
    uint64_t count_ = 0;
    double ms_ = 0;
    double usualMs_ = 0;  // 0: not known
    bool exceeded_ = false;
  };

  void note(int64_t busyUs, int64_t pausedUs);
  bool isTaken(int64_t pauseUs);
  bool areFlushesSlow();
  std::string look() const;

  const std::string statistics_;
  const bool urgent_;
  int64_t sinceUs_;  // monotonic, when work began
  double share_;     // of the time, in which others have the device busy; of the last pauses
  Usual writes_;
  Usual flushes_;
};

}  // namespace tarn
