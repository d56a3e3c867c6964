// A folder for a case, made by the tool.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "media/MoviePieces.h"
#include "recorder/RecorderRig.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

// A card with one recording, in a file that is only read.
class TarnEvidence : public testing::Test {
 protected:
  void SetUp() override {
    if (tarn("record --help").exitCode != 0) GTEST_SKIP() << "built without media";
    if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    for (int64_t i = 0; i < 50; ++i) {
      const tarn::OutputPicture one = pictureAt(i * 40000, i % 25 == 0);
      ASSERT_EQ(
          session.writePicture(one.annexB.data(), one.annexB.size(), one.presentation, 0, one.key),
          0);
    }
    ASSERT_EQ(session.close(), 0);
    rig.stopServer();
    ASSERT_EQ(shell("cp /dev/sdblk0p1 /tmp/card").exitCode, 0);
    const ShellResult works = tarn(readOnly + "list");
    if (works.exitCode != 0 && works.output.find("FUSE") != std::string::npos)
      GTEST_SKIP() << works.output;
  }
  static ShellResult tarn(const std::string& arguments) {
    return shell("timeout 120 " TARN_BIN_DIR "/tarn " + arguments);
  }

  const std::string readOnly = "--card /tmp/card --read-only ";
  RecorderRig rig{{256 * kKiB, 64 * kKiB, 3, 64 * kKiB}};
  SyslogCapture log;
};

TEST_F(TarnEvidence, IsMadeOfACardThatIsOnlyRead) {
  const std::string before = shell("sha256sum /tmp/card").output;
  const std::string all = readOnly + "export --from 2001-01-01T00:00:00 ";
  const ShellResult made = tarn(all + "--evidence /tmp/case/ --json 2>/tmp/said");
  EXPECT_EQ(made.exitCode, 0) << shell("cat /tmp/said").output;
  const json told = json::parse(made.output, nullptr, false);
  EXPECT_EQ(told["pictures"], 50) << made.output;
  EXPECT_EQ(told["output"], "/tmp/case/video/video.mp4");
  EXPECT_THAT(shell("cat /tmp/said").output, HasSubstr("/tmp/case is not sealed"));
  EXPECT_EQ(shell("cd /tmp/case && sha256sum --check --quiet SHA256SUMS").output, "");
  const json manifest = json::parse(shell("cat /tmp/case/manifest.json").output, nullptr, false);
  EXPECT_EQ(manifest["channels"][0]["recordings"].size(), 1u) << manifest;
  EXPECT_EQ(manifest["log"]["error"], "") << "there is a server to ask";
  const ShellResult again = tarn(all + "--evidence /tmp/case");
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_THAT(again.output, HasSubstr("/tmp/case exists already; --force replaces it"));
  EXPECT_EQ(shell("sha256sum /tmp/card").output, before);
}

TEST_F(TarnEvidence, NamesTheSumOfTheWholeCardWhenAskedAndOnlyOfOneThatStaysAsItIs) {
  const std::string all = "export --from 2001-01-01T00:00:00 --evidence /tmp/case --hash-card";
  const ShellResult made = tarn(readOnly + all);
  EXPECT_EQ(made.exitCode, 0) << made.output;
  const json whole =
      json::parse(shell("cat /tmp/case/manifest.json").output, nullptr, false)["card"]["whole"];
  EXPECT_EQ(whole["name"], "/tmp/card");
  EXPECT_EQ(whole["bytes"], rig.card.size());
  EXPECT_EQ(whole["sha256"].get<std::string>() + "  -\n", shell("sha256sum </tmp/card").output);
  EXPECT_THAT(shell("cat /tmp/case/report.html").output, HasSubstr(whole["sha256"]));
  const ShellResult refused = tarn("--card /tmp/card " + all + " --force");
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.output, HasSubstr("--hash-card is for a card whose bytes stay as they are"));
}

TEST_F(TarnEvidence, IsMadeInPlaceOfAFile) {
  const std::string all = "export --from 2001-01-01T00:00:00 ";
  EXPECT_EQ(tarn(all).exitCode, 2) << "neither";
  EXPECT_EQ(tarn(all + "--evidence /tmp/case -o /tmp/out.mp4").exitCode, 2) << "both";
  EXPECT_EQ(tarn(all + "--evidence /tmp/case --tracks").exitCode, 2);
}

}  // namespace
}  // namespace tarn_test
