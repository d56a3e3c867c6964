#include <gmock/gmock.h>

#include <map>
#include <sstream>

#include "recorder/RecorderRig.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

// "tarn record --stats", with the server of the rig.
class TarnRecordStats : public testing::Test {
 protected:
  struct Share {
    uint64_t bytes = 0;
    uint64_t flushes = 0;
  };
  void SetUp() override {
    if (shell("timeout 60 " TARN_BIN_DIR "/tarn record --help").exitCode != 0)
      GTEST_SKIP() << "built without media";
    const ShellResult clip = shell(
        "ffmpeg -nostdin -v error -f lavfi -i testsrc=size=160x120:rate=25 -t 3 -c:v libx264 "
        "-preset ultrafast -g 25 -bf 0 /tmp/clip.mp4");
    if (clip.exitCode != 0) GTEST_SKIP() << "no ffmpeg with an H.264 encoder: " << clip.output;
  }
  // The table's lines by their first word.
  static std::map<std::string, Share> table(const std::string& output) {
    std::map<std::string, Share> shares;
    std::istringstream lines(output.substr(output.find("to the card")));
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line)) {
      std::istringstream words(line);
      std::string cause, percent, sign, minute, mib;
      Share share;
      if (words >> cause >> share.bytes >> percent >> sign >> minute >> mib >> share.flushes)
        shares[cause] = share;
    }
    return shares;
  }

  RecorderRig rig;
  SyslogCapture log;
};

TEST_F(TarnRecordStats, TheSharesMakeUpTheWhole) {
  const ShellResult result = shell("timeout 60 " TARN_BIN_DIR
                                   "/tarn record --stats --start 2026-03-01T08:00:00 "
                                   "/tmp/clip.mp4");
  ASSERT_EQ(result.exitCode, 0) << result.output;
  ASSERT_THAT(result.output, testing::HasSubstr("to the card"));
  std::map<std::string, Share> shares = table(result.output);
  ASSERT_EQ(shares.size(), 7u) << result.output;
  const Share all = shares["all"];
  shares.erase("all");
  Share sum;
  for (const auto& [cause, share] : shares) {
    sum.bytes += share.bytes;
    sum.flushes += share.flushes;
  }
  EXPECT_EQ(sum.bytes, all.bytes);
  EXPECT_EQ(sum.flushes, all.flushes);
  EXPECT_EQ(shares["entries"].bytes, 75u * 32);
  EXPECT_EQ(shares["headers"].bytes, 3u * 32);
  EXPECT_EQ(shares["log"].bytes, 0u);
  EXPECT_GT(shares["management"].bytes, 0u);
}

TEST_F(TarnRecordStats, WithoutTheOptionThereIsNone) {
  const ShellResult result =
      shell("timeout 60 " TARN_BIN_DIR "/tarn record --start 2026-03-01T08:00:00 /tmp/clip.mp4");
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_THAT(result.output, testing::Not(testing::HasSubstr("to the card")));
}

}  // namespace
}  // namespace tarn_test
