#pragma once

#include "recorder/rows/FileLock.h"

namespace tarn {

// Held by a recording session as long as it is open, one file for each channel. Not part of the
// interface.
inline constexpr char kChannelLock[] = "/tmp/tarn-channel-%d.lock";
// The same for the session of the channel's sound.
inline constexpr char kSoundLock[] = "/tmp/tarn-channel-%d-sound.lock";

// kTaken: no session of any process holds its channel. A lock that cannot be opened says nothing of
// sessions.
FileLock::Outcome tryAllChannels();

}  // namespace tarn
