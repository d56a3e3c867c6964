#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "recorder/RecorderRig.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using ::testing::HasSubstr;

class TarnExport : public testing::Test {
 protected:
  // Fills a chunk of 64 KiB in the middle of a group of pictures: the next recording goes on there.
  void SetUp() override {
    if (tarn("record --help").exitCode != 0) GTEST_SKIP() << "built without media";
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 120, 800, 1000));
    ASSERT_EQ(session.close(), 0);
    ASSERT_EQ(allStreams().size(), 2u);
    second_ = allStreams()[1];
    ASSERT_FALSE(isKey(numberAt({second_.startDate, second_.startMSec * 1000u}), 1000));
    rig.stopServer();
  }
  static ShellResult tarn(const std::string& arguments) {
    return shell("timeout 60 " TARN_BIN_DIR "/tarn " + arguments + " 2>&1");
  }

  RecorderRig rig{{64 * kKiB, 16 * kKiB, 3, 64 * kKiB}};
  SyslogCapture log;
  DB_STREAM second_ = {};
};

TEST_F(TarnExport, SaysHowManyPicturesNeedAKeyPictureThatIsNotAmongThem) {
  const ShellResult result =
      tarn("export --force --stream " + std::to_string(second_.streamID) + " -o /tmp/out.h264");
  EXPECT_THAT(result.output, HasSubstr("pictures need a key picture that is not among them"));
  EXPECT_EQ(result.exitCode, 1) << "it has none at all: " << result.output;
}

TEST_F(TarnExport, SaysNothingWhereTheRecordingBeforeHasTheKeyPicture) {
  const ShellResult result = tarn("export --force --from 2001-01-01T00:00:00 -o /tmp/out.h264");
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_THAT(result.output, HasSubstr("120 pictures"));
  EXPECT_THAT(result.output, testing::Not(HasSubstr("key picture")));
}

// The pictures have the recorder's local time in them, whatever this machine's is.
TEST_F(TarnExport, SaysInWhichZoneTheRecorderWas) {
  const std::string what =
      "export --force --from 2001-01-01T00:00:00 --zone America/St_Johns -o /tmp/out.h264";
  EXPECT_THAT(tarn(what).output, HasSubstr(" MB, recorded in +02:00\n"));
  EXPECT_THAT(tarn(what).output, HasSubstr("18:43:20.000-03:30 to "));
  EXPECT_EQ(nlohmann::json::parse(tarn(what + " --json").output)["zones"],
            nlohmann::json({"+02:00"}));
}

TEST_F(TarnExport, WritesDamagedPicturesAndNamesThem) {
  const DB_STREAM row = allStreams()[0];
  tarn::RecordingReader reader;
  tarn::PictureEntry entry;
  ASSERT_EQ(reader.open(row), 0);
  ASSERT_TRUE(reader.picture(30, &entry));
  // The end of picture 30 and the begin of 31.
  rig.card.writeChunk(tarn::kFileStream, static_cast<int>(row.chunkID), entry.dataOffset + 400,
                      Bytes(900, 0x5A));
  const ShellResult json =
      shell("timeout 60 " TARN_BIN_DIR "/tarn export --force --json --stream " +
            std::to_string(row.streamID) + " -o /tmp/out.h264 2>/tmp/err");
  EXPECT_EQ(json.exitCode, 0) << json.output;
  const nlohmann::json report = nlohmann::json::parse(json.output);
  EXPECT_EQ(report["damaged"], 2);
  EXPECT_EQ(report["missing"], 0);
  EXPECT_EQ(report["pictures"], row.recSize);
  ASSERT_EQ(report["damages"].size(), 1u);
  EXPECT_EQ(report["damages"][0]["pictures"], 2);
  EXPECT_EQ(report["damages"][0]["from"], "2023-11-15T00:13:21.200+02:00");
  const std::string told = shell("cat /tmp/err").output;
  EXPECT_THAT(
      told, HasSubstr("recording 1: 2 pictures are damaged between 2023-11-15 00:13:21.200+02:00"));
  EXPECT_THAT(told, HasSubstr("2 of " + std::to_string(row.recSize) + " pictures are damaged"));
}

}  // namespace
}  // namespace tarn_test
