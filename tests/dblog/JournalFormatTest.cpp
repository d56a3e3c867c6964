#include "dblog/JournalFormat.h"
#include "dblog/JournalRig.h"

namespace tarn_test {
namespace {

using tarn::JournalKind;

const DB_EVENT kEvent = {0x00010203, 0x0405, 0x0607, 0x08090A0B, 0x0C0D0E0F, 0x1011, 0x1213, 0x40};
const Bytes kEventBytes = {
    0xED, 0xFF, 0xFF, 0xFF, 0x03, 0x02, 0x01, 0x00, 0x05, 0x04, 0x07, 0x06, 0x0B, 0x0A, 0x09, 0x08,
    0x0F, 0x0E, 0x0D, 0x0C, 0x11, 0x10, 0x13, 0x12, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0xB9, 0x42,
};
const DB_STREAM kStream = {0x21222324, 0x2526,     0x2728,     0x292A2B2C, 0x2D2E2F30,
                           0x31323334, 0x35363738, 0x393A3B3C, 0x3D3E3F40, 0x41424344,
                           0x45464748, 0x494A,     0x4B4C,     0x80};
const Bytes kStreamBytes = {
    0xEC, 0xFF, 0xFF, 0xFF, 0x24, 0x23, 0x22, 0x21, 0x26, 0x25, 0x28, 0x27, 0x2C, 0x2B, 0x2A, 0x29,
    0x30, 0x2F, 0x2E, 0x2D, 0x34, 0x33, 0x32, 0x31, 0x38, 0x37, 0x36, 0x35, 0x3C, 0x3B, 0x3A, 0x39,
    0x40, 0x3F, 0x3E, 0x3D, 0x44, 0x43, 0x42, 0x41, 0x48, 0x47, 0x46, 0x45, 0x4A, 0x49, 0x4C, 0x4B,
    0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x82, 0xE1,
};

TEST(JournalFormat, AnEventRecordHasTheseBytes) {
  Bytes bytes(32, 0xAA);
  tarn::encodeEventRecord(kEvent, bytes.data());
  EXPECT_EQ(bytes, kEventBytes);
  DB_EVENT back = {};
  tarn::decodeEventRecord(bytes.data(), &back);
  EXPECT_EQ(memcmp(&back, &kEvent, sizeof back), 0);
}

TEST(JournalFormat, AStreamRecordHasTheseBytes) {
  Bytes bytes(64, 0xAA);
  tarn::encodeStreamRecord(kStream, bytes.data());
  EXPECT_EQ(bytes, kStreamBytes);
  DB_STREAM back = {};
  tarn::decodeStreamRecord(bytes.data(), &back);
  EXPECT_EQ(memcmp(&back, &kStream, sizeof back), 0);
}

TEST(JournalFormat, MarkersAreTheSmallNegativeNumbers) {
  EXPECT_EQ(static_cast<int32_t>(tarn::kMarkerLiveEvent), -19);
  EXPECT_EQ(static_cast<int32_t>(tarn::kMarkerDeletedEvent), -17);
  EXPECT_EQ(static_cast<int32_t>(tarn::kMarkerLiveStream), -20);
  EXPECT_EQ(static_cast<int32_t>(tarn::kMarkerDeletedStream), -18);
  EXPECT_EQ(static_cast<int32_t>(tarn::kMarkerErased), -1);
}

TEST(JournalFormat, EveryBitUnderTheChecksumCounts) {
  for (size_t bit = 0; bit < 28 * 8; ++bit) {
    Bytes bytes = kEventBytes;
    bytes[bit / 8] = static_cast<uint8_t>(bytes[bit / 8] ^ (1u << (bit % 8)));
    EXPECT_FALSE(tarn::journalRecordValid(bytes.data(), 28)) << bit;
  }
  EXPECT_TRUE(tarn::journalRecordValid(kEventBytes.data(), 28));
  EXPECT_TRUE(tarn::journalRecordValid(kStreamBytes.data(), 60));
}

TEST(JournalFormat, AnErasedRecordIsNotValid) {
  const Bytes erased(64, 0xFF);
  EXPECT_FALSE(tarn::journalRecordValid(erased.data(), 28));
  EXPECT_FALSE(tarn::journalRecordValid(erased.data(), 60));
  EXPECT_EQ(tarn::journalMarker(erased.data()), tarn::kMarkerErased);
}

TEST(JournalFormat, ARecordIsInPlaceWhereItSaysSoLiveOrDeleted) {
  const auto& events = tarn::journalTraits(JournalKind::kEvent);
  const auto& streams = tarn::journalTraits(JournalKind::kStream);
  EXPECT_TRUE(tarn::journalRecordInPlace(events, kEventBytes.data(), 0x40));
  EXPECT_FALSE(tarn::journalRecordInPlace(events, kEventBytes.data(), 0x20));
  EXPECT_TRUE(tarn::journalRecordInPlace(streams, kStreamBytes.data(), 0x80));
  EXPECT_FALSE(tarn::journalRecordInPlace(streams, kStreamBytes.data(), 0));
  Bytes deleted = kEventBytes;
  tarn::setJournalMarker(deleted.data(), tarn::kMarkerDeletedEvent);
  EXPECT_FALSE(tarn::journalRecordInPlace(events, deleted.data(), 0x40)) << "old checksum";
  tarn::sealJournalRecord(deleted.data(), 28);
  EXPECT_EQ(Bytes(deleted.begin() + 28, deleted.end()), (Bytes{0, 0, 0xF0, 0x6A}));
  EXPECT_TRUE(tarn::journalRecordInPlace(events, deleted.data(), 0x40));
}

TEST(JournalFormat, KeyAndPositionAreReadFromTheRecord) {
  EXPECT_EQ(tarn::journalKey(kEventBytes.data()), 0x00010203u);
  EXPECT_EQ(tarn::journalKey(kStreamBytes.data()), 0x21222324u);
  const auto& streams = tarn::journalTraits(JournalKind::kStream);
  EXPECT_EQ(tarn::journalBackOffset(streams, kStreamBytes.data()), 0x80u);
}

TEST(JournalFormat, PlacesFollowEachOtherAndComeRound) {
  const auto& events = tarn::journalTraits(JournalKind::kEvent);
  EXPECT_EQ(tarn::nextJournalPlace(events, 0, 1024), 32u);
  EXPECT_EQ(tarn::nextJournalPlace(events, 992, 1024), 0u);
  EXPECT_TRUE(tarn::isJournalPlace(events, 992, 1024));
  EXPECT_FALSE(tarn::isJournalPlace(events, 1024, 1024));
  EXPECT_FALSE(tarn::isJournalPlace(events, 16, 1024));
  EXPECT_FALSE(tarn::isJournalPlace(events, 0xFFFFFFE0, 1024));
  EXPECT_FALSE(tarn::isJournalPlace(events, 0, 16));
}

TEST(JournalFormat, OfTwoCopiesTheOneInItsPlaceCounts) {
  using tarn::JournalCopy;
  const tarn::JournalTraits& traits = tarn::journalTraits(tarn::JournalKind::kEvent);
  const auto judge = [&](const uint8_t* original, const uint8_t* mirror) {
    return tarn::judgeJournalCopies(traits, 0x40, original, mirror);
  };
  const uint8_t* good = kEventBytes.data();  // lies at 0x40
  const Bytes zeros(32, 0);                  // with the checksum of zeros
  const Bytes noise(32, 0x5A);
  const Bytes erased(32, 0xFF);
  EXPECT_EQ(judge(good, good), JournalCopy::kOriginal);
  for (const uint8_t* other : {zeros.data(), noise.data(), erased.data()}) {
    EXPECT_EQ(judge(good, other), JournalCopy::kOriginal);
    EXPECT_EQ(judge(other, good), JournalCopy::kMirror);
    EXPECT_EQ(judge(other, nullptr), JournalCopy::kRefused);
    EXPECT_EQ(judge(nullptr, other), JournalCopy::kRefused);
  }
  EXPECT_EQ(judge(good, nullptr), JournalCopy::kOriginal);
  EXPECT_EQ(judge(nullptr, good), JournalCopy::kMirror);
  EXPECT_EQ(judge(nullptr, nullptr), JournalCopy::kRefused);
  EXPECT_EQ(judge(zeros.data(), noise.data()), JournalCopy::kOriginal);
  EXPECT_EQ(judge(noise.data(), zeros.data()), JournalCopy::kMirror);
  EXPECT_EQ(judge(erased.data(), erased.data()), JournalCopy::kErased);
  EXPECT_EQ(judge(erased.data(), zeros.data()), JournalCopy::kErased);
  EXPECT_EQ(judge(zeros.data(), erased.data()), JournalCopy::kErased);
  EXPECT_EQ(judge(erased.data(), noise.data()), JournalCopy::kNeither);
  EXPECT_EQ(judge(noise.data(), noise.data()), JournalCopy::kNeither);
}

}  // namespace
}  // namespace tarn_test
