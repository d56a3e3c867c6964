#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/UniqueFd.h"

namespace tarn {

// A file, or standard output, that grows at its end. Not part of the interface.
class OutputFile {
 public:
  // A path, or kStandardOutput. All of these return false with error() set.
  bool open(const std::string& path);
  bool write(const uint8_t* data, size_t size);
  bool close();

  const std::string& error() const { return error_; }

 private:
  bool fail(const char* what, int code);

  std::string name_;
  UniqueFd file_;
  std::string error_;
};

}  // namespace tarn
