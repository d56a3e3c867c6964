#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "db/DbRecordFormat.h"

namespace {

// Typed by hand, field by field.
constexpr uint8_t kEventBytes[24] = {
    0x04, 0x03, 0x02, 0x01,  // eventID
    0x12, 0x11,              // extTrg
    0x22, 0x21,              // preSec
    0x34, 0x33, 0x32, 0x31,  // startDate
    0x44, 0x43, 0x42, 0xC1,  // endDate
    0x52, 0x51,              // startMSec
    0x62, 0x61,              // endMSec
    0x74, 0x73, 0x72, 0x71,  // backOffset
};
constexpr DB_EVENT kEvent = {0x01020304, 0x1112, 0x2122, 0x31323334,
                             0xC1424344, 0x5152, 0x6162, 0x71727374};

constexpr uint8_t kStreamBytes[48] = {
    0x04, 0x03, 0x02, 0x01,  // streamID
    0x12, 0x11,              // inTrg
    0x22, 0x21,              // frameSet
    0x34, 0x33, 0x32, 0x31,  // bitrateSet
    0x44, 0x43, 0x42, 0x41,  // recSize
    0x54, 0x53, 0x52, 0x51,  // chunkID
    0x64, 0x63, 0x62, 0x61,  // chunkOffset
    0x74, 0x73, 0x72, 0x71,  // chunkSize
    0x84, 0x83, 0x82, 0x81,  // status
    0x94, 0x93, 0x92, 0x91,  // startDate
    0xA4, 0xA3, 0xA2, 0xA1,  // endDate
    0xB2, 0xB1,              // startMSec
    0xC2, 0xC1,              // endMSec
    0xD4, 0xD3, 0xD2, 0xD1,  // backOffset
};
constexpr DB_STREAM kStream = {0x01020304, 0x1112,     0x2122,     0x31323334, 0x41424344,
                               0x51525354, 0x61626364, 0x71727374, 0x81828384, 0x91929394,
                               0xA1A2A3A4, 0xB1B2,     0xC1C2,     0xD1D2D3D4};

TEST(DbRecordFormat, EventIsStoredInFieldOrderLittleEndianWithoutPadding) {
  uint8_t bytes[26];
  memset(bytes, 0xCC, sizeof bytes);
  tarn::encodeEvent(kEvent, bytes + 1);
  EXPECT_EQ(0, memcmp(bytes + 1, kEventBytes, sizeof kEventBytes));
  EXPECT_EQ(0xCC, bytes[0]);
  EXPECT_EQ(0xCC, bytes[25]);
}

TEST(DbRecordFormat, StoredEventReadsBackWhole) {
  DB_EVENT event = {};
  tarn::decodeEvent(kEventBytes, &event);
  EXPECT_EQ(0, memcmp(&event, &kEvent, sizeof event));
}

TEST(DbRecordFormat, StreamIsStoredInFieldOrderLittleEndianWithoutPadding) {
  uint8_t bytes[50];
  memset(bytes, 0xCC, sizeof bytes);
  tarn::encodeStream(kStream, bytes + 1);
  EXPECT_EQ(0, memcmp(bytes + 1, kStreamBytes, sizeof kStreamBytes));
  EXPECT_EQ(0xCC, bytes[0]);
  EXPECT_EQ(0xCC, bytes[49]);
}

TEST(DbRecordFormat, StoredStreamReadsBackWhole) {
  DB_STREAM stream = {};
  tarn::decodeStream(kStreamBytes, &stream);
  EXPECT_EQ(0, memcmp(&stream, &kStream, sizeof stream));
}

TEST(DbRecordFormat, MasksCoverEveryFieldButTheKey) {
  EXPECT_EQ(0xFEu, kEventRegUpdatable);
  EXPECT_EQ(0x3FFEu, kStreamRegUpdatable);
  EXPECT_EQ(kEventRegUpdatable, kEventRegExtTrg | kEventRegPreSec | kEventRegStartDate |
                                    kEventRegEndDate | kEventRegStartMSec | kEventRegEndMSec |
                                    kEventRegBackOffset);
}

}  // namespace
