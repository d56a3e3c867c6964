#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// How long a request waits for a server that does not answer, because it was stopped, hangs or
// waits for a card: a limit for the whole process, 10 seconds unless set otherwise, and a second
// once the program is to end. An object is one wait, begun with its constructor, for one thread;
// the static operations are for any thread.
//
//   RequestPatience patience;
//   for (int waitMs; (waitMs = patience.nextWaitMs()) > 0;)
//     if (poll(&entry, 1, waitMs) > 0) return true;
class TARN_API RequestPatience {
 public:
  static constexpr uint32_t kDefaultLimitMs = 10000;
  // For waits that have no limit of their own; ended by hurry() all the same.
  static constexpr int64_t kForever = INT64_MAX;

  static void setLimitMs(uint32_t limitMs);
  static uint32_t limitMs();

  // The program is to end: waits end after a second, also those that are under way. When one of
  // them has ended so, nothing comes from that server any more, and those behind it are given no
  // more than a moment: the whole program ends within two seconds. Also for signal handlers.
  static void hurry() noexcept;
  static bool hurried() noexcept;
  // Takes hurry() back, for a program that goes on.
  static void resume() noexcept;

  // What became of a request. One that had no answer in its time shortens the waits of those after
  // it to a tenth of the limit, until one is answered: what a recorder brings to the card before it
  // gives up is a dozen requests, and a server that hangs must not hold up each of them.
  static void answered(bool was) noexcept;

  RequestPatience();
  explicit RequestPatience(int64_t patienceMs);

  // How long to wait until the next call of this, 1 to 100 milliseconds; 0: no longer.
  int nextWaitMs();

 private:
  void shorten(int64_t now);

  int64_t end_;  // monotonic, microseconds
  bool shortened_ = false;
};

}  // namespace tarn
