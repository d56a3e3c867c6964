#include <gtest/gtest.h>

#include "recorder/RecorderRig.h"
#include "recorder/recovery/HeaderPlaces.h"

namespace {

using Places = std::vector<uint64_t>;

DB_STREAM row(uint32_t key, uint16_t chunk, uint32_t offset, uint32_t pictures) {
  DB_STREAM row = {};
  row.streamID = key;
  row.chunkID = chunk;
  row.chunkOffset = offset;
  row.recSize = pictures;
  row.chunkSize = pictures != 0 ? (pictures + 1) * 32 : 0;
  return row;
}

// Chunks of 64 KiB, the first one at 1 MiB.
tarn::CardFamily pictureFamily() {
  tarn::CardFamily family;
  family.chunkSize = 0x10000;
  family.chunks = 4;
  family.startSector = 0x100000 / 512;
  return family;
}

TEST(HeaderPlaces, AreThoseOfTheOldestAndTheNewestRecordingOfEachChunk) {
  tarn::HeaderPlaces places;
  for (const uint32_t key : {5u, 3u, 9u, 4u}) places.note(row(key, 1, key * 0x1000 + 64, 300));
  places.note(row(2, 3, 0, 10));
  EXPECT_EQ(places.places(pictureFamily()),
            (Places{0x113000, 0x114000, 0x115000, 0x119000, 0x11A000, 0x11B000, 0x130000}));
}

TEST(HeaderPlaces, GoAroundTheEndOfTheirChunk) {
  tarn::HeaderPlaces places;
  places.note(row(1, 0, 0xF000, 300));
  EXPECT_EQ(places.places(pictureFamily()), (Places{0x10F000, 0x101000, 0x10F000, 0x101000}));
}

TEST(HeaderPlaces, OfAnOpenRecordingThereIsTheBlockBehindItsHeaderAlone) {
  tarn::HeaderPlaces places;
  places.note(row(1, 0, 0x2020, 0));
  EXPECT_EQ(places.places(pictureFamily()), (Places{0x102000, 0x103000, 0x102000, 0x103000}));
}

TEST(HeaderPlaces, WhatTheCardHasNoPlaceForIsNotAskedFor) {
  tarn::HeaderPlaces places;
  places.note(row(1, 4, 0, 10));
  places.note(row(2, 2, 0x10000, 10));
  places.note(row(3, 1, 0, 0x800));
  EXPECT_EQ(places.places(pictureFamily()), Places());
}

TEST(HeaderPlaces, AskingTwiceIsAskingOnceAndEndsWithTheObject) {
  const tarn_test::RecorderRig rig;
  tarn::HeaderPlaces places;
  for (uint16_t chunk = 0; chunk < 40; ++chunk) places.note(row(chunk + 1u, chunk, 0, 10));
  places.askAhead();
  places.askAhead();
}

}  // namespace
