// A card that lost its journals, through the program that a recorder starts with.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "recorder/RecoveryRig.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using nlohmann::json;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

ShellResult tarn(const std::string& arguments) {
  return shell(std::string(TARN_BIN_DIR "/tarn ") + arguments);
}

class TarnFuseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rig.record(0, 40);
    chunk = allStreams()[0].chunkID;
    rig.powerOff();
    for (const int journal : {2, 3}) {
      rig.card.writeChunk(tarn::kFileJournal, journal, 0, Bytes(64 * kKiB, 0xFF));
    }
  }

  RecoveryRig rig;
  SyslogCapture log;
  uint32_t chunk = 0;
};

TEST_F(TarnFuseTest, StopsWithOneAndSaysWhatItWouldDoAndWhy) {
  const ShellResult result = tarn("recover");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output,
              HasSubstr("chunk " + std::to_string(chunk) + ", of 1 with recordings, "));
  EXPECT_THAT(result.output, HasSubstr("would become free, because the journals list none"));
  EXPECT_THAT(result.output, HasSubstr("\"recover --accept\" goes on"));
  const json report = json::parse(tarn("recover --json 2>/dev/null").output, nullptr, false);
  EXPECT_EQ(report["ok"], false);
  EXPECT_EQ(report["fuse"].size(), 1u);
  EXPECT_EQ(report["error"], report["fuse"][0]);
}

TEST_F(TarnFuseTest, UnattendedItStartsAndGuardsUntilAPersonAccepts) {
  ShellResult result = tarn("recover --unattended --json 2>/dev/null");
  EXPECT_EQ(result.exitCode, 0) << result.output;
  json report = json::parse(result.output, nullptr, false);
  EXPECT_EQ(report["fuse"].size(), 1u);
  EXPECT_EQ(report["guarded"], json::array({chunk}));
  result = tarn("recover");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output,
              HasSubstr("nothing is recorded into them: stream chunks " + std::to_string(chunk)));
  const std::string found = tarn("check").output;
  EXPECT_THAT(found, HasSubstr("chunk " + std::to_string(chunk) + " is guarded"));
  EXPECT_THAT(found, HasSubstr("what it holds is kept: nothing is recorded into it"));
  EXPECT_THAT(found, Not(HasSubstr("overwritten")));
  EXPECT_THAT(tarn("info --chunks").output,
              ContainsRegex("\n +" + std::to_string(chunk) + " +0 .* guarded\n"));
  const json info = json::parse(tarn("info --json").output, nullptr, false);
  for (const json& family : info["families"]) {
    if (!family.contains("records")) continue;
    EXPECT_EQ(family["records"][chunk]["chType"], 0);
    EXPECT_EQ(family["records"][chunk]["guarded"], true);
  }
  EXPECT_EQ(tarn("recover --accept").exitCode, 0);
  result = tarn("recover --json");
  EXPECT_EQ(result.exitCode, 0) << result.output;
  report = json::parse(result.output, nullptr, false);
  EXPECT_EQ(report["fuse"], json::array());
  EXPECT_EQ(report["guarded"], json::array());
  EXPECT_EQ(tarn("recover --accept --unattended").exitCode, 2);
}

}  // namespace
}  // namespace tarn_test
