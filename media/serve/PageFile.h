#pragma once

#include <cstddef>
#include <cstdint>

namespace tarn {

// A file of the page, built into the program.
struct PageFile {
  const char* name;  // "index.html"
  const uint8_t* data;
  size_t size;
};

}  // namespace tarn
