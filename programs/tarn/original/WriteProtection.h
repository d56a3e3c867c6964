#pragma once

#include <string>

namespace tarn {

// Why a card, device or image file, cannot or must not be written to, in a few words: a file system
// or device that is only read, no permission, no permission for anybody (which holds for root as
// well). "" where it can be, and for what is not there. Opens it for reading at most.
std::string whyNotWritable(const std::string& path);

}  // namespace tarn
