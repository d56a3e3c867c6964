#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace tarn {

// How a card that refuses a read is asked again: a few times, with pauses of 5, 10, … 80 ms between
// them as long as the asker's patience lasts. Not part of the interface.
inline constexpr int kReadTries = 6;
inline constexpr uint32_t kFirstReadPauseMs = 5;
inline constexpr uint32_t kReadPatienceMs = 2000;  // of one asker, in all

// Waits before try number `tried` + 1, no longer than *patienceMs, and takes off what it waits.
inline void pauseBeforeRead(int tried, uint32_t* patienceMs) {
  const uint32_t pause = std::min(kFirstReadPauseMs << (tried - 1), *patienceMs);
  *patienceMs -= pause;
  if (pause > 0) usleep(pause * 1000);
}

}  // namespace tarn
