#include <gtest/gtest.h>

#include <string>

#include "chunk/LogChunks.h"
#include "dblog/RepairRig.h"
#include "dblog/SyslogEnd.h"

namespace tarn_test {
namespace {

constexpr size_t kSector = 512;
constexpr size_t kBlock = tarn::kLogBlockBytes;
constexpr size_t kLine = 64;

class SyslogEndTest : public testing::Test {
 protected:
  SyslogEndTest() { setTimeZone("UTC0"); }

  // Of a chunk of eight blocks that holds this text, and `behind` behind it.
  static uint32_t endOf(std::string text, char behind = '\0') {
    text.resize(8 * kBlock, behind);
    tarn::SyslogEnd scan;
    for (size_t at = 0; at < text.size(); at += kBlock) {
      std::string block = text.substr(at, kBlock);
      block.push_back('x');
      if (!scan.addBlock(block.data(), kBlock)) break;
    }
    return scan.freeOffset();
  }
  static std::string lines(size_t count, int year = 2024) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
      std::string line = std::to_string(year) + "-01-01T00:" + std::to_string(10 + i / 50 % 50) +
                         ":" + std::to_string(10 + i % 50);
      line.resize(kLine - 1, 'x');
      text += line + "\n";
    }
    return text;
  }
  static std::string damaged(std::string text, size_t at, char byte) {
    return text.replace(at, kSector, kSector, byte);
  }
  static std::string noise(std::string text, size_t at) {
    for (size_t i = 0; i < kSector; ++i) text[at + i] = static_cast<char>(i * 37 + 11);
    return text;
  }
};

TEST_F(SyslogEndTest, UndamagedTextEndsAtItsMark) {
  const std::string text = lines(20);
  EXPECT_EQ(endOf(text + tarn::kSyslogMark), text.size());
  EXPECT_EQ(endOf(text + tarn::kSyslogMark + lines(90, 2023)), text.size());
  EXPECT_EQ(endOf(lines(64) + lines(20, 2023)), kBlock) << "older text";
  EXPECT_EQ(endOf(""), 0u);
  EXPECT_EQ(endOf("", static_cast<char>(0xFF)), 0u);
}

TEST_F(SyslogEndTest, ADamagedSectorCostsNoLineBehindIt) {
  const std::string text = lines(50) + lines(30, 2025);
  for (size_t at = 0; at + kSector < text.size(); at += kSector) {
    const std::string behind = tarn::kSyslogMark + lines(200, 2023);
    for (const int byte : {0x00, 0xFF, 0x0A, 0x32})
      EXPECT_EQ(endOf(damaged(text, at, static_cast<char>(byte)) + behind), text.size())
          << at << " " << byte;
    EXPECT_EQ(endOf(noise(text, at) + behind), text.size()) << at;
  }
}

TEST_F(SyslogEndTest, WhereTheMarkIsDamagedOlderTextStaysOutside) {
  const std::string text = lines(20) + tarn::kSyslogMark + lines(200, 2023);
  const size_t at = 20 * kLine / kSector * kSector;
  EXPECT_EQ(endOf(noise(text, at)), at);
}

TEST_F(SyslogEndTest, AnEmptyChunkIsEmptyWhateverItHeldBefore) {
  EXPECT_EQ(endOf(tarn::kSyslogEmpty + lines(100)), 0u);
}

TEST_F(SyslogEndTest, WhatIsNoLineForLongIsTheEnd) {
  std::string text = lines(64);
  text.resize(6 * kBlock, 'y');
  EXPECT_EQ(endOf(text + lines(10, 2025)), kBlock);
}

// Lines do not straddle blocks; what is left of one is no line.
TEST_F(SyslogEndTest, PaddingInFrontOfABlockIsText) {
  std::string text = lines(63);
  text.resize(kBlock, ' ');
  EXPECT_EQ(endOf(text + lines(3, 2025) + tarn::kSyslogMark), kBlock + 3 * kLine);
}

}  // namespace
}  // namespace tarn_test
