#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/MediaInput.h"

namespace tarn {

// A file of a folder, and what it holds.
struct FileSum {
  std::string name;  // below the folder: "video/video-ch0.mp4"
  uint64_t bytes = 0;
  std::string sha256;  // 64 hexadecimal digits
};

// SHA-256 of a text, in hexadecimal digits; "" when it cannot be worked out.
std::string sumOf(const std::string& text);
// Of one file. False with *error set, also when `stopAsked` (may be empty) says so.
TARN_API bool sumFile(const std::string& folder, const std::string& name,
                      const StopAsked& stopAsked, FileSum* sum, std::string* error);
// Of all files below a folder but those whose names begin with a dot, in the order of their names.
bool sumFolder(const std::string& folder, const StopAsked& stopAsked, std::vector<FileSum>* sums,
               std::string* error);

}  // namespace tarn
