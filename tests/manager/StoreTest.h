#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "manager/CTARNEndlessManagerNative.h"
#include "manager/CTARNStreamManagerNative.h"
#include "support/CardImage.h"
#include "support/IoFaults.h"
#include "support/SyslogCapture.h"

namespace tarn_test {

inline constexpr unsigned short kPartition = '3';

// A store whose inside a test may look at.
template <typename Store>
class Probe : public Store {
 public:
  using Store::m_backupHandle;
  using Store::m_mainHandle;
  using Store::m_partition;
  using Store::m_pictureSize;
  using Store::m_records;
  using Store::m_streamSize;
  using Store::m_suffix;
  using Store::Store;
};
using StreamStore = Probe<CTARNStreamManagerNative>;
using EndlessStore = Probe<CTARNEndlessManagerNative>;

// The 24 bytes of a management record.
inline std::vector<uint8_t> recordBytes(int chType, int recType, uint32_t streamUse,
                                        uint32_t streamFree, uint32_t pictureUse,
                                        uint32_t pictureFree) {
  std::vector<uint8_t> bytes = {
      0, 0, 0, 0, 0, 0, static_cast<uint8_t>(chType), static_cast<uint8_t>(recType)};
  for (uint32_t value : {streamUse, streamFree, pictureUse, pictureFree}) {
    for (int shift = 0; shift < 32; shift += 8)
      bytes.push_back(static_cast<uint8_t>(value >> shift));
  }
  return bytes;
}

inline std::vector<uint8_t> joined(const std::vector<std::vector<uint8_t>>& parts) {
  std::vector<uint8_t> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// A card with `streams` small stream chunks: 128 KiB of stream and 64 KiB of picture area each.
inline CardLayout smallCard(uint32_t streams = 4) {
  CardLayout layout;
  layout.families[tarn::kFileStream] = {128 * kKiB, streams, 0};
  layout.families[tarn::kFilePicture] = {64 * kKiB, streams, 0};
  return layout;
}

inline size_t descriptorsOn(const std::string& path) {
  size_t found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry, error) == path) ++found;
  }
  return found;
}

// What `work` prints to standard output.
template <typename Work>
std::string printedBy(Work&& work) {
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}

}  // namespace tarn_test
