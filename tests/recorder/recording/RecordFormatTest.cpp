#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "base/Crc16.h"
#include "recorder/recording/RecordFormat.h"

namespace tarn {
namespace {

using Bytes = std::array<uint8_t, kRecordSize>;

StreamHeader someHeader() {
  StreamHeader header;
  header.marker = kMarkerClosed;
  header.firstNumber = 700;
  header.dataOffset = 0x00123456;
  header.dataSize = 0xFEDCBA98;
  header.lastTime = 0x6A5B4C3D;
  header.pictures = 250;
  header.gops = 10;
  return header;
}

const Bytes kHeaderBytes = {0x53, 0x54, 0x52, 0x4D,   // "STRM"
                            0xBC, 0x02, 0x00, 0x00,   // 700
                            0x56, 0x34, 0x12, 0x00,   // data offset
                            0x98, 0xBA, 0xDC, 0xFE,   // data size
                            0x3D, 0x4C, 0x5B, 0x6A,   // last time
                            0xFA, 0x00, 0x00, 0x00,   // 250 pictures
                            0x0A, 0x00, 0x00, 0x00,   // 10 GOPs
                            0x01, 0x00, 0xDA, 0x49};  // version, sum

PictureEntry someEntry() {
  PictureEntry entry;
  entry.key = 0x00010203;
  entry.number = 701;
  entry.dataOffset = 0x00ABCDEF;
  entry.size = 4321;
  entry.presentation = {0x6A5B4C3D, 987654};
  entry.decodeOffsetUs = -40000;
  entry.flags = kEntryKeyPicture | kEntryDiscontinuity;
  return entry;
}

const uint8_t kEntryFront[30] = {0x03, 0x02, 0x01, 0x00,  // key
                                 0xBD, 0x02, 0x00, 0x00,  // number
                                 0xEF, 0xCD, 0xAB, 0x00,  // data offset
                                 0xE1, 0x10, 0x00, 0x00,  // size
                                 0x3D, 0x4C, 0x5B, 0x6A,  // seconds
                                 0xDB, 0x03, 0x8E, 0x02,  // 987 ms, 654 us
                                 0xC0, 0x63, 0xFF, 0xFF,  // -40000
                                 0x03, 0x00};             // flags

// Bit by bit, independent of the table that the code uses.
uint16_t slowCrc(const uint8_t* data, size_t length) {
  uint32_t crc = 0;
  for (size_t i = 0; i < length; ++i) {
    crc ^= uint32_t{data[i]} << 8;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1;
  }
  return static_cast<uint16_t>(crc);
}

TEST(RecordFormat, HeaderHasItsGoldenBytes) {
  Bytes bytes;
  bytes.fill(0xEE);
  encodeStreamHeader(someHeader(), bytes.data());
  EXPECT_EQ(bytes, kHeaderBytes);
}

TEST(RecordFormat, HeaderSumIsTheSumOfFifteenWordsWithoutCarry) {
  const uint32_t sum = 0x5453 + 0x4D52 + 0x02BC + 0x0000 + 0x3456 + 0x0012 + 0xBA98 + 0xFEDC +
                       0x4C3D + 0x6A5B + 0x00FA + 0x0000 + 0x000A + 0x0000 + 0x0001;
  EXPECT_EQ(streamHeaderWordSum(kHeaderBytes.data()), sum & 0xFFFF);
}

TEST(RecordFormat, OpenHeaderBeginsWithAllOnes) {
  Bytes bytes;
  encodeStreamHeader(StreamHeader(), bytes.data());
  EXPECT_EQ(0, memcmp(bytes.data(), "\xFF\xFF\xFF\xFF", 4));
  EXPECT_EQ(bytes[28], 1);
  // FFFF + FFFF + 1 = 1FFFF
  EXPECT_EQ(bytes[30], 0xFF);
  EXPECT_EQ(bytes[31], 0xFF);
}

TEST(RecordFormat, HeaderComesBackFromItsBytes) {
  StreamHeader header;
  ASSERT_TRUE(decodeStreamHeader(kHeaderBytes.data(), &header));
  const StreamHeader expected = someHeader();
  EXPECT_EQ(header.marker, expected.marker);
  EXPECT_EQ(header.firstNumber, expected.firstNumber);
  EXPECT_EQ(header.dataOffset, expected.dataOffset);
  EXPECT_EQ(header.dataSize, expected.dataSize);
  EXPECT_EQ(header.lastTime, expected.lastTime);
  EXPECT_EQ(header.pictures, expected.pictures);
  EXPECT_EQ(header.gops, expected.gops);
  EXPECT_EQ(header.version, 1);
}

TEST(RecordFormat, HeaderWithAnyChangedByteIsRefused) {
  for (size_t i = 0; i < kRecordSize; ++i) {
    Bytes bytes = kHeaderBytes;
    bytes[i] ^= 0x40;
    StreamHeader header;
    EXPECT_FALSE(decodeStreamHeader(bytes.data(), &header)) << i;
  }
}

TEST(RecordFormat, EntryHasItsGoldenBytes) {
  Bytes bytes;
  bytes.fill(0xEE);
  encodePictureEntry(someEntry(), bytes.data());
  EXPECT_EQ(0, memcmp(bytes.data(), kEntryFront, sizeof kEntryFront));
  const uint16_t crc = slowCrc(kEntryFront, sizeof kEntryFront);
  EXPECT_EQ(bytes[30], crc & 0xFF);
  EXPECT_EQ(bytes[31], crc >> 8);
}

TEST(RecordFormat, EntryComesBackFromItsBytes) {
  Bytes bytes;
  encodePictureEntry(someEntry(), bytes.data());
  PictureEntry entry;
  ASSERT_TRUE(decodePictureEntry(bytes.data(), &entry));
  EXPECT_EQ(entry.key, 0x00010203u);
  EXPECT_EQ(entry.number, 701u);
  EXPECT_EQ(entry.dataOffset, 0x00ABCDEFu);
  EXPECT_EQ(entry.size, 4321u);
  EXPECT_EQ(entry.presentation, (PictureTime{0x6A5B4C3D, 987654}));
  EXPECT_EQ(entry.decodeOffsetUs, -40000);
  EXPECT_EQ(entry.decodeTime(), (PictureTime{0x6A5B4C3D, 947654}));
  EXPECT_TRUE(entry.isKey());
  EXPECT_TRUE(entry.isDiscontinuity());
}

TEST(RecordFormat, ThePicturesChecksumStandsAboveTheFlagsOfItsEntry) {
  PictureEntry entry = someEntry();
  entry.checksum = 0x2A5C;
  Bytes bytes;
  encodePictureEntry(entry, bytes.data());
  EXPECT_EQ(bytes[28], 0x73);  // 0x2A5C << 2 | 3
  EXPECT_EQ(bytes[29], 0xA9);
  PictureEntry back;
  ASSERT_TRUE(decodePictureEntry(bytes.data(), &back));
  EXPECT_EQ(back.checksum, 0x2A5C);
  EXPECT_EQ(back.flags, kEntryKeyPicture | kEntryDiscontinuity);
}

TEST(RecordFormat, APicturesChecksumIsNeverNone) {
  EXPECT_EQ(pictureChecksum(0), 0x3FFF);
  EXPECT_EQ(pictureChecksum(0x4001), 0x3FFF);
  EXPECT_EQ(pictureChecksum(0x1234), 0x1234);
  EXPECT_EQ(pictureChecksum(0xF000), 0x3003);
  for (uint32_t crc = 0; crc <= 0xFFFF; ++crc) {
    const uint16_t checksum = pictureChecksum(static_cast<uint16_t>(crc));
    ASSERT_TRUE(checksum >= 1 && checksum <= 0x3FFF) << crc;
  }
}

// Also of pictures whose checksum would be 0, and whatever the place.
TEST(RecordFormat, APicturesChecksumChangesWithEveryBitOfThePicture) {
  std::vector<uint8_t> picture(700);
  for (const uint8_t fill : {0x00, 0x5A}) {
    std::fill(picture.begin(), picture.end(), fill);
    const uint16_t good = pictureChecksum(crc16(picture.data(), picture.size()));
    for (size_t bit = 0; bit < picture.size() * 8; ++bit) {
      picture[bit / 8] = static_cast<uint8_t>(picture[bit / 8] ^ (1u << (bit % 8)));
      ASSERT_NE(pictureChecksum(crc16(picture.data(), picture.size())), good) << bit;
      picture[bit / 8] = static_cast<uint8_t>(picture[bit / 8] ^ (1u << (bit % 8)));
    }
  }
}

TEST(RecordFormat, EntryWithAnyChangedBitIsRefused) {
  Bytes good;
  encodePictureEntry(someEntry(), good.data());
  for (size_t bit = 0; bit < kRecordSize * 8; ++bit) {
    Bytes bytes = good;
    bytes[bit / 8] = static_cast<uint8_t>(bytes[bit / 8] ^ (1u << (bit % 8)));
    PictureEntry entry;
    EXPECT_FALSE(decodePictureEntry(bytes.data(), &entry)) << bit;
  }
}

TEST(RecordFormat, EntryWithImpossibleMillisecondsIsRefusedThoughItsCrcIsRight) {
  for (const size_t place : {kEntryMillisOff, kEntryMicrosOff}) {
    Bytes bytes;
    encodePictureEntry(someEntry(), bytes.data());
    bytes[place] = 0xE8;  // 1000
    bytes[place + 1] = 0x03;
    const uint16_t crc = slowCrc(bytes.data(), 30);
    bytes[30] = static_cast<uint8_t>(crc);
    bytes[31] = static_cast<uint8_t>(crc >> 8);
    PictureEntry entry;
    EXPECT_FALSE(decodePictureEntry(bytes.data(), &entry)) << place;
  }
}

TEST(RecordFormat, ErasedAndZeroedSlotsAreNoEntries) {
  PictureEntry entry;
  Bytes bytes;
  bytes.fill(0xFF);
  EXPECT_FALSE(decodePictureEntry(bytes.data(), &entry));
  // Zeros carry a right CRC; readers tell them by key 0, which no row has.
  bytes.fill(0);
  EXPECT_TRUE(decodePictureEntry(bytes.data(), &entry));
  EXPECT_EQ(entry.key, 0u);
}

TEST(PictureTime, StaysWithin32BitSeconds) {
  EXPECT_EQ(PictureTime::fromMicros(-1), (PictureTime{0, 0}));
  EXPECT_EQ(PictureTime::fromMicros(1999999), (PictureTime{1, 999999}));
  EXPECT_EQ(PictureTime::fromMicros(int64_t{0x100000000} * 1000000),
            (PictureTime{0xFFFFFFFF, 999999}));
}

}  // namespace
}  // namespace tarn
