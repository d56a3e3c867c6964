#pragma once

namespace bench {

// How busy other programs keep the machine, in processors. The system's load average counts this
// run's own work as well, so it is asked once, before the run; from then on the others' share is
// measured: the time that the processors were busy, less the time that this run's session used.
class Load {
 public:
  static constexpr double kLimit = 0.5;

  // Sleeps for half a second and returns how busy others were meanwhile.
  static double ofOthersNow();

  // others() is the average since the construction. Kernel threads count as others.
  Load();
  double others() const;

 private:
  double begin_;
  double busy_;
  double own_;
};

}  // namespace bench
