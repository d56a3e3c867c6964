#pragma once

#include <cstdint>

namespace tarn {

// What is on a device before it is formatted.
enum class FormerContent : uint8_t {
  kNothing,     // zeros, or a format that was interrupted: nothing of use to anybody
  kCard,        // a card that somebody's formatter has finished
  kForeign,     // something else
  kUnreadable,  // the device does not tell; errno says why
};

// Only reads. Not part of the interface.
FormerContent whatIsOn(int fd);

}  // namespace tarn
