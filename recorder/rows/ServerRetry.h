#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>

#include "manager/CTARNManagerBase.h"
#include "manager/RequestFormat.h"
#include "mesg/RequestPatience.h"
#include "recorder/rows/ServerPatience.h"

namespace tarn {

inline int64_t monotonicMs() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Repeats `attempt` until it gives true or `patienceMs` have passed since it was first made; it is
// made once in any case. A program that is to end is not kept.
template <class Attempt>
bool retryFor(int64_t patienceMs, Attempt&& attempt) {
  constexpr int kPauseMs = 50;
  RequestPatience patience(patienceMs < kServerPatienceMs ? patienceMs : serverPatienceMs());
  for (;;) {
    if (attempt()) return true;
    const int waitMs = patience.nextWaitMs();
    if (waitMs == 0) return false;
    usleep(static_cast<useconds_t>(std::min(waitMs, kPauseMs)) * 1000);
  }
}

// The server has answered the last request with a decision: done, or no.
inline bool serverDecided(const CTARNManagerBase& manager) {
  const uint32_t result = manager.lastResult();
  return result != kResultUnanswered && result != kResultCard && result != kResultDatabase;
}

// The server lives, but the card does not give it what the last request needs: not a matter of
// patience with the server.
inline bool cardRefused(const CTARNManagerBase& manager) {
  return manager.lastResult() == kResultCard;
}

}  // namespace tarn
