#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "fat/CFATAccess.h"
#include "support/CardImage.h"
#include "support/IoFaults.h"
#include "support/SyslogCapture.h"

namespace tarn_test {

inline constexpr char kMarker[] = "/tmp/sd_err_mem_write";

// Every captured line as "operation: text". A line that is not an error, or lacks the prefix
// "operation line N in CFATAccess.cpp: ", comes back whole, so that it shows in a comparison.
inline std::string fatLine(const LogLine& line) {
  char operation[64] = {};
  int number = 0, prefix = 0;
  const int got = sscanf(line.text.c_str(), "%63[A-Za-z_] line %d in CFATAccess.cpp: %n", operation,
                         &number, &prefix);
  if (line.priority != 3 || got != 2 || prefix == 0 || number <= 0) {
    return "<" + std::to_string(line.priority) + ">" + line.text;
  }
  return std::string(operation) + ": " + line.text.substr(static_cast<size_t>(prefix));
}

inline std::vector<std::string> fatLines(const SyslogCapture& log) {
  std::vector<std::string> result;
  for (const LogLine& line : log.lines()) result.push_back(fatLine(line));
  return result;
}

inline size_t openDescriptors() {
  const std::filesystem::directory_iterator fds("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(fds), end(fds)));
}

// Reads a whole small request of a handle.
inline std::vector<uint8_t> readHandle(CFATAccess& fat, int handle, size_t length) {
  std::vector<uint8_t> bytes(length, 0xAA);
  const long got = fat.read(handle, bytes.data(), length);
  EXPECT_EQ(got, static_cast<long>(length));
  return bytes;
}

// A card whose stream chunks start `past` bytes behind a 64 KiB boundary.
inline CardLayout streamsPastBoundary(uint32_t past) {
  CardLayout layout;
  layout.families[tarn::kFileStream].startSector = (8 * kMiB + past) / 512;
  return layout;
}

}  // namespace tarn_test
