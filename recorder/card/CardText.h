#pragma once

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace tarn {

// A size for people: "256 MiB", "1.5 GiB", "700 bytes".
inline std::string sizeText(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit < 4) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  snprintf(text, sizeof text, "%.4g %s", value, kUnits[unit]);
  return text;
}

// "cannot open /dev/sdb1: No such file or directory"
inline std::string errnoText(const std::string& what, int error) {
  return what + ": " + strerror(error);
}

}  // namespace tarn
