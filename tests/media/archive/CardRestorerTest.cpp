#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "media/MoviePieces.h"
#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/CardArchiver.h"
#include "media/archive/CardRestorer.h"
#include "media/archive/RecordedPictures.h"
#include "recorder/RecorderRig.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kPlace[] = "/tmp/archive";

// A recording of 30 pictures with an event, archived.
class CardRestorerTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir(kPlace, 0777), 0);
    ASSERT_TRUE(openSession(session));
    record(30);
    const uint32_t key = session.beginEvent(7, pictureAt(400000, false).presentation, 2);
    ASSERT_EQ(session.endEvent(key, pictureAt(800000, false).presentation), 0);
    ASSERT_EQ(session.close(), 0);
    tarn::CardArchiver::Settings settings;
    settings.place = kPlace;
    settings.recorder = "van-7";
    tarn::CardArchiver archiver(settings);
    ASSERT_TRUE(archiver.run(nullptr, nullptr)) << archiver.error();
    for (const std::string& clip : archiver.report().uploaded) {
      if (clip.find("-r") != std::string::npos) recording = clip;
    }
    ASSERT_FALSE(recording.empty());
  }
  void record(uint32_t pictures) { writePictures(&session, 0, pictures); }
  bool restore() {
    tarn::CardRestorer::Settings settings;
    settings.place = kPlace;
    tarn::CardRestorer restorer(settings);
    const bool good = restorer.run(nullptr, nullptr);
    report = restorer.report();
    error = restorer.error();
    return good;
  }
  static void forgetCard() {
    for (const DB_STREAM& row : allStreams()) CApiDb().deleteStream(row.streamID);
    for (const DB_EVENT& row : allEvents()) CApiDb().deleteEvent(row.eventID);
  }
  static void removeEventsClip() {
    for (const auto& one : std::filesystem::recursive_directory_iterator(kPlace)) {
      if (one.path().filename().string().find("-e") != std::string::npos)
        std::filesystem::remove(one.path());
    }
  }
  // What the archive says of the recording, changed.
  template <typename Change>
  void rewrite(Change change) const {
    const std::string path = std::string(kPlace) + "/" + tarn::sidecarOf(recording);
    std::string text;
    std::getline(std::ifstream(path), text);
    tarn::ArchiveLine line;
    ASSERT_TRUE(tarn::ArchiveLine::parse(text, &line));
    change(&line);
    std::ofstream(path) << line.text() << "\n";
    for (const auto& one : std::filesystem::recursive_directory_iterator(kPlace)) {
      if (one.path().extension() == ".zst") std::filesystem::remove(one.path());
    }
  }

  RecorderRig rig{{256 * kKiB, 64 * kKiB, 3, 64 * kKiB}};
  SyslogCapture log;
  tarn::RecordingSession session;
  std::string recording;
  tarn::CardRestorer::Report report;
  std::string error;
};

TEST_F(CardRestorerTest, WhatIsThereIsNotPutThereTwice) {
  EXPECT_TRUE(restore()) << error;
  EXPECT_THAT(report.restored, IsEmpty());
  EXPECT_EQ(report.present, 1u);
  EXPECT_EQ(report.events, 0u);
  EXPECT_THAT(allStreams(), SizeIs(1));
}

TEST_F(CardRestorerTest, RecordingAndEventComeBackAtTheirTimes) {
  const DB_STREAM was = allStreams().at(0);
  const DB_EVENT event = allEvents().at(0);
  forgetCard();
  EXPECT_TRUE(restore()) << error;
  EXPECT_THAT(report.restored, ElementsAre(recording));
  EXPECT_EQ(report.events, 1u);
  ASSERT_THAT(allStreams(), SizeIs(1));
  const DB_STREAM now = allStreams().at(0);
  EXPECT_EQ(now.startDate, was.startDate);
  EXPECT_EQ(now.startMSec, was.startMSec);
  EXPECT_EQ(now.endDate, was.endDate);
  EXPECT_EQ(now.endMSec, was.endMSec);
  EXPECT_EQ(now.recSize, was.recSize);
  ASSERT_THAT(allEvents(), SizeIs(1));
  EXPECT_EQ(allEvents().at(0).startDate, event.startDate);
  EXPECT_EQ(allEvents().at(0).endMSec, event.endMSec);
  EXPECT_EQ(allEvents().at(0).extTrg, 7);
  EXPECT_EQ(allEvents().at(0).preSec, 2);
}

TEST_F(CardRestorerTest, PartThatAnInterruptedRunLeftGoesOnceTheWholeIsThere) {
  forgetCard();
  ASSERT_TRUE(openSession(session));
  record(12);
  ASSERT_EQ(session.close(), 0);
  EXPECT_TRUE(restore()) << error;
  ASSERT_THAT(allStreams(), SizeIs(1));
  EXPECT_EQ(allStreams().at(0).recSize, 30u);
  EXPECT_TRUE(restore()) << error;
  EXPECT_EQ(report.present, 1u);
}

TEST_F(CardRestorerTest, NothingGoesToMakeRoom) {
  for (int8_t channel = 1; channel < 3; ++channel) {
    tarn::RecordingOptions options;
    options.channel = channel;
    ASSERT_EQ(session.open(options), 0) << session.errorText();
    record(1);
    ASSERT_EQ(session.close(), 0);
  }
  rewrite([](tarn::ArchiveLine* line) { line->channel = 5; });
  EXPECT_FALSE(restore());
  EXPECT_THAT(error, HasSubstr("the card has no room for " + recording +
                               ": 1 free chunks are needed, and there are 0"));
  EXPECT_THAT(allStreams(), SizeIs(3));
}

TEST_F(CardRestorerTest, ClipThatDoesNotHoldWhatItsLineSaysLeavesNothing) {
  forgetCard();
  rewrite([](tarn::ArchiveLine* line) { line->pictures = 31; });
  EXPECT_FALSE(restore());
  EXPECT_EQ(error, "");
  ASSERT_THAT(report.failures, SizeIs(1));
  EXPECT_EQ(report.failures[0].reason, "it has 30 pictures, of 31");
  EXPECT_THAT(allStreams(), IsEmpty());
}

TEST_F(CardRestorerTest, ClipThatHoldsMoreThanItsLineSaysIsNotRecordedToItsEnd) {
  forgetCard();
  rewrite([](tarn::ArchiveLine* line) { line->pictures = 29; });
  EXPECT_FALSE(restore());
  ASSERT_THAT(report.failures, SizeIs(1));
  EXPECT_EQ(report.failures[0].reason, "it has more in it than the archive says");
  EXPECT_THAT(allStreams(), IsEmpty());
}

TEST_F(CardRestorerTest, ClipThatIsLargerThanItsLineSaysIsNotCopied) {
  forgetCard();
  removeEventsClip();
  std::filesystem::resize_file(std::string(kPlace) + "/" + recording, uintmax_t{1} << 40);
  EXPECT_FALSE(restore());
  EXPECT_EQ(error, "");
  ASSERT_THAT(report.failures, SizeIs(1));
  EXPECT_EQ(report.failures[0].reason, "is not what the archive says of it");
  EXPECT_THAT(allStreams(), IsEmpty());
}

// In parts, as a movie has one size.
class PartsRestored : public CardRestorerTest {
 protected:
  void SetUp() override {
    CardRestorerTest::SetUp();
    forgetCard();
    std::filesystem::remove_all(std::string(kPlace) + "/recorder=van-7");
    ASSERT_TRUE(openSession(session));
    record(30);
    writePictures(&session, 30, 50, true);
    ASSERT_EQ(session.close(), 0);
    clips = archived(kPlace);
    ASSERT_THAT(clips, SizeIs(2));
    forgetCard();
  }
  static std::vector<std::string> archived(const char* place) {
    tarn::CardArchiver::Settings settings;
    settings.place = place;
    settings.recorder = "van-7";
    tarn::CardArchiver archiver(settings);
    EXPECT_TRUE(archiver.run(nullptr, nullptr)) << archiver.error();
    return archiver.report().uploaded;
  }
  static std::string contentOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
  }
  std::vector<std::string> clips;
};

TEST_F(PartsRestored, ComeBackAsOneRecordingWhichHasTheSameClips) {
  EXPECT_TRUE(restore()) << error;
  ASSERT_THAT(allStreams(), SizeIs(1));
  EXPECT_EQ(allStreams().at(0).recSize, 50u);
  EXPECT_TRUE(restore()) << error;
  EXPECT_EQ(report.present, 1u);
  const char other[] = "/tmp/other";
  ASSERT_EQ(mkdir(other, 0777), 0);
  const std::vector<std::string> again = archived(other);
  ASSERT_THAT(again, SizeIs(2));
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(contentOf(std::string(other) + "/" + again[i]),
              contentOf(std::string(kPlace) + "/" + clips[i]));
  }
}

TEST_F(PartsRestored, AllOfThemOrNone) {
  std::filesystem::remove(std::string(kPlace) + "/" + clips[0]);
  EXPECT_FALSE(restore());
  ASSERT_THAT(report.failures, SizeIs(1));
  EXPECT_EQ(report.failures[0].reason, "the archive does not have all of its parts");
  EXPECT_THAT(allStreams(), IsEmpty());
}

TEST_F(CardRestorerTest, ClipOfOtherBytesIsNotRecorded) {
  forgetCard();
  rewrite([](tarn::ArchiveLine* line) { line->hashes.sha256[0] ^= 1; });
  EXPECT_FALSE(restore());
  ASSERT_THAT(report.failures, SizeIs(1));
  EXPECT_EQ(report.failures[0].reason, "is not what the archive says of it");
  EXPECT_THAT(allStreams(), IsEmpty());
}

// Whoever can write to the archive can write any number into it.
TEST_F(CardRestorerTest, LineWithNumbersThatNoRecordingHasIsNoLine) {
  forgetCard();
  removeEventsClip();
  const std::string path = std::string(kPlace) + "/" + tarn::sidecarOf(recording);
  std::string good;
  std::getline(std::ifstream(path), good);
  using Line = tarn::ArchiveLine;
  const std::vector<void (*)(Line*)> changes = {
      [](Line* line) { line->startMs = INT64_MAX; },
      [](Line* line) { line->endMs = INT64_MAX; },
      [](Line* line) { line->firstUs = INT64_MAX; },
      [](Line* line) { line->startMs = line->endMs = (int64_t{1} << 32) * 1000; },
      [](Line* line) { line->channel = 300; },
      [](Line* line) { line->trigger = 0x10000; },
      [](Line* line) { line->preSeconds = 0x10000; },
      [](Line* line) { line->bytes = UINT64_MAX; },
      [](Line* line) { line->pictures = UINT64_MAX; },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    rewrite([&](Line* line) {
      if (i == 6) line->kind = "event";
      changes[i](line);
    });
    EXPECT_FALSE(restore()) << i;
    EXPECT_EQ(error, "") << i;
    ASSERT_THAT(report.failures, SizeIs(1)) << i;
    EXPECT_EQ(report.failures[0].object, tarn::sidecarOf(recording)) << i;
    EXPECT_THAT(report.failures[0].reason, HasSubstr("is damaged")) << i;
    EXPECT_THAT(allStreams(), IsEmpty()) << i;
    EXPECT_THAT(allEvents(), IsEmpty()) << i;
    std::ofstream(path) << good << "\n";
  }
  EXPECT_TRUE(restore()) << error;
}

TEST_F(CardRestorerTest, WhatTheIndexSaysOfAClipIsNotReadAgain) {
  forgetCard();
  std::ofstream(std::string(kPlace) + "/" + tarn::sidecarOf(recording)) << "no line\n";
  EXPECT_TRUE(restore()) << error;
  EXPECT_THAT(report.failures, IsEmpty());
  EXPECT_THAT(allStreams(), SizeIs(1));
}

TEST_F(CardRestorerTest, SoundThatEndsBeforeItBeginsNeedsNoRoomOfAllCards) {
  forgetCard();
  removeEventsClip();
  rewrite([](tarn::ArchiveLine* line) {
    line->media = "sound";
    line->endMs = line->startMs - 1000;
  });
  EXPECT_FALSE(restore());
  EXPECT_EQ(error, "");
  ASSERT_THAT(report.failures, SizeIs(1));
  EXPECT_EQ(report.failures[0].object, recording);
}

TEST_F(CardRestorerTest, IndexOfWhichLinesAreDamagedIsNamedAndTheClipsComeBackByTheirOwn) {
  forgetCard();
  removeEventsClip();
  rewrite([](tarn::ArchiveLine* /*line*/) {});
  const std::string index = recording.substr(0, recording.find("/ch=")) + tarn::kPlainIndexName;
  std::ofstream(std::string(kPlace) + "/" + index) << "no line\n";
  EXPECT_FALSE(restore());
  EXPECT_EQ(error, "");
  EXPECT_THAT(report.restored, ElementsAre(recording));
  ASSERT_THAT(report.failures, SizeIs(1));
  EXPECT_EQ(report.failures[0].object, index);
}

}  // namespace
}  // namespace tarn_test
