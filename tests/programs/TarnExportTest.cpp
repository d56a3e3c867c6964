#include <gmock/gmock.h>

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

}  // namespace
}  // namespace tarn_test
