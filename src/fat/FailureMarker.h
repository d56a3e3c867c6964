#pragma once

#include <unistd.h>

namespace tarn {

// Exists from the first write to a card that failed, in whatever process, until somebody has looked
// after the card and removes it.
inline constexpr char kFailureMarkerPath[] = "/tmp/sd_err_mem_write";

// True when a write to the card failed, in this process or another. Any thread; takes no lock.
inline bool cardWriteFailed() { return access(kFailureMarkerPath, F_OK) == 0; }

}  // namespace tarn
