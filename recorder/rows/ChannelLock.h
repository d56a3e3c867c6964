#pragma once

namespace tarn {

// Held by a recording session as long as it is open, one file for each channel. Not part of the
// interface.
inline constexpr char kChannelLock[] = "/tmp/tarn-channel-%d.lock";
inline constexpr char kAnyChannelLock[] = "/tmp/tarn-channel-*.lock";  // as glob() has it

}  // namespace tarn
