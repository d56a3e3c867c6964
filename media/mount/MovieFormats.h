#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media/MediaOutput.h"

namespace tarn {

// From which picture of a movie on which of its descriptions is that of the pictures.
struct FormatStart {
  uint32_t picture = 0;
  uint32_t description = 0;
};

// How pictures that begin with this one are decoded, as a movie says it: its box `avc1`. Empty,
// with the reason in *error, where the picture does not tell.
std::vector<uint8_t> sampleEntryOf(const OutputPicture& first, bool quickTime, std::string* error);

// Says in a movie's head that pictures of its first track change the way in which they are decoded.
// The head's own description is number 0, `others` are those behind it. Each start but that of
// picture 0 begins a run of pictures that lie back to back. The head keeps its size. False where
// there is no room for it.
bool describeFormats(const std::vector<std::vector<uint8_t>>& others,
                     const std::vector<FormatStart>& starts, std::vector<uint8_t>* head);

}  // namespace tarn
