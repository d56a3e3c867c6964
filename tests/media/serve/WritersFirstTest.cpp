#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "media/DeviceCounts.h"
#include "media/serve/WritersFirst.h"

namespace tarn_test {
namespace {

using tarn::WritersFirst;

constexpr char kFolder[] = "/tmp/device/";
constexpr int64_t kNoPatience = 0;
constexpr int64_t kPatience = 60000;  // ms

// The kernel's files of a device.
class WritersFirstTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(kFolder); }
  void TearDown() override { std::filesystem::remove_all(kFolder); }

  static void device(uint64_t sectorsWritten, int writesUnderWay) {
    put("inflight", "       3        " + std::to_string(writesUnderWay));
    put("stat", " 10 0 80 5 9 0 " + std::to_string(sectorsWritten) + " 7 3 8 9");
  }
  // At once: somebody may look at any time.
  static void put(const std::string& name, const std::string& text) {
    const std::string path = kFolder + name;
    std::ofstream(path + ".new") << text << "\n";
    std::filesystem::rename(path + ".new", path);
  }
  // Longer than what was seen counts as what is.
  static void later() { std::this_thread::sleep_for(std::chrono::milliseconds(6)); }
};

TEST_F(WritersFirstTest, WhatMemoryHeldCostsNothing) {
  device(1000, 1);
  WritersFirst writers(kFolder);
  EXPECT_TRUE(writers.wait(kNoPatience));
  writers.noteRead(0);
  EXPECT_TRUE(writers.wait(kNoPatience));
}

TEST_F(WritersFirstTest, ManyTimesWhatWasReadIsWrittenFirst) {
  device(1000, 1);
  WritersFirst writers(kFolder);
  writers.noteRead(2);
  EXPECT_FALSE(writers.wait(kNoPatience));
  later();
  device(1127, 1);
  EXPECT_FALSE(writers.wait(kNoPatience));
  writers.noteRead(1);
  later();
  device(1191, 1);
  EXPECT_FALSE(writers.wait(kNoPatience)) << "one more was read";
  later();
  device(1192, 1);
  EXPECT_TRUE(writers.wait(kNoPatience));
  later();
  device(1192, 1);
  EXPECT_TRUE(writers.wait(kNoPatience)) << "nothing is owed";
}

TEST_F(WritersFirstTest, ADeviceThatHasTimeToSpareIsRead) {
  device(1000, 1);
  WritersFirst writers(kFolder);
  writers.noteRead(1000000);
  EXPECT_FALSE(writers.wait(kNoPatience));
  later();
  device(1008, 0);
  EXPECT_TRUE(writers.wait(kPatience));
}

TEST_F(WritersFirstTest, WhatIsReadWhileTheDeviceHasTimeCostsNothing) {
  device(1000, 0);
  WritersFirst writers(kFolder);
  writers.noteRead(1);
  EXPECT_TRUE(writers.wait(kPatience));
  writers.noteRead(1000000);
  later();
  device(1001, 1);
  EXPECT_TRUE(writers.wait(kNoPatience));
}

TEST_F(WritersFirstTest, ADeviceThatStandsStillInAWriteHasNone) {
  device(1000, 1);
  WritersFirst writers(kFolder);
  writers.noteRead(1000000);
  EXPECT_FALSE(writers.wait(100));
}

TEST_F(WritersFirstTest, WithoutADeviceNobodyWaits) {
  EXPECT_EQ(tarn::DeviceCounts::folderOf("/dev/null"), "");
  EXPECT_EQ(tarn::DeviceCounts::folderOf("/nowhere"), "");
  for (const char* folder : {"", "/tmp/no-such-device/"}) {
    WritersFirst writers(folder);
    writers.noteRead(1000000);
    EXPECT_TRUE(writers.wait(kPatience)) << folder;
  }
}

}  // namespace
}  // namespace tarn_test
