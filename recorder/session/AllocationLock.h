#pragma once

namespace tarn {

// Held while rows are ended, room is made and rows begin, by one session at a time: between a
// session's rows its chunk has no row in progress that would keep others away from it.
inline constexpr char kAllocationLock[] = "/tmp/tarn-recording.lock";

}  // namespace tarn
