// What becomes of sound when the power goes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recorder/SoundRig.h"
#include "recorder/check/CardCheck.h"

using namespace tarn_test;
using tarn::RecoveryReport;
using tarn::SoundSession;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class SoundRecovery : public testing::Test {
 protected:
  // Sound of ten seconds, and pictures where they are wanted, cut while both run. What was safe.
  uint64_t recordAndCut(uint32_t pictures, uint32_t frames) {
    tarn::RecordingSession video;
    SoundSession sound;
    if (pictures > 0) {
      EXPECT_TRUE(openSession(video));
      EXPECT_TRUE(writePictures(video, 0, pictures));
    }
    EXPECT_TRUE(openSound(sound));
    EXPECT_TRUE(writeSound(sound, 0, frames));
    const uint64_t safe = sound.statistics().confirmed;
    const Bytes card = rig.cardBytes();
    sound.close();
    video.close();
    rig.powerOff(card);
    return safe;
  }

  void expectASecondRunToChangeNothing() {
    const Bytes before = rig.cardBytes();
    EXPECT_TRUE(rig.boot().ok());
    EXPECT_TRUE(rig.cardBytes() == before);
  }

  // What the check says of recordings; the rig's card has no file system to speak of.
  std::vector<tarn::CardFinding> findings(tarn::CardCheck* check) {
    std::string error;
    EXPECT_EQ(check->run(rig.card.path(), {}, &error), 0) << error;
    std::vector<tarn::CardFinding> found;
    for (const tarn::CardFinding& finding : check->findings().list()) {
      if (finding.streamID != 0 || finding.eventID != 0) found.push_back(finding);
    }
    return found;
  }
  void expectACleanCheck() {
    tarn::CardCheck check;
    for (const tarn::CardFinding& finding : findings(&check)) ADD_FAILURE() << finding.text;
  }

  RecoveryRig rig;
};

TEST_F(SoundRecovery, AllThatWasSafeComesBack) {
  const uint64_t safe = recordAndCut(200, 400);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kRecordingClosed), 2u);
  const std::vector<DB_STREAM> rows = rowsOfSound();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].status, 0x10000u);
  const std::vector<uint32_t> frames = framesOf(rows[0]);
  EXPECT_EQ(frames, range(0, static_cast<uint32_t>(frames.size())));
  EXPECT_GE(frames.size(), safe);
  EXPECT_GE(safe, 400u - 47u);
  expectASecondRunToChangeNothing();
  expectACleanCheck();
}

// A card that lost what it had confirmed: another recording's bytes lie behind the last entries.
TEST_F(SoundRecovery, SoundWhoseBytesAreNotItsOwnEndsIt) {
  recordAndCut(0, 400);
  rig.boot();
  const DB_STREAM row = rowsOfSound().at(0);
  tarn::PictureEntry last;
  tarn::RecordingReader reader;
  ASSERT_EQ(reader.open(row), 0);
  ASSERT_TRUE(reader.picture(row.recSize - 1, &last));
  rig.powerOff();
  rig.reopenRow(row);
  Bytes bytes =
      rig.card.readChunk(tarn::kFileStream, static_cast<int>(row.chunkID), last.dataOffset, 64);
  bytes[12] ^= 1;  // of another second
  rig.card.writeChunk(tarn::kFileStream, static_cast<int>(row.chunkID), last.dataOffset, bytes);
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(rowsOfSound().at(0).recSize, row.recSize - 1);
}

// A picture shows an event, and sound does not.
TEST_F(SoundRecovery, AnEventWithoutAPictureGoesThoughThereIsSound) {
  SoundSession sound;
  tarn::RecordingSession video;
  ASSERT_TRUE(openSound(sound));
  ASSERT_TRUE(writeSound(sound, 0, 400));
  ASSERT_TRUE(openSession(video));
  ASSERT_NE(video.beginEvent(7, pictureTime(50), 0), 0u);
  ASSERT_TRUE(writePictures(video, 50, 51));
  const Bytes card = rig.cardBytes();
  ASSERT_EQ(sound.close(), 0);
  ASSERT_EQ(video.close(), 0);
  rig.powerOff(card);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(allEvents(), IsEmpty());
  EXPECT_THAT(rowsOfVideo(), IsEmpty());
  EXPECT_EQ(rowsOfSound().size(), 1u);
}

TEST_F(SoundRecovery, ARunningEventEndsWithThePicturesAndNotWithTheSound) {
  SoundSession sound;
  tarn::RecordingSession video;
  ASSERT_TRUE(openSession(video));
  ASSERT_TRUE(openSound(sound));
  ASSERT_NE(video.beginEvent(7, pictureTime(10), 0), 0u);
  ASSERT_TRUE(writePictures(video, 0, 101));
  ASSERT_EQ(video.flush(), 0);
  ASSERT_TRUE(writeSound(sound, 0, 400));
  const Bytes card = rig.cardBytes();
  ASSERT_EQ(sound.close(), 0);
  ASSERT_EQ(video.close(), 0);
  rig.powerOff(card);
  ASSERT_TRUE(rig.boot().ok());
  ASSERT_EQ(allEvents().size(), 1u);
  EXPECT_EQ(allEvents()[0].endDate, kStart + 4);
}

TEST_F(SoundRecovery, TheCheckNamesSoundThatIsDamaged) {
  {
    SoundSession sound;
    tarn::RecordingSession video;
    ASSERT_TRUE(openSession(video));
    ASSERT_TRUE(openSound(sound));
    ASSERT_TRUE(writePictures(video, 0, 100));
    ASSERT_TRUE(writeSound(sound, 0, 188));
    const uint32_t event = video.beginEvent(7, pictureTime(500), 0);
    ASSERT_TRUE(writePictures(video, 500, 501));
    ASSERT_EQ(video.endEvent(event, pictureTime(510)), 0);
    ASSERT_EQ(sound.close(), 0);
    ASSERT_EQ(video.close(), 0);
  }
  CDbLog::getInstance()->finish();
  rig.stopServer();
  expectACleanCheck();
  const DB_STREAM row = rowsOfSound().at(0);
  tarn::PictureEntry entry;
  tarn::RecordingReader reader;
  ASSERT_EQ(reader.open(row), 0);
  ASSERT_TRUE(reader.picture(3, &entry));
  rig.card.writeChunk(tarn::kFileStream, static_cast<int>(row.chunkID), entry.dataOffset + 400,
                      Bytes(64, 0x5A));
  tarn::CardCheck check;
  const std::vector<tarn::CardFinding> found = findings(&check);
  ASSERT_EQ(found.size(), 1u);
  const tarn::CardFinding& finding = found[0];
  EXPECT_EQ(finding.kind, tarn::FindingKind::kData);
  EXPECT_TRUE(finding.isSound);
  EXPECT_THAT(finding.text, HasSubstr("block of sound 4 of 9"));
  EXPECT_THAT(finding.meaning, HasSubstr("of camera 0's sound at"));
  EXPECT_EQ(check.findings().videoMicros(tarn::Consequence::kDamaged), 0);
  EXPECT_GT(check.findings().soundMicros(tarn::Consequence::kDamaged), 400000);
  EXPECT_THAT(meaningOfAll(check.findings(), 0), HasSubstr("s of sound damaged"));
}

}  // namespace
