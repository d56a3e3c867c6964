#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "media/serve/FileStream.h"
#include "media/serve/ZipFormat.h"

namespace tarn_test {
namespace {

using tarn::ZipEntry;

class ZipFormatTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    unsetenv("TZ");
    tzset();
  }
  static std::string bytes(std::initializer_list<int> values) {
    std::string text;
    for (const int value : values) text.push_back(static_cast<char>(value));
    return text;
  }
};

// 2026-03-01 12:34:56.
constexpr int64_t kTime = 1772368496;

TEST_F(ZipFormatTest, SmallFilesNeedNoneOfZip64) {
  const ZipEntry entry = {"a/b", 5, 0x11223344, kTime, 0x01020304};
  EXPECT_EQ(tarn::zipHeader(entry),
            bytes({'P',  'K', 3, 4, 20, 0, 0, 8, 0, 0, 0x5C, 0x64, 0x61, 0x5C, 0x44, 0x33, 0x22,
                   0x11, 5,   0, 0, 0,  5, 0, 0, 0, 3, 0,    0,    0,    'a',  '/',  'b'}));
  EXPECT_EQ(tarn::zipListed(entry),
            bytes({'P',  'K',  1,    2, 45, 3, 20,   0,    0, 8, 0, 0, 0x5C, 0x64, 0x61, 0x5C, 0x44,
                   0x33, 0x22, 0x11, 5, 0,  0, 0,    5,    0, 0, 0, 3, 0,    0,    0,    0,    0,
                   0,    0,    0,    0, 0,  0, 0xA4, 0x81, 4, 3, 2, 1, 'a',  '/',  'b'}));
  EXPECT_EQ(tarn::zipEnd(2, 0x01020304, 7),
            bytes({'P', 'K', 5, 6, 0, 0, 0, 0, 2, 0, 2, 0, 7, 0, 0, 0, 4, 3, 2, 1, 0, 0}));
}

TEST_F(ZipFormatTest, WhatThirtyTwoBitsDoNotHoldStandsInZip64) {
  const ZipEntry entry = {"a", 0x123456789, 0x11223344, kTime, 0x987654321};
  EXPECT_EQ(tarn::zipHeader(entry),
            bytes({'P',  'K',  3,    4,    45,   0,    0,    8,    0,    0,    0x5C, 0x64, 0x61,
                   0x5C, 0x44, 0x33, 0x22, 0x11, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                   1,    0,    20,   0,    'a',  1,    0,    16,   0,    0x89, 0x67, 0x45, 0x23,
                   1,    0,    0,    0,    0x89, 0x67, 0x45, 0x23, 1,    0,    0,    0}));
  const std::string listed = tarn::zipListed(entry);
  EXPECT_EQ(listed.substr(listed.size() - 33),
            bytes({0xFF, 0xFF, 0xFF, 0xFF, 'a', 1, 0, 24, 0,    0x89, 0x67, 0x45, 0x23, 1, 0, 0, 0,
                   0x89, 0x67, 0x45, 0x23, 1,   0, 0, 0,  0x21, 0x43, 0x65, 0x87, 9,    0, 0, 0}));
  // A small file far behind has its place there alone.
  const std::string small = tarn::zipListed({"a", 5, 0, kTime, 0x987654321});
  EXPECT_EQ(small.substr(small.size() - 13),
            bytes({'a', 1, 0, 8, 0, 0x21, 0x43, 0x65, 0x87, 9, 0, 0, 0}));
  EXPECT_EQ(tarn::zipEnd(70000, 0x123456789, 7),
            bytes({'P',  'K',  6,    6,    44,   0,    0,    0,    0,    0,    0,    0,    45, 3,
                   45,   0,    0,    0,    0,    0,    0,    0,    0,    0,    0x70, 0x11, 1,  0,
                   0,    0,    0,    0,    0x70, 0x11, 1,    0,    0,    0,    0,    0,    7,  0,
                   0,    0,    0,    0,    0,    0,    0x89, 0x67, 0x45, 0x23, 1,    0,    0,  0,
                   'P',  'K',  6,    7,    0,    0,    0,    0,    0x90, 0x67, 0x45, 0x23, 1,  0,
                   0,    0,    1,    0,    0,    0,    'P',  'K',  5,    6,    0,    0,    0,  0,
                   0xFF, 0xFF, 0xFF, 0xFF, 7,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0,  0}));
}

TEST_F(ZipFormatTest, AFileThatBecameShorterBreaksTheBodyOff) {
  char path[] = "/tmp/streamXXXXXX";
  const tarn::UniqueFd file(mkstemp(path));
  ASSERT_EQ(write(file.get(), "abc", 3), 3);
  const auto all = [&](uint64_t size) {
    tarn::FileStream stream({{"<", "", 0}, {"", path, size}, {"", path, 0}, {">", "", 0}}, nullptr);
    std::string text;
    char room[2];
    ssize_t got = 0;
    while ((got = stream.read(room, sizeof room)) > 0) text.append(room, static_cast<size_t>(got));
    return std::make_pair(text, got);
  };
  EXPECT_EQ(all(3), std::make_pair(std::string("<abc>"), ssize_t{-1}));
  EXPECT_EQ(all(2), std::make_pair(std::string("<ab>"), ssize_t{-1}));
  EXPECT_EQ(all(4), std::make_pair(std::string("<abc"), ssize_t{-2}));
  EXPECT_EQ(unlink(path), 0);
}

}  // namespace
}  // namespace tarn_test
