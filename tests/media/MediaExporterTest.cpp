#include <gmock/gmock.h>
#include <unistd.h>

#include "media/MediaInput.h"
#include "media/MoviePieces.h"
#include "media/export/MediaExporter.h"
#include "recorder/RecorderRig.h"

namespace tarn_test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kOut[] = "/tmp/out.h264";

// Exports by the class that programs have for it.
class MediaExporterTest : public testing::Test {
 protected:
  void SetUp() override {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 50, 800, 1000));
    ASSERT_EQ(session.close(), 0);
    row_ = allStreams().at(0);
  }
  tarn::ExportRequest request() const {
    tarn::ExportRequest request;
    request.streamID = row_.streamID;
    request.output = kOut;
    return request;
  }
  static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

  RecorderRig rig{{256 * kKiB, 64 * kKiB, 3, 64 * kKiB}};
  SyslogCapture log;
  DB_STREAM row_ = {};
};

TEST_F(MediaExporterTest, TellsWhatItWroteForEachChannel) {
  tarn::MediaExporter exporter(request());
  ASSERT_TRUE(exporter.run()) << exporter.error();
  ASSERT_EQ(exporter.channels().size(), 1u);
  const tarn::ExportedChannel& channel = exporter.channels()[0];
  EXPECT_EQ(channel.path, kOut);
  EXPECT_EQ(channel.channel, 0);
  EXPECT_EQ(channel.totals.written, row_.recSize);
  EXPECT_EQ(channel.totals.damaged + channel.totals.lost + channel.totals.undecodable, 0u);
  EXPECT_EQ(channel.totals.first.seconds, row_.startDate);
  EXPECT_EQ(channel.error, "");
  EXPECT_STREQ(exporter.error(), "");
  EXPECT_TRUE(exists(kOut));
}

TEST_F(MediaExporterTest, AStopLeavesNoFileAndIsAnError) {
  int asked = 0;
  tarn::MediaExporter exporter(request());
  EXPECT_FALSE(exporter.run([&] { return ++asked > 10; }));
  ASSERT_EQ(exporter.channels().size(), 1u);
  EXPECT_EQ(exporter.channels()[0].error, "stopped before its end");
  EXPECT_LT(exporter.channels()[0].totals.written, row_.recSize);
  EXPECT_FALSE(exists(kOut));
  EXPECT_FALSE(exists(std::string(kOut) + ".part"));
}

TEST_F(MediaExporterTest, APeriodWithAGapOfHoursHasTheTimesOfItsPictures) {
  constexpr int64_t kHour = int64_t{3600} * 1000000;
  for (const int64_t begin : {10 * kHour, 15 * kHour}) {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    for (int64_t i = 0; i < 50; ++i) {
      const tarn::OutputPicture one = pictureAt(begin + i * 40000, true);
      ASSERT_EQ(
          session.writePicture(one.annexB.data(), one.annexB.size(), one.presentation, 0, true), 0);
    }
    ASSERT_EQ(session.close(), 0);
  }
  tarn::ExportRequest wanted;
  wanted.from = tarn::PictureTime::fromMicros(kWall + 9 * kHour);
  wanted.output = "/tmp/out.mp4";
  tarn::MediaExporter exporter(wanted);
  ASSERT_TRUE(exporter.run()) << exporter.error();
  std::string error;
  const auto input = tarn::MediaInput::open(
      wanted.output, 0, [] { return false; }, &error);
  ASSERT_NE(input, nullptr) << error;
  tarn::MediaPicture picture;
  int64_t last = 0;
  while (input->next(&picture) == tarn::MediaInput::Result::kPicture) last = picture.presentationUs;
  EXPECT_EQ(last, 5 * kHour + 49 * 40000);
}

TEST_F(MediaExporterTest, SaysWhyThereIsNothingToExport) {
  tarn::ExportRequest wanted = request();
  wanted.streamID = row_.streamID + 1;
  tarn::MediaExporter none(wanted);
  EXPECT_FALSE(none.run());
  EXPECT_EQ(none.error(), "there is no recording " + std::to_string(*wanted.streamID));
  EXPECT_THAT(none.channels(), IsEmpty());
  wanted = request();
  wanted.channel = 5;
  tarn::MediaExporter other(wanted);
  EXPECT_FALSE(other.run());
  EXPECT_STREQ(other.error(), "nothing was recorded on that channel in that time");
  ASSERT_EQ(unlink("/tmp/DB.dat"), 0);
  tarn::MediaExporter blind(request());
  EXPECT_FALSE(blind.run());
  EXPECT_THAT(blind.error(), HasSubstr("there is no database /tmp/DB.dat"));
}

}  // namespace
}  // namespace tarn_test
