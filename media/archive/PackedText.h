#pragma once

#include <string>

#include "base/Export.h"

// A day's index as it lies in an archive: one frame of zstd, with its size and its checksum. The
// same text packs to the same bytes with one release of the library. Not part of the interface.
namespace tarn {

// False when memory runs out.
TARN_API bool packText(const std::string& text, std::string* packed);
// False for what is no such frame, or holds more than any day has to say.
TARN_API bool unpackText(const std::string& packed, std::string* text);

}  // namespace tarn
