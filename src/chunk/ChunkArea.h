#pragma once

#include <cstdint>

namespace tarn {

// The two areas of a stream chunk's number: which of them a chunk object, a manager's call or a
// request means. Endless chunks have one area only.
inline constexpr uint8_t kAreaPicture = 0;
inline constexpr uint8_t kAreaStream = 1;

}  // namespace tarn
