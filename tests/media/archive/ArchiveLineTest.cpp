// Lines come from wherever an archive lies. What cannot be is no line, however well it is written.
#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "media/archive/ArchiveLine.h"

namespace tarn_test {
namespace {

using tarn::ArchiveLine;

constexpr char kFolder[] = "recorder=van-7/date=2023-11-14/ch=0/";

ArchiveLine good() {
  ArchiveLine line;
  line.kind = "event";
  line.recorder = "van-7";
  line.channel = 0;
  line.key = 3;
  line.startMs = 1700000000123;
  line.endMs = 1700000004000;
  line.trigger = 7;
  line.preSeconds = 5;
  line.media = "video";
  line.object = std::string(kFolder) + "221320123-e3.mp4";
  line.firstUs = 1699999995123456;
  line.bytes = 4711;
  line.pictures = 30;
  return line;
}

bool isLine(const ArchiveLine& line) {
  ArchiveLine read;
  return ArchiveLine::parse(line.text(), &read);
}

bool isLineWith(const std::function<void(ArchiveLine*)>& change) {
  ArchiveLine line = good();
  change(&line);
  return isLine(line);
}

TEST(ArchiveLineTest, WhatACardCanHoldIsALine) {
  ArchiveLine read;
  ASSERT_TRUE(ArchiveLine::parse(good().text(), &read));
  EXPECT_EQ(read.text(), good().text());
  EXPECT_TRUE(isLineWith([](ArchiveLine* line) { line->part = 2; }));
  EXPECT_TRUE(isLineWith([](ArchiveLine* line) { line->channel = 127; }));
  EXPECT_TRUE(isLineWith([](ArchiveLine* line) { line->endMs = int64_t{UINT32_MAX} * 1000; }));
  EXPECT_TRUE(isLineWith([](ArchiveLine* line) {
    line->object = "recorder=van-7/date=2023-11-14/ch=unknown/221320123-e3-2.mov";
  }));
}

TEST(ArchiveLineTest, NumbersThatCannotBeAreNoLine) {
  const std::vector<std::function<void(ArchiveLine*)>> changes = {
      [](ArchiveLine* line) { line->channel = 128; },
      [](ArchiveLine* line) { line->channel = INT32_MAX; },
      [](ArchiveLine* line) { line->endMs = (int64_t{UINT32_MAX} + 1) * 1000; },
      [](ArchiveLine* line) { line->endMs = INT64_MAX; },
      [](ArchiveLine* line) { line->firstUs = INT64_MAX; },
      [](ArchiveLine* line) { line->trigger = 65536; },
      [](ArchiveLine* line) { line->preSeconds = UINT32_MAX; },
      [](ArchiveLine* line) { line->bytes = UINT64_MAX; },
      [](ArchiveLine* line) { line->pictures = UINT64_MAX / 32; },
      [](ArchiveLine* line) { line->soundFrames = UINT64_MAX; },
      [](ArchiveLine* line) { line->missing = UINT64_MAX; },
  };
  for (size_t i = 0; i < changes.size(); ++i) EXPECT_FALSE(isLineWith(changes[i])) << i;
}

TEST(ArchiveLineTest, NumbersThatAreOthersInTheirPlaceAreNoLine) {
  ArchiveLine read;
  const std::string text = good().text();
  const std::string name = "\"startMs\":";
  const size_t at = text.find(name) + name.size();
  const std::string behind = text.substr(text.find(',', at));
  for (const char* number : {"18446744073709551615", "9223372036854775808", "-1", "1e300", "1.5",
                             "null", "[]", "\"1700000000123\"", "99999999999999999999999999"}) {
    EXPECT_FALSE(ArchiveLine::parse(text.substr(0, at) + number + behind, &read)) << number;
  }
  EXPECT_FALSE(ArchiveLine::parse(std::string(100000, '['), &read));
  EXPECT_FALSE(ArchiveLine::parse("", &read));
}

TEST(ArchiveLineTest, ObjectInAnyOtherPlaceThanItsRecordersDayIsNoLine) {
  const std::string folder = kFolder;
  for (const std::string& object :
       {std::string("/etc/passwd"), std::string("../../etc/passwd"), folder + "../../../../x.mp4",
        folder + "/x.mp4", folder + "x/y.mp4", folder, folder + ".mp4/", folder + "x.sh",
        folder + "\x1b[2J.mp4", folder + "a\nb.mp4", folder + "\xff.mp4",
        std::string("recorder=van-8/date=2023-11-14/ch=0/221320123-e3.mp4"),
        std::string("recorder=van-7/date=2023-11-15/ch=0/221320123-e3.mp4"),
        std::string("recorder=van-7/date=2023-11-14/221320123-e3.mp4")}) {
    EXPECT_FALSE(isLineWith([&](ArchiveLine* line) { line->object = object; })) << object;
  }
  EXPECT_FALSE(isLineWith([](ArchiveLine* line) {
    line->recorder = "..";
    line->object = "recorder=../date=2023-11-14/ch=0/221320123-e3.mp4";
  }));
}

}  // namespace
}  // namespace tarn_test
