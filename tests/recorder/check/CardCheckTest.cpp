#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "base/Endian.h"
#include "dblog/JournalFormat.h"
#include "fat/FatFormat.h"
#include "recorder/CheckRig.h"
#include "recorder/card/VolumeFormat.h"
#include "recorder/check/CardCheck.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recovery/Recovery.h"
#include "support/IoFaults.h"
#include "support/Pace.h"

namespace tarn_test {
namespace {

using tarn::FindingKind;
using ::testing::HasSubstr;

class CardCheckTest : public CheckRig {
 protected:
  // The check finds exactly one thing, of this kind and with this text; then the card is as before.
  void expectOne(FindingKind kind, const std::string& text) {
    const tarn::CardFindings& found = findings();
    EXPECT_EQ(found.total(), 1u) << texts();
    ASSERT_GE(found.list().size(), 1u);
    EXPECT_STREQ(tarn::findingKindName(found.list()[0].kind), tarn::findingKindName(kind));
    EXPECT_EQ(found.list()[0].text, text);
    EXPECT_EQ(found.count(kind), 1u);
  }
  // At least one of this kind, with this in its text.
  void expectSome(FindingKind kind, const std::string& text) {
    findings();
    EXPECT_GE(check_.findings().count(kind), 1u);
    EXPECT_THAT(texts(), HasSubstr(text));
  }

  // Undoes what was done to the card since it was made.
  class Undo {
   public:
    explicit Undo(CardCheckTest* test) : test_(test), before_(test->wholeCard()) {}
    ~Undo() { test_->write(0, before_); }

   private:
    CardCheckTest* test_;
    const Bytes before_;
  };

  uint64_t fatByte(uint32_t number) const {
    const Bytes sector = read(0, 512);
    const tarn::FatBoot boot = tarn::decodeFatBoot(sector.data());
    return (boot.reservedSectors + uint64_t{number} * boot.fat32Size) * 512;
  }
  uint64_t dataByte() const {
    const Bytes sector = read(0, 512);
    return tarn::decodeFatBoot(sector.data()).dataSector() * 512;
  }
  uint32_t clusterOf(int type, uint32_t chunk) const {
    return static_cast<uint32_t>((chunkByte(type, chunk) - dataByte()) / info_.clusterBytes()) + 2;
  }
  // Of a chunk's entry in the root directory.
  uint64_t directoryByte(const char* name) const {
    for (uint64_t at = dataByte();; at += 32) {
      if (memcmp(read(at, 8).data(), name, 8) == 0) return at;
    }
  }
  std::string name(size_t row) const {
    const char* times[] = {"00:13:20", "00:13:22", "00:13:24"};
    return "recording " + std::to_string(rows_[row].streamID) + " of 2023-11-15 " + times[row] +
           "+02:00";
  }
};

// What a PC leaves that was torn off while it had the card mounted.
TEST_F(CardCheckTest, WhatAPcLeftIsANoteAndNoFinding) {
  constexpr uint64_t kFree = 512 + 488;  // as FSInfo counts
  const Bytes counted = read(kFree, 4);
  const uint32_t free = tarn::getLe32(counted.data());
  write(65, Bytes{1});
  write(fatByte(0) + 7, Bytes{0x07});  // bit 27 of the second entry, in one FAT only
  uint64_t end = dataByte();
  while (read(end, 1)[0] != 0) end += 32;
  Bytes folder(32, 0);
  memcpy(folder.data(), "SYSTEM~1   ", 11);
  folder[11] = 0x16;
  write(end, folder);
  write(fatByte(0) + uint64_t{info_.clusters() + 1} * 4, Bytes{0xFF});  // behind every chunk
  EXPECT_EQ(findings().total(), 0u) << texts();
  EXPECT_EQ(check_.notes(),
            (std::vector<std::string>{
                "the root directory has what is not the recorder's: SYSTEM~1",
                "the FSInfo sector counts " + std::to_string(free) +
                    " free clusters, the FAT has " + std::to_string(free - 1),
                "a PC had the card mounted and did not let go of it in order",
                "a PC was torn off while it wrote files of its own: the FATs differ there"}));
}

TEST_F(CardCheckTest, WhatIsTheRecordersIsAFindingWhateverAPcDid) {
  write(65, Bytes{1});
  flip(fatByte(1) + uint64_t{clusterOf(tarn::kFileStream, 0)} * 4);
  expectOne(FindingKind::kFat, "the two FATs differ in 1 sectors");
  EXPECT_EQ(check_.notes(), std::vector<std::string>{
                                "a PC had the card mounted and did not let go of it in order"});
}

TEST_F(CardCheckTest, AFreshCardIsClean) {
  format();
  EXPECT_EQ(findings().total(), 0u) << texts();
  EXPECT_EQ(check_.streamRows(), 0u);
  EXPECT_EQ(check_.pictures(), 0u);
}

TEST_F(CardCheckTest, ACardAfterACleanStopIsCleanAndWhollyLookedAt) {
  EXPECT_EQ(findings().total(), 0u) << texts();
  EXPECT_EQ(check_.streamRows(), 3u);
  EXPECT_EQ(check_.eventRows(), 2u);
  EXPECT_EQ(check_.pictures(), 150u);
}

TEST_F(CardCheckTest, ATimeZoneOtherThanTheRecordersMakesNoFindings) {
  for (const char* zone : {"XYZ+11", "XYZ-05:45"}) {
    setenv("TZ", zone, 1);
    tzset();
    EXPECT_EQ(findings().total(), 0u) << texts();
  }
}

TEST_F(CardCheckTest, ChangesNoByteAndWritesNothing) {
  flip(entryByte(rows_[0], 3));
  flip(chunkByte(tarn::kFileStreamManage, 0, 5));
  const Bytes before = wholeCard();
  IoFaults calls(kCardPath);
  findings();
  EXPECT_EQ(calls.count(Call::Write) + calls.count(Call::Pwrite), 0u);
  EXPECT_TRUE(wholeCard() == before);
  ASSERT_EQ(chmod(kCardPath, 0444), 0);
  findings();
}

TEST_F(CardCheckTest, FindsDamagedFatStructures) {
  const uint64_t backup = 6 * 512 + 100;
  {
    const Undo undo(this);
    flip(backup);
    expectOne(FindingKind::kFat, "the backup of the boot sector differs from it");
  }
  {
    const Undo undo(this);
    flip(fatByte(1) + 400);
    expectOne(FindingKind::kFat, "the two FATs differ in 1 sectors");
  }
  {
    const Undo undo(this);
    flip(512);
    expectOne(FindingKind::kFat, "the FSInfo sector lacks its signatures");
  }
  {
    const Undo undo(this);
    put32(512 + 488, 5);
    expectSome(FindingKind::kFat, "the FSInfo sector counts 5 free clusters, the FAT has ");
  }
  {
    const Undo undo(this);
    write(directoryByte("CKPC0001"), Bytes{'C', 'K', 'P', 'C', '0', '0', '0', '2'});
    expectSome(FindingKind::kFat, "the root directory has 1 names more than once");
  }
}

TEST_F(CardCheckTest, FindsFilesThatAreNotWhereTheRecorderWrites) {
  const uint32_t cluster = clusterOf(tarn::kFileStream, 1) + 3;
  {
    const Undo undo(this);
    for (uint32_t fat : {0u, 1u}) put32(fatByte(fat) + uint64_t{cluster} * 4, cluster + 5);
    expectOne(FindingKind::kFile,
              "CKST0001: it is not in one piece: the FAT leads elsewhere at cluster " +
                  std::to_string(cluster));
  }
  {
    const Undo undo(this);
    put32(directoryByte("CKST0002") + 28, 1234);
    expectOne(FindingKind::kFile, "CKST0002: the directory gives 1234 bytes, the info file 262144");
  }
  {
    const Undo undo(this);
    write(directoryByte("CKDL0003") + 26, Bytes{9, 0});
    expectOne(FindingKind::kFile,
              "CKDL0003: the directory has it at cluster 9, the info file elsewhere");
  }
  {
    const Undo undo(this);
    write(directoryByte("CKPC0001"), Bytes{0xE5});
    expectOne(FindingKind::kFile, "CKPC0001: the root directory does not have this file");
  }
}

TEST_F(CardCheckTest, FindsDamagedManagementFiles) {
  {
    const Undo undo(this);
    flip(chunkByte(tarn::kFileStreamManage, 0, 5));
    expectOne(FindingKind::kManagement, "MGST: the main copy is damaged, the backup is good");
  }
  {
    const Undo undo(this);
    flip(chunkByte(tarn::kFileSyslogManage, 1, 5));
    expectOne(FindingKind::kManagement, "MGSL: the backup is damaged, the main copy is good");
  }
  {
    const Undo undo(this);
    editManagement(tarn::kFileJournalManage, tarn::kFileJournal, 1, 7, 9, 1);
    expectOne(FindingKind::kManagement, "MGDL: main copy and backup differ");
  }
  {
    const Undo undo(this);
    for (uint32_t copy : {0u, 1u}) flip(chunkByte(tarn::kFileStreamManage, copy, 5));
    expectOne(FindingKind::kManagement, "MGST: both copies are damaged");
  }
  {
    const Undo undo(this);
    editManagement(tarn::kFileStreamManage, tarn::kFileStream, 2, 19, 0x7F);
    expectSome(FindingKind::kManagement, "MGST: the addresses of chunk 2 lie behind its end");
  }
}

TEST_F(CardCheckTest, FindsDamagedJournalRecords) {
  const uint32_t place = rows_[1].backOffset;
  const std::string at = " at byte " + std::to_string(place);
  {
    const Undo undo(this);
    flip(chunkByte(tarn::kFileJournal, 3, place + 20));
    expectOne(
        FindingKind::kJournalCopy,
        "recording journal: the second copy of the record of recording 2" + at + " is damaged");
    EXPECT_EQ(check_.findings().list()[0].streamID, 2u);
  }
  {
    const Undo undo(this);
    flip(chunkByte(tarn::kFileJournal, 0, 3));
    expectOne(FindingKind::kJournalCopy,
              "event journal: the first copy of the record of event 1 at byte 0 is damaged");
    EXPECT_EQ(check_.findings().list()[0].eventID, 1u);
  }
  {
    const Undo undo(this);
    editRecord(3, place, tarn::kStreamRecordCrcLength, tarn::kStreamBitrateSetOff, 5, 1);
    expectOne(FindingKind::kJournalCopy,
              "recording journal: the copies of the record of recording 2" + at + " differ");
  }
  {
    const Undo undo(this);
    for (uint32_t chunk : {2u, 3u}) flip(chunkByte(tarn::kFileJournal, chunk, place + 20));
    expectSome(FindingKind::kJournalRecord,
               "recording journal: 1 record" + at + " cannot be read in either copy");
    EXPECT_EQ(check_.streamRows(), 2u);
  }
  {
    const Undo undo(this);
    editRow(rows_[1], tarn::kStreamBackOffsetOff, 640);
    expectSome(FindingKind::kJournalRecord, "recording journal: the record of recording 2" + at +
                                                " belongs elsewhere, or is of no known kind");
  }
}

// Zeros have the checksum of zeros; the other copy has the record whole.
TEST_F(CardCheckTest, AJournalCopyLostAsZerosIsTakenFromTheOther) {
  const uint32_t place = rows_[1].backOffset;
  for (const uint32_t chunk : {2u, 3u}) {
    const Undo undo(this);
    write(chunkByte(tarn::kFileJournal, chunk, place), Bytes(64, 0));
    expectOne(FindingKind::kJournalCopy, std::string("recording journal: the ") +
                                             (chunk == 2 ? "first" : "second") +
                                             " copy of the record of recording 2 at byte " +
                                             std::to_string(place) + " is damaged");
    EXPECT_EQ(check_.streamRows(), 3u);
  }
}

// What the device does not give may be good.
TEST_F(CardCheckTest, AJournalPlaceThatIsRefusedIsNeitherDamagedNorLost) {
  {
    IoFaults faults(kCardPath);
    faults.failAt(Call::Pread, chunkByte(tarn::kFileJournal, 2, 0), 512, EIO);
    expectSome(FindingKind::kUnreadable,
               "recording journal: the first copy of the record of recording 1 at byte 0 was not "
               "delivered by the device; the other one is good");
    EXPECT_EQ(check_.findings().total(), check_.findings().count(FindingKind::kUnreadable));
    EXPECT_EQ(check_.streamRows(), 3u);
  }
  IoFaults faults(kCardPath);
  for (const uint32_t chunk : {2u, 3u}) {
    faults.failAt(Call::Pread, chunkByte(tarn::kFileJournal, chunk, 0), 512, EIO);
  }
  expectSome(FindingKind::kUnreadable,
             "recording journal: 8 records at byte 0 not given by the device");
  EXPECT_TRUE(check_.eventsWithoutVideo().empty()) << "their recordings may be among those";
  EXPECT_EQ(check_.findings().count(FindingKind::kJournalRecord), 0u);
}

TEST_F(CardCheckTest, FindsJournalsOutOfOrder) {
  {
    const Undo undo(this);
    editRow(rows_[2], tarn::kStreamIdOff, 2);
    expectSome(FindingKind::kJournalOrder,
               "recording journal: recording 2 has more than one record, one at byte 128");
  }
  {
    const Undo undo(this);
    editRow(rows_[0], tarn::kStreamIdOff, 9);
    editRow(rows_[1], tarn::kStreamIdOff, 8);
    expectSome(FindingKind::kJournalOrder,
               "recording journal: the record of recording 3 at byte 128 is out of order");
  }
  {
    const Undo undo(this);
    for (uint32_t chunk : {2u, 3u}) {
      editManagement(tarn::kFileJournalManage, tarn::kFileJournal, chunk, 12, 128);
    }
    expectOne(FindingKind::kJournalOrder,
              "recording journal: the free offset 128 is not behind the newest record");
  }
  {
    const Undo undo(this);
    editManagement(tarn::kFileJournalManage, tarn::kFileJournal, 1, 12, 96);
    expectOne(FindingKind::kJournalOrder,
              "event journal: the free offsets of its two copies differ");
  }
}

TEST_F(CardCheckTest, FindsRowsThatWereLeftOpen) {
  {
    const Undo undo(this);
    editRow(rows_[2], tarn::kStreamRecSizeOff, 0);
    expectOne(FindingKind::kOpenRow, name(2) + ": it was never closed; affects event 2");
  }
  {
    const Undo undo(this);
    editRecord(0, 32, tarn::kEventRecordCrcLength, tarn::kEventEndDateOff, 0);
    expectOne(FindingKind::kOpenRow, "event 2 of 2023-11-15 00:13:24+02:00: it was never ended");
  }
}

TEST_F(CardCheckTest, FindsRowsThatCannotBe) {
  {
    const Undo undo(this);
    editRow(rows_[0], tarn::kStreamChunkIdOff, 77);
    expectOne(FindingKind::kRow, name(0) + ": the card has no chunk 77; affects event 1");
  }
  {
    const Undo undo(this);
    editRow(rows_[0], tarn::kStreamChunkOffsetOff, 0xFFFFFFF0);
    expectOne(FindingKind::kRow, name(0) + ": its place in chunk " +
                                     std::to_string(rows_[0].chunkID) +
                                     " does not exist; affects event 1");
  }
  {
    const Undo undo(this);
    editRow(rows_[1], tarn::kStreamRecSizeOff, 0x7FFFFFFF);
    expectSome(FindingKind::kRow, name(1) + ": its place in chunk ");
  }
  {
    const Undo undo(this);
    editRow(rows_[0], tarn::kStreamChunkSizeOff, 64);
    expectOne(FindingKind::kRow, name(0) +
                                     ": its size in the picture chunk is not that of 50 pictures; "
                                     "affects event 1");
  }
  {
    const Undo undo(this);
    editRecord(0, 0, tarn::kEventRecordCrcLength, tarn::kEventEndDateOff, 5);
    expectOne(FindingKind::kRow, "event 1 of 2023-11-15 00:13:21+02:00: it ends before it begins");
  }
}

TEST_F(CardCheckTest, FindsHeadersThatDoNotFit) {
  const uint64_t header = chunkByte(tarn::kFilePicture, rows_[0].chunkID, rows_[0].chunkOffset);
  {
    const Undo undo(this);
    flip(header + 9);
    expectOne(FindingKind::kHeader, name(0) + ": its stream header is damaged; affects event 1");
    EXPECT_EQ(check_.findings().list()[0].streamID, 1u);
    EXPECT_EQ(check_.findings().list()[0].eventID, 1u);
    EXPECT_EQ(check_.findings().list()[0].from, kStart);
  }
  {
    const Undo undo(this);
    tarn::StreamHeader wrong;
    tarn::decodeStreamHeader(read(header, 32).data(), &wrong);
    wrong.pictures = 49;
    wrong.gops = 9;
    Bytes bytes(32);
    tarn::encodeStreamHeader(wrong, bytes.data());
    write(header, bytes);
    expectOne(FindingKind::kHeader, name(0) +
                                        ": its stream header disagrees: number of "
                                        "pictures, number of key pictures; affects event 1");
  }
}

TEST_F(CardCheckTest, FindsDamagedEntriesAndNamesPicturesAndSeconds) {
  for (uint32_t index : {30u, 31u, 32u}) flip(entryByte(rows_[1], index) + 5);
  flip(entryByte(rows_[2], 49) + 30);
  findings();
  EXPECT_EQ(check_.findings().count(FindingKind::kEntry), 2u);
  EXPECT_EQ(texts(), "entry: " + name(1) +
                         ": pictures 31 to 33 of 50, between 2023-11-15 00:13:23+02:00 and "
                         "2023-11-15 00:13:23+02:00: "
                         "index entries are damaged\nentry: " +
                         name(2) +
                         ": picture 50 of 50, between 2023-11-15 00:13:25+02:00 and 2023-11-15 "
                         "00:13:25+02:00: index "
                         "entries are damaged; affects event 2\n");
  EXPECT_EQ(check_.pictures(), 150u);
}

TEST_F(CardCheckTest, FindsEntriesOfOtherRecordings) {
  write(entryByte(rows_[2], 10), read(entryByte(rows_[0], 10), 32));
  findings();
  EXPECT_EQ(check_.findings().count(FindingKind::kEntry), 1u);
  EXPECT_THAT(texts(), HasSubstr(name(2) + ": picture 11 of 50"));
}

TEST_F(CardCheckTest, FindsPicturesThatAreNotTheirOwn) {
  const tarn::PictureEntry first = entryOf(rows_[0], 40);
  const tarn::PictureEntry last = entryOf(rows_[0], 42);
  const uint64_t at = chunkByte(tarn::kFileStream, rows_[0].chunkID, first.dataOffset);
  const std::string text =
      ": pictures 41 to 43 of 50, between 2023-11-15 00:13:21+02:00 and 2023-11-15 00:13:21+02:00: "
      "pictures "
      "are damaged or overwritten; affects event 1";
  {
    const Undo undo(this);
    write(at, Bytes(last.dataOffset + last.size - first.dataOffset, 0xA5));
    expectOne(FindingKind::kData, name(0) + text);
  }
  {
    const Undo undo(this);  // whole pictures of another time
    const tarn::PictureEntry other = entryOf(rows_[1], 40);
    write(at, read(chunkByte(tarn::kFileStream, rows_[1].chunkID, other.dataOffset), 3 * 850));
    expectOne(FindingKind::kData, name(0) + text);
  }
}

TEST_F(CardCheckTest, FindsOneTurnedBitAnywhereInAPicture) {
  const tarn::PictureEntry entry = entryOf(rows_[0], 40);
  ASSERT_EQ(entry.size, 850u);
  for (const uint32_t place : {0u, 60u, 300u, 511u, 849u}) {
    const Undo undo(this);
    flip(chunkByte(tarn::kFileStream, rows_[0].chunkID, entry.dataOffset + place));
    expectOne(
        FindingKind::kData,
        name(0) +
            ": picture 41 of 50, between 2023-11-15 00:13:21+02:00 and 2023-11-15 00:13:21+02:00: "
            "pictures are damaged or overwritten; affects event 1");
  }
}

TEST_F(CardCheckTest, SaysHowManySecondsOfWhichCameraAreDamagedOrLost) {
  EXPECT_EQ(findings().total(), 0u);
  EXPECT_EQ(check_.meaning(), "nothing lost");
  {
    const Undo undo(this);
    for (uint32_t picture = 10; picture < 20; ++picture) {
      const uint32_t offset = entryOf(rows_[0], picture).dataOffset + 500;
      flip(chunkByte(tarn::kFileStream, rows_[0].chunkID, offset));
    }
    ASSERT_EQ(findings().list().size(), 1u) << texts();
    const tarn::CardFinding& finding = check_.findings().list()[0];
    EXPECT_EQ(finding.consequence, tarn::Consequence::kDamaged);
    EXPECT_EQ(finding.meaning, "0.4 s of camera 0 at 2023-11-15 00:13:20+02:00 are damaged");
    EXPECT_EQ(finding.videoMicros, 400000);
    EXPECT_EQ(finding.channel, 0);
    EXPECT_EQ(check_.meaning(), "0.4 s of video damaged");
  }
  flip(entryByte(rows_[1], 30));
  ASSERT_EQ(findings().list().size(), 1u) << texts();
  const tarn::CardFinding& finding = check_.findings().list()[0];
  EXPECT_EQ(finding.consequence, tarn::Consequence::kLost);
  EXPECT_EQ(finding.meaning, "0.1 s of camera 0 at 2023-11-15 00:13:23+02:00 are lost");
}

// The second event lies in the third recording, the first one in the first two.
TEST_F(CardCheckTest, NamesEventsThatHaveNoVideo) {
  findings();
  EXPECT_TRUE(check_.eventsWithoutVideo().empty());
  for (uint32_t picture = 0; picture < kPictures; ++picture) flip(entryByte(rows_[2], picture));
  findings();
  EXPECT_EQ(check_.eventsWithoutVideo(), (std::vector<uint32_t>{2}));
  EXPECT_EQ(check_.meaning(), "2.0 s of video lost, 1 event without video");
}

TEST_F(CardCheckTest, WhatIsThereTwiceLosesNothing) {
  flip(chunkByte(tarn::kFileJournal, 2, 8));
  flip(chunkByte(tarn::kFilePicture, rows_[0].chunkID, rows_[0].chunkOffset + 12));
  EXPECT_EQ(findings().total(), 2u) << texts();
  for (const tarn::CardFinding& finding : check_.findings().list()) {
    EXPECT_EQ(finding.consequence, tarn::Consequence::kNone) << finding.text;
  }
  EXPECT_EQ(check_.meaning(), "nothing lost");
}

TEST_F(CardCheckTest, AQuickLookReadsOnlyWhatPicturesBeginWith) {
  flip(chunkByte(tarn::kFileStream, rows_[0].chunkID, entryOf(rows_[0], 40).dataOffset + 500));
  tarn::CardCheckOptions options;
  options.wholePictures = false;
  std::string error;
  EXPECT_EQ(check_.run(kCardPath, options, &error), 0) << error;
  EXPECT_EQ(check_.findings().total(), 0u) << texts();
}

// As cards have it that were written before entries had a checksum.
TEST_F(CardCheckTest, OfAPictureWithoutAChecksumOnlyTheTimeIsLookedAt) {
  tarn::PictureEntry entry = entryOf(rows_[0], 40);
  EXPECT_NE(entry.checksum, 0);
  entry.checksum = 0;
  Bytes bytes(tarn::kRecordSize);
  tarn::encodePictureEntry(entry, bytes.data());
  write(entryByte(rows_[0], 40), bytes);
  flip(chunkByte(tarn::kFileStream, rows_[0].chunkID, entry.dataOffset + 500));
  EXPECT_EQ(findings().total(), 0u) << texts();
}

TEST_F(CardCheckTest, ASectorThatIsRefusedInAPictureIsNotCalledDamage) {
  const uint64_t at =
      chunkByte(tarn::kFileStream, rows_[0].chunkID, entryOf(rows_[0], 40).dataOffset);
  IoFaults calls(kCardPath);
  calls.failAt(Call::Pread, (at + 600) / 512 * 512, 512, EIO);
  findings();
  EXPECT_EQ(check_.findings().count(FindingKind::kData), 0u) << texts();
  EXPECT_EQ(check_.findings().count(FindingKind::kUnreadable), 1u) << texts();
}

TEST_F(CardCheckTest, FindsRecordingsOutsideOfWhatIsUsed) {
  const uint32_t chunk = rows_[2].chunkID;
  ASSERT_EQ(rows_[0].chunkID, chunk);
  const std::string place = "chunk " + std::to_string(chunk);
  {
    const Undo undo(this);  // the free offset of a time before the third recording
    editManagement(tarn::kFileStreamManage, tarn::kFileStream, chunk,
                   tarn::kManagePictureFreeOff + 1,
                   static_cast<uint8_t>(rows_[2].chunkOffset >> 8));
    editManagement(tarn::kFileStreamManage, tarn::kFileStream, chunk, tarn::kManagePictureFreeOff,
                   static_cast<uint8_t>(rows_[2].chunkOffset));
    expectOne(FindingKind::kRing, name(2) + ": it lies outside what the picture " + place +
                                      " counts as used: a recording could begin over it");
  }
  {
    const Undo undo(this);
    for (uint32_t i = 0; i < 3; ++i) {
      editManagement(tarn::kFileStreamManage, tarn::kFileStream, chunk,
                     tarn::kManageStreamFreeOff + i, 0);
    }
    findings();
    EXPECT_EQ(check_.findings().count(FindingKind::kRing), 3u) << "an area that counts as empty";
  }
  {
    const Undo undo(this);
    editManagement(tarn::kFileStreamManage, tarn::kFileStream, chunk, tarn::kManageChTypeOff, 0xFF);
    expectOne(FindingKind::kRing,
              place + " counts as unused, but holds " + name(0) + " and 2 more");
  }
  {
    const Undo undo(this);
    editRow(rows_[1], tarn::kStreamChunkOffsetOff, rows_[0].chunkOffset + 64);
    expectSome(FindingKind::kRing, name(1) +
                                       ": it and recording 1 overlap in the "
                                       "picture " +
                                       place);
  }
}

TEST_F(CardCheckTest, FindsThatTheJournalIsGone) {
  for (uint32_t chunk : {2u, 3u}) write(chunkByte(tarn::kFileJournal, chunk), Bytes(4096, 0xFF));
  findings();
  EXPECT_EQ(texts(),
            "journalOrder: recording journal: it ends at byte 0, and its free offset is 192\n"
            "ring: chunk " +
                std::to_string(rows_[0].chunkID) +
                " counts as used, but no recording lies in it\n");
}

TEST_F(CardCheckTest, FindsALogThatDoesNotEndWhereItShould) {
  const uint64_t text = chunkByte(tarn::kFileSyslog, 0);
  {
    const Undo undo(this);
    editManagement(tarn::kFileSyslogManage, tarn::kFileSyslog, 0, tarn::kManageStreamFreeOff, 48);
    expectOne(FindingKind::kLog,
              "system log: the text of chunk 0 ends at byte 74, the management file says 48");
  }
  {
    const Undo undo(this);
    write(text + 24, Bytes(3, '#'));
    findings();
    EXPECT_EQ(check_.findings().total(), 1u) << "the text ends where it did";
    EXPECT_THAT(texts(), HasSubstr("log: system log: 1 lines of chunk 0 have no time\n"));
  }
  {
    const Undo undo(this);
    editManagement(tarn::kFileSyslogManage, tarn::kFileSyslog, 0, tarn::kManageChTypeOff, 5);
    expectOne(FindingKind::kLog,
              "system log: the number of the chunk being written, 5, is not one of the log's");
  }
}

TEST_F(CardCheckTest, FindsAnImageSizeThatCannotBe) {
  for (const int size : {-2, 0x7FFFFFFF}) {
    put32(chunkByte(tarn::kFileDbImage, 0), static_cast<uint32_t>(size));
    expectOne(FindingKind::kImage,
              "the database image claims an impossible size: " + std::to_string(size) + " bytes");
  }
  put32(chunkByte(tarn::kFileDbImage, 0), 0xFFFFFFFF);
  EXPECT_EQ(findings().total(), 0u) << "marked as empty";
}

TEST_F(CardCheckTest, AReadThatFailsOnceIsAFindingOrNothing) {
  size_t reads = 0;
  for (int n = 1;; n += tarn_test::kPlaceStep) {
    IoFaults faults(kCardPath);
    faults.fail(Call::Pread, n, EIO);
    std::string error;
    tarn::CardCheck check;
    // What the card says about itself is asked for again, like all else.
    EXPECT_EQ(check.run(kCardPath, {}, &error), 0) << n << ": " << error;
    reads = faults.count(Call::Pread);
    if (reads < static_cast<size_t>(n)) break;
    EXPECT_EQ(check.findings().count(FindingKind::kManagement), 0u) << n;
    EXPECT_EQ(check.findings().count(FindingKind::kEntry), 0u) << n;
    EXPECT_EQ(check.findings().count(FindingKind::kData), 0u) << n;
  }
  EXPECT_GT(reads, 150u) << "each picture at least";
}

TEST_F(CardCheckTest, ReadsThatKeepFailingAreFindings) {
  for (const int n : {60, 150}) {
    IoFaults faults(kCardPath);
    faults.fail(Call::Pread, n, EIO, IoFaults::kForever);
    std::string error;
    ASSERT_EQ(check_.run(kCardPath, {}, &error), 0) << error;
    EXPECT_GT(check_.findings().count(FindingKind::kUnreadable), 0u) << n;
  }
}

TEST_F(CardCheckTest, NoiseInAnyFamilyEndsWithFindings) {
  for (int type = 1; type < tarn::kFileTypeCount; ++type) {
    for (const int kind : {0, 1, 2}) {
      const Undo undo(this);
      const size_t length = info_.family(type).bytes();
      write(chunkByte(type, 0), kind == 0   ? Bytes(length, 0)
                                : kind == 1 ? Bytes(length, 0xFF)
                                            : patternBytes(length, static_cast<uint32_t>(type)));
      findings();
      EXPECT_TRUE(check_.findings().total() > 0 || type == tarn::kFileDbImage)
          << type << " " << kind;
    }
  }
}

TEST_F(CardCheckTest, NoiseInTheFileSystemEndsWithFindingsOrARefusal) {
  const Bytes before = wholeCard();
  int noticed = 0;
  for (uint32_t seed = 0; seed < 60; ++seed) {
    const uint64_t at = seed * 1733 * 64 % (dataByte() + 64 * 1024);
    write(at, patternBytes(2048 + seed * 97, seed));
    std::string error;
    const int result = check_.run(kCardPath, {}, &error);
    EXPECT_EQ(result != 0, !error.empty()) << seed;
    if (result != 0 || check_.findings().total() > 0) ++noticed;
    write(0, before);
  }
  EXPECT_GT(noticed, 40) << "the rest fell on sectors that nothing uses";
}

TEST_F(CardCheckTest, WhatIsNoCardIsRefusedInWords) {
  const auto refusal = [&](const Bytes& bytes) {
    write(0, bytes);
    std::string error;
    EXPECT_EQ(check_.run(kCardPath, {}, &error), -1);
    return error;
  };
  const std::string noVolume = "/dev/sdblk0p1: not a FAT32 volume, so not a card of the recorder";
  EXPECT_EQ(refusal(Bytes(kMiB, 0)), noVolume);
  EXPECT_EQ(refusal(Bytes(kMiB, 0xFF)), noVolume);
  for (uint32_t seed = 0; seed < 20; ++seed) {
    EXPECT_THAT(refusal(patternBytes(kMiB, seed)), HasSubstr("/dev/sdblk0p1: "));
  }
  std::string error;
  EXPECT_EQ(check_.run("/tmp/none", {}, &error), -1);
  EXPECT_EQ(error, "cannot open /tmp/none: No such file or directory");
  EXPECT_EQ(check_.run("/tmp", {}, &error), -1);
}

TEST_F(CardCheckTest, ACardThatIsCutShortIsRefusedOrHasFindings) {
  for (uint64_t size : {0ull, 511ull, 512ull, 4096ull, 100000ull, 1000000ull, 3000000ull}) {
    ASSERT_EQ(truncate(kCardPath, static_cast<off_t>(size)), 0);
    std::string error;
    EXPECT_EQ(check_.run(kCardPath, {}, &error), -1) << size;
    EXPECT_NE(error, "");
  }
}

// A recording is cut off between two flushes, with an event running and text in the log that the
// server had not saved.
TEST_F(CardCheckTest, ACardThatLostPowerHasFindingsThatRecoveryCorrects) {
  startServer();
  Bytes cut;
  {
    tarn::LogWriter log;
    ASSERT_EQ(log.open(), 0);
    ASSERT_EQ(log.append("lost power soon", 15, kStart + 60), 0);
    ASSERT_EQ(log.flush(), 0);
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 2000, 2030));
    ASSERT_NE(session.beginEvent(9, pictureTime(2030), 0), 0u);
    ASSERT_TRUE(writePictures(session, 2030, 2060));
    ASSERT_EQ(session.flush(), 0);
    cut = wholeCard();
    ASSERT_EQ(session.close(), 0);
  }
  stopServer();
  write(0, cut);
  unlink("/tmp/DB.dat");
  findings();
  EXPECT_EQ(check_.findings().count(FindingKind::kOpenRow), 2u) << texts();
  EXPECT_EQ(check_.findings().count(FindingKind::kLog), 1u) << texts();
  EXPECT_EQ(check_.findings().total(), 3u) << texts();
  const tarn::RecoveryReport report = tarn::Recovery().run();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(findings().total(), 0u) << texts();
  EXPECT_EQ(check_.streamRows(), 4u);
  EXPECT_GE(check_.pictures(), 150u + 59);
}

TEST_F(CardCheckTest, CanBeStopped) {
  tarn::CardCheckOptions options;
  std::vector<uint64_t> seen;
  options.progress = [&](uint64_t done, uint64_t total) {
    EXPECT_EQ(total, 3u);
    seen.push_back(done);
    return done < 2;
  };
  std::string error;
  EXPECT_EQ(check_.run(kCardPath, options, &error), -1);
  EXPECT_EQ(error, "stopped before all of /dev/sdblk0p1 was looked at");
  EXPECT_EQ(seen, (std::vector<uint64_t>{1, 2}));
}

TEST_F(CardCheckTest, OfDamageEverywhereAllIsCountedAndSomeIsListed) {
  tarn::CardFindings found;
  for (int i = 0; i < 1000; ++i) found.add(FindingKind::kRow, std::to_string(i));
  EXPECT_EQ(found.total(), 1000u);
  EXPECT_EQ(found.list().size(), tarn::CardFindings::kKeptOfAKind);
  EXPECT_TRUE(found.isFull(FindingKind::kRow));
  EXPECT_FALSE(found.isFull(FindingKind::kData));
}

}  // namespace
}  // namespace tarn_test
