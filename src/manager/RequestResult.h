#pragma once

#include <cstdint>

namespace tarn {

// What the management server answers to a request. Any value but 0 is a refusal; the greater ones
// say that nothing was decided, and for which reason.
inline constexpr uint32_t kResultDone = 0;
inline constexpr uint32_t kResultRefused = 1;
inline constexpr uint32_t kResultCard = 2;                  // the card could not be read or written
inline constexpr uint32_t kResultDatabase = 3;              // the database is locked: ask again
inline constexpr uint32_t kResultUnanswered = 0xFFFFFFFFu;  // as sent, so silence is no success

}  // namespace tarn
