#pragma once

#include <strings.h>

#include <string>

namespace tarn {

// What kind of file an export writes.
enum class OutputFormat {
  kUnknown,  // none that is known
  kMp4,
  kMov,
  kBare,  // the pictures' bytes alone, one behind the other
};

// The output that is no file: standard output, a bare stream, because only that can be written
// without going back in it.
inline constexpr char kStandardOutput[] = "-";

// As its name's ending tells, in capitals or not.
inline OutputFormat outputFormat(const std::string& path) {
  if (path == kStandardOutput) return OutputFormat::kBare;
  const auto endsIn = [&path](const std::string& ending) {
    return path.size() > ending.size() &&
           strcasecmp(path.c_str() + path.size() - ending.size(), ending.c_str()) == 0;
  };
  if (endsIn(".mp4")) return OutputFormat::kMp4;
  if (endsIn(".mov")) return OutputFormat::kMov;
  return endsIn(".h264") ? OutputFormat::kBare : OutputFormat::kUnknown;
}

}  // namespace tarn
