#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <vector>

#include "media/ArchiveStatus.h"
#include "media/MediaInput.h"
#include "media/MoviePieces.h"
#include "media/PictureFormat.h"
#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/ArchiveVerifier.h"
#include "media/archive/CardArchiver.h"
#include "media/archive/PackedText.h"
#include "media/archive/RecordedPictures.h"
#include "media/seal/FileVerifier.h"
#include "media/seal/SealKeys.h"
#include "recorder/RecorderRig.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kPlace[] = "/tmp/archive";
constexpr char kDay[] = "/tmp/archive/recorder=van-7/date=2023-11-14/index.jsonl.zst";
constexpr uint64_t kSlot = 32;  // header and entries in a picture chunk

// Archives by the class that programs have for it.
class CardArchiverTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir(kPlace, 0777), 0);
    ASSERT_TRUE(openSession(session));
    writePictures(&session, 0, 30);
  }
  bool archive(const tarn::StopAsked& stopAsked = nullptr) {
    tarn::CardArchiver::Settings settings;
    settings.place = kPlace;
    settings.recorder = "van-7";
    settings.seal = seal;
    settings.whileRecording = whileRecording;
    tarn::CardArchiver archiver(settings);
    const bool good = archiver.run(stopAsked, nullptr);
    report = archiver.report();
    error = archiver.error();
    return good;
  }
  static std::string contentOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
  }
  static std::string index() {
    std::string unpacked;
    EXPECT_TRUE(tarn::unpackText(contentOf(kDay), &unpacked));
    return unpacked;
  }
  // What the index says of it. The rig's card is not a formatted one, so that findings come first.
  static bool readRecording(tarn::ArchiveLine* line) {
    std::istringstream text(index());
    for (std::string one; std::getline(text, one);) {
      if (tarn::ArchiveLine::parse(one, line) && line->kind == "recording") return true;
    }
    return false;
  }
  static size_t files() {
    size_t count = 0;
    for (const auto& one : std::filesystem::recursive_directory_iterator(kPlace))
      count += one.is_regular_file() ? 1 : 0;
    return count;
  }

  // Behind the pictures of 64 by 48 that are there.
  void recordSmallOnes() {
    writePictures(&session, 30, 50, true);
    ASSERT_EQ(session.close(), 0);
  }

  std::string said() const {
    std::string text;
    for (const LogLine& line : log.lines()) text += line.text + "\n";
    return text;
  }

  RecorderRig rig{{256 * kKiB, 64 * kKiB, 3, 64 * kKiB}};
  SyslogCapture log;
  tarn::RecordingSession session;
  std::optional<tarn::SealRequest> seal;
  bool whileRecording = false;
  tarn::ArchiveReport report;
  std::string error;
};

std::string sizeOf(const std::string& clip) {
  std::string failure;
  const auto input = tarn::MediaInput::open(
      std::string(kPlace) + "/" + clip, 0, [] { return false; }, &failure);
  tarn::MediaPicture picture;
  if (input == nullptr || input->next(&picture) != tarn::MediaInput::Result::kPicture)
    return failure;
  const tarn::PictureSize size = tarn::pictureSizeOf(picture.annexB);
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

TEST_F(CardArchiverTest, WhatIsStillRecordedIsLeftForALaterRun) {
  EXPECT_TRUE(archive()) << error;
  EXPECT_EQ(report.waiting, 1u);
  EXPECT_THAT(report.uploaded, IsEmpty());
  EXPECT_EQ(files(), 0u);
  ASSERT_EQ(session.close(), 0);
  EXPECT_TRUE(archive()) << error;
  EXPECT_EQ(report.waiting, 0u);
  EXPECT_THAT(report.uploaded, SizeIs(1));
  EXPECT_EQ(files(), 3u) << "clip, sidecar and index";
  EXPECT_THAT(index(), HasSubstr("\"pictures\":30,"));
}

TEST_F(CardArchiverTest, PicturesThatTheCardGivesLaterReplaceAClipThatLacksThem) {
  ASSERT_EQ(session.close(), 0);
  const DB_STREAM row = allStreams().at(0);
  const auto chunk = static_cast<int>(row.chunkID);
  const uint64_t entry = row.chunkOffset + (1 + 25) * kSlot;
  const Bytes whole = rig.card.readChunk(tarn::kFilePicture, chunk, entry, kSlot);
  rig.card.writeChunk(tarn::kFilePicture, chunk, entry, Bytes(kSlot, 0x5A));

  EXPECT_FALSE(archive()) << "it is not all there";
  EXPECT_EQ(error, "");
  EXPECT_THAT(report.uploaded, SizeIs(1)) << "but what there is, is archived";
  EXPECT_THAT(report.incomplete, SizeIs(1));
  EXPECT_THAT(index(), testing::Not(HasSubstr("\"missing\":0,")));
  EXPECT_THAT(index(), HasSubstr("\"kind\":\"finding\",\"recorder\":\"van-7\","));
  EXPECT_THAT(index(), HasSubstr("\"finding\":\"entry\",\"consequence\":\"lost\","));
  EXPECT_THAT(index(), HasSubstr("index entries are damaged"));

  EXPECT_FALSE(archive());
  EXPECT_THAT(report.uploaded, IsEmpty()) << "no more of it than before";
  EXPECT_THAT(report.incomplete, SizeIs(1));

  rig.card.writeChunk(tarn::kFilePicture, chunk, entry, whole);
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(report.uploaded, SizeIs(1));
  EXPECT_THAT(index(), HasSubstr("\"pictures\":30,"));
  EXPECT_THAT(index(), HasSubstr("\"missing\":0,"));
  EXPECT_THAT(index(), testing::Not(HasSubstr("\"finding\":\"entry\"")))
      << "it was of the clip before";
  EXPECT_EQ(files(), 3u);
}

TEST_F(CardArchiverTest, GapWithinARecordingHasItsReasonAsInEvidence) {
  const tarn::OutputPicture late = pictureAt(30 * 40000 + 5000000, true);
  ASSERT_EQ(
      session.writePicture(late.annexB.data(), late.annexB.size(), late.presentation, 0, true), 0);
  ASSERT_EQ(session.close(), 0);
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(index(), HasSubstr("\"reason\":\"noRecording\","));
}

TEST_F(CardArchiverTest, PicturesOfAnotherSizeAreAPartOfTheirOwn) {
  recordSmallOnes();
  EXPECT_TRUE(archive()) << error;
  ASSERT_THAT(report.uploaded, SizeIs(2)) << "the first part's sidecar comes last";
  const std::string first = report.uploaded.at(1);
  const std::string second = report.uploaded.at(0);
  EXPECT_EQ(second, first.substr(0, first.size() - 4) + "-2.mp4");
  EXPECT_EQ(files(), 5u);
  EXPECT_THAT(index(), HasSubstr("\"object\":\"" + first + "\",\"parts\":2,"));
  EXPECT_THAT(index(), HasSubstr("\"object\":\"" + second + "\",\"part\":2,"));
  EXPECT_THAT(index(), HasSubstr("\"pictures\":30,"));
  EXPECT_THAT(index(), HasSubstr("\"pictures\":20,"));
  EXPECT_EQ(sizeOf(first), "64x48");
  EXPECT_EQ(sizeOf(second), "32x32");
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(report.uploaded, IsEmpty());
  EXPECT_EQ(report.present, 1u);

  const std::string was = contentOf(std::string(kPlace) + "/" + second);
  std::filesystem::remove(std::string(kPlace) + "/" + second);
  EXPECT_TRUE(archive()) << error;
  EXPECT_EQ(contentOf(std::string(kPlace) + "/" + second), was) << "the same bytes again";
}

TEST_F(CardArchiverTest, ClipThatIsThereWithoutItsSidecarIsProvenAndNotSentAgain) {
  ASSERT_EQ(session.close(), 0);
  ASSERT_TRUE(archive()) << error;
  const std::string clip = std::string(kPlace) + "/" + report.uploaded.at(0);
  const std::string text = index();
  struct stat was = {};
  struct stat now = {};
  std::filesystem::remove(tarn::sidecarOf(clip));
  std::filesystem::remove(kDay);
  ASSERT_EQ(stat(clip.c_str(), &was), 0);
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(report.uploaded, IsEmpty());
  ASSERT_EQ(stat(clip.c_str(), &now), 0);
  EXPECT_EQ(now.st_ino, was.st_ino);
  EXPECT_EQ(index(), text);

  std::filesystem::remove(tarn::sidecarOf(clip));
  const std::string whole = contentOf(clip);
  std::ofstream(clip, std::ios::binary) << std::string(whole.size(), 'x');
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(report.uploaded, SizeIs(1)) << "it is another one";
  EXPECT_EQ(contentOf(clip), whole);
}

TEST_F(CardArchiverTest, WhatIsWrongWithTheCardItselfIsAFindingOfItsNewestDay) {
  ASSERT_EQ(session.close(), 0);
  const std::string damaged = "MGST: the backup is damaged, the main copy is good";
  const auto& family = rig.card.family(tarn::kFileStreamManage);
  const Bytes whole = rig.card.readChunk(tarn::kFileStreamManage, 1, 0, family.chunkSize);
  rig.card.writeChunk(tarn::kFileStreamManage, 1, 0, Bytes(family.chunkSize, 0x5A));
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(index(), HasSubstr("\"kind\":\"finding\",\"recorder\":\"van-7\",\"channel\":null,"
                                 "\"start\":\"2023-11-14T00:00:00.000+00:00\","));
  EXPECT_THAT(index(), HasSubstr("\"finding\":\"management\",\"consequence\":\"none\",\"text\":\"" +
                                 damaged + "\","));

  rig.card.writeChunk(tarn::kFileStreamManage, 1, 0, whole);
  ASSERT_TRUE(openSession(session));
  recordSmallOnes();
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(index(), testing::Not(HasSubstr(damaged))) << "it was of the card before";
}

TEST_F(CardArchiverTest, IndexOfAnEarlyArchiveIsReadAndGoesOnPacked) {
  ASSERT_EQ(session.close(), 0);
  ASSERT_TRUE(archive()) << error;
  const std::string text = index();
  const std::string plain = std::string(kDay, strlen(kDay) - strlen(".zst"));
  ASSERT_EQ(unlink(kDay), 0);
  // Of a recording that the card has lost since, and whose sidecar is gone.
  tarn::ArchiveLine lost;
  lost.kind = "gap";
  lost.recorder = "van-7";
  lost.startMs = int64_t{kStart} * 1000 - 5000;
  lost.endMs = lost.startMs + 3000;
  std::ofstream(plain) << lost.text() << "\n" << text;
  tarn::ArchiveVerifier verifier(kPlace, "");
  EXPECT_TRUE(verifier.run(nullptr, nullptr)) << verifier.error();
  EXPECT_THAT(verifier.findings(), IsEmpty());
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(report.uploaded, IsEmpty());
  EXPECT_THAT(index(), HasSubstr(lost.text() + "\n"));
  EXPECT_EQ(index().size(), lost.text().size() + 1 + text.size()) << "and all that was there";
}

TEST_F(CardArchiverTest, IndexThatCannotBeUnpackedIsMadeAgain) {
  ASSERT_EQ(session.close(), 0);
  ASSERT_TRUE(archive()) << error;
  const std::string text = index();
  std::ofstream(kDay) << "none";
  tarn::ArchiveVerifier verifier(kPlace, "");
  EXPECT_TRUE(verifier.run(nullptr, nullptr)) << verifier.error();
  ASSERT_FALSE(verifier.findings().empty());
  EXPECT_EQ(verifier.findings().front().text, "is damaged: it cannot be unpacked");
  EXPECT_TRUE(archive()) << error;
  EXPECT_EQ(index(), text);
}

TEST_F(CardArchiverTest, EventDuringWhichNothingWasRecordedHasALineAndNoClip) {
  ASSERT_EQ(session.close(), 0);
  DB_EVENT event = {};
  event.extTrg = 9;
  event.startDate = kStart + 5000;
  event.endDate = event.startDate + 2;
  CApiDb().insertEvent(&event);
  ASSERT_THAT(allEvents(), SizeIs(1));
  EXPECT_TRUE(archive()) << error;
  EXPECT_EQ(files(), 3u) << "of the recording alone";
  EXPECT_THAT(index(), HasSubstr("\"kind\":\"event\",\"recorder\":\"van-7\",\"channel\":null,"
                                 "\"start\":\"2023-11-14T23:36:40.000+00:00\""));
  EXPECT_THAT(index(), HasSubstr("\"trigger\":9,"));
}

TEST_F(CardArchiverTest, EventIsArchivedAsSoonAsTheCardHasItsTimeAndHasTheSameBytesAsLater) {
  const uint32_t key = session.beginEvent(7, pictureAt(400000, false).presentation, 0);
  ASSERT_NE(key, 0u);
  ASSERT_EQ(session.endEvent(key, pictureAt(1160000, false).presentation), 0);
  ASSERT_EQ(session.flush(), 0);
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(report.waitingEvents, ElementsAre(key)) << "a picture of its time may still come";
  EXPECT_EQ(files(), 0u);
  writePictures(&session, 30, 60);
  ASSERT_EQ(session.flush(), 0);
  whileRecording = true;
  EXPECT_TRUE(archive()) << error;
  ASSERT_THAT(report.uploaded, SizeIs(1));
  EXPECT_THAT(report.waitingEvents, IsEmpty());
  EXPECT_EQ(report.waiting, 1u) << "the recording";
  const std::string sidecar = tarn::sidecarOf(std::string(kPlace) + "/" + report.uploaded[0]);
  const std::string early = contentOf(sidecar);
  EXPECT_THAT(early, HasSubstr("\"missing\":0,"));
  ASSERT_EQ(session.close(), 0);
  std::filesystem::remove_all(std::string(kPlace) + "/recorder=van-7");
  EXPECT_TRUE(archive()) << error;
  EXPECT_EQ(contentOf(sidecar), early);
}

TEST_F(CardArchiverTest, RunsTellHowFarTheArchiveIs) {
  ASSERT_EQ(session.close(), 0);
  ASSERT_TRUE(archive()) << error;
  tarn::ArchiveStatus status;
  ASSERT_TRUE(status.read());
  EXPECT_TRUE(status.known);
  EXPECT_EQ(status.missing, 0u);
  EXPECT_GT(status.goodMs, 0);
  EXPECT_EQ(status.goodMs, status.endedMs);
}

// The rig's card has three chunks: with one of them in use by a channel there is room enough.
TEST_F(CardArchiverTest, WhatTheRingOverwritesNextAndIsNotArchivedIsNamed) {
  ASSERT_EQ(session.close(), 0);
  for (int8_t channel = 1; channel < 3; ++channel) {
    tarn::RecordingOptions options;
    options.channel = channel;
    ASSERT_EQ(session.open(options), 0) << session.errorText();
    const tarn::OutputPicture one = pictureAt(5000000, true);
    ASSERT_EQ(session.writePicture(one.annexB.data(), one.annexB.size(), one.presentation, 0, true),
              0);
    ASSERT_EQ(session.close(), 0);
  }
  // The archive is away.
  ASSERT_EQ(rename(kPlace, "/tmp/away"), 0);
  EXPECT_FALSE(archive());
  ASSERT_THAT(report.endangered, SizeIs(1)) << "the oldest has a tenth of all pictures";
  EXPECT_THAT(said(), HasSubstr("1 recordings that the ring overwrites next are not known to be "
                                "archived, the first is " +
                                report.endangered[0]));
  tarn::ArchiveStatus status;
  ASSERT_TRUE(status.read());
  EXPECT_FALSE(status.known);
  EXPECT_EQ(status.endangered, 1u);
  EXPECT_EQ(status.missing, 3u);
  ASSERT_EQ(rename("/tmp/away", kPlace), 0);
  EXPECT_TRUE(archive()) << error;
  EXPECT_THAT(report.endangered, IsEmpty());
}

TEST_F(CardArchiverTest, AStopLeavesNothingHalfAndIsAnError) {
  ASSERT_EQ(session.close(), 0);
  int asked = 0;
  EXPECT_FALSE(archive([&] { return ++asked > 10; }));
  EXPECT_THAT(error, HasSubstr("the next run goes on from there"));
  EXPECT_EQ(files(), 0u);
  EXPECT_TRUE(archive()) << error;
  EXPECT_EQ(files(), 3u);
}

// What is wrong with the archive, in words; `authority` "": whoever sealed it.
std::vector<std::string> findings(const std::string& authority = "") {
  tarn::ArchiveVerifier verifier(kPlace, "");
  if (!authority.empty()) verifier.trust({authority});
  EXPECT_TRUE(verifier.run(nullptr, nullptr)) << verifier.error();
  std::vector<std::string> texts;
  for (const auto& one : verifier.findings()) texts.push_back(one.text);
  return texts;
}

TEST_F(CardArchiverTest, SealedClipsProveThemselvesAndTellWhatTheyAreWithoutTheirSeal) {
  const SealKey key("recorder");
  const SealKey stranger("stranger");
  ASSERT_EQ(session.close(), 0);
  ASSERT_TRUE(archive()) << error;
  tarn::ArchiveLine plain;
  ASSERT_TRUE(readRecording(&plain));
  EXPECT_THAT(findings(key.path()), ElementsAre("has no seal"));

  std::filesystem::remove_all(std::string(kPlace) + "/recorder=van-7");
  seal = key.request();
  ASSERT_TRUE(archive()) << error;
  tarn::ArchiveLine sealed;
  ASSERT_TRUE(readRecording(&sealed));
  EXPECT_TRUE(sealed.sealed);
  EXPECT_EQ(sealed.contentSha256, plain.hashes.sha256) << "the same, whenever it is made";
  EXPECT_NE(sealed.hashes.sha256, plain.hashes.sha256);
  EXPECT_TRUE(tarn::FileVerifier().verify(std::string(kPlace) + "/" + sealed.object).proven());
  EXPECT_THAT(findings(), IsEmpty());
  EXPECT_THAT(findings(key.path()), IsEmpty());
  EXPECT_THAT(findings(stranger.path()),
              ElementsAre(HasSubstr("nobody who is trusted vouches for it")));
  ASSERT_TRUE(archive()) << error;
  EXPECT_THAT(report.uploaded, IsEmpty()) << "a seal of another moment is no reason to send it";
}

TEST_F(CardArchiverTest, SealedPartsProveThemselvesAndOneThatTheIndexLacksIsFound) {
  const SealKey key("recorder");
  recordSmallOnes();
  seal = key.request();
  ASSERT_TRUE(archive()) << error;
  EXPECT_THAT(report.uploaded, SizeIs(2));
  EXPECT_THAT(findings(key.path()), IsEmpty());
  std::string text = index();
  const size_t second = text.rfind('\n', text.find("\"part\":2,")) + 1;
  text.erase(second, text.find('\n', second) + 1 - second);
  std::string packed;
  ASSERT_TRUE(tarn::packText(text, &packed));
  std::ofstream(kDay, std::ios::binary) << packed;
  EXPECT_THAT(findings(),
              testing::Contains("is a part of its clip, and the index does not name it"));
}

TEST_F(CardArchiverTest, SidecarWithoutAnEndIsReadNoFurtherThanASidecarGoes) {
  ASSERT_EQ(session.close(), 0);
  ASSERT_TRUE(archive()) << error;
  const std::string sidecar = std::string(kPlace) + "/" + tarn::sidecarOf(report.uploaded.at(0));
  std::filesystem::resize_file(sidecar, uintmax_t{1} << 40);
  EXPECT_THAT(findings(), ElementsAre("is damaged: it is no sidecar of its clip"));
}

TEST_F(CardArchiverTest, SealedClipUnderAnotherNameIsFoundThoughIndexAndSidecarFitIt) {
  const SealKey key("recorder");
  ASSERT_EQ(session.close(), 0);
  seal = key.request();
  ASSERT_TRUE(archive()) << error;
  tarn::ArchiveLine line;
  ASSERT_TRUE(readRecording(&line));
  const std::string place = std::string(kPlace) + "/";
  const std::string was = line.object;
  line.object.replace(line.object.rfind('/') + 1, 2, "23");
  ASSERT_NE(line.object, was);
  std::filesystem::rename(place + was, place + line.object);
  std::filesystem::remove(place + tarn::sidecarOf(was));
  std::ofstream(place + tarn::sidecarOf(line.object)) << line.text() << "\n";
  std::string packed;
  ASSERT_TRUE(tarn::packText(line.text() + "\n", &packed));
  std::ofstream(kDay, std::ios::binary) << packed;
  EXPECT_THAT(findings(), ElementsAre("was sealed as " + was));
}

TEST_F(CardArchiverTest, KeyThatCannotBeReadSendsNothing) {
  ASSERT_EQ(session.close(), 0);
  seal = tarn::SealRequest{"/tmp/none.key", "/tmp/none.pem", "", ""};
  EXPECT_FALSE(archive());
  EXPECT_THAT(error, HasSubstr("cannot read the key /tmp/none.key"));
  EXPECT_EQ(files(), 0u);
}

}  // namespace
}  // namespace tarn_test
