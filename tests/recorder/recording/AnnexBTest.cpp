#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const Bytes kDelimiter = {0, 0, 0, 1, 0x09, 0xF0};
const Bytes kSps = {0, 0, 0, 1, 0x67, 0x64, 0x00, 0x1F, 0xAC};
const Bytes kPps = {0, 0, 0, 1, 0x68, 0xEE, 0x3C, 0x80};
const Bytes kIdr = {0, 0, 1, 0x65, 0x88, 0x84, 0x00, 0x33};
const Bytes kSlice = {0, 0, 0, 1, 0x41, 0x9A, 0x22, 0x11};

Bytes stamped(const Bytes& picture, uint32_t seconds) {
  Bytes sei(kTimeStampSeiSize);
  makeTimeStampSei(seconds, sei.data());
  Bytes result = picture;
  result.insert(
      result.begin() + static_cast<long>(timeStampSeiPlace(picture.data(), picture.size())),
      sei.begin(), sei.end());
  return result;
}

Bytes removed(Bytes picture) {
  picture.resize(removeTimeStampSei(picture.data(), picture.size()));
  return picture;
}

// What the repair of an interrupted recording does, word by word.
std::string stampSeenByRepair(const Bytes& picture) {
  const size_t length = std::min<size_t>(picture.size(), 287);
  for (size_t i = 0; i + 5 <= length; ++i) {
    if (memcmp(picture.data() + i, "\0\0\0\1\x66", 5) != 0) continue;
    for (size_t at = i + 4 + 19; at + 26 <= length; ++at) {
      if (memcmp(picture.data() + at, "timestamp = ", 12) == 0) {
        return std::string(picture.begin() + static_cast<long>(at) + 12,
                           picture.begin() + static_cast<long>(at) + 26);
      }
    }
  }
  return "";
}

void useTimeZone(const char* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

TEST(AnnexB, UnitsComeInOrderWithoutStartCodesAndZeros) {
  const Bytes data = Bytes{0x12, 0x34} + kSps + Bytes{0, 0} + kPps + kIdr;
  NalScanner scanner(data.data(), data.size());
  NalUnit unit;
  ASSERT_TRUE(scanner.next(&unit));
  EXPECT_EQ(unit.type(), kNalSps);
  EXPECT_EQ(Bytes(unit.data, unit.data + unit.size), Bytes(kSps.begin() + 4, kSps.end()));
  EXPECT_EQ(unit.startCode, 3u);
  ASSERT_TRUE(scanner.next(&unit));
  EXPECT_EQ(unit.type(), kNalPps);
  ASSERT_TRUE(scanner.next(&unit));
  EXPECT_EQ(unit.type(), kNalIdr);
  EXPECT_EQ(Bytes(unit.data, unit.data + unit.size), Bytes(kIdr.begin() + 3, kIdr.end()));
  EXPECT_FALSE(scanner.next(&unit));
}

TEST(AnnexB, DataWithoutStartCodeHasNoUnits) {
  for (const Bytes& data : {Bytes{}, Bytes{0}, Bytes{0, 0}, Bytes{0, 0, 2}, Bytes{1, 1, 1, 1}}) {
    NalScanner scanner(data.data(), data.size());
    NalUnit unit;
    EXPECT_FALSE(scanner.next(&unit));
    EXPECT_FALSE(isKeyPicture(data.data(), data.size()));
  }
}

TEST(AnnexB, UnitCutOffAtTheEndIsEmptyAndHasNoType) {
  const Bytes data = {0, 0, 1};
  NalScanner scanner(data.data(), data.size());
  NalUnit unit;
  ASSERT_TRUE(scanner.next(&unit));
  EXPECT_EQ(unit.size, 0u);
  EXPECT_EQ(unit.type(), 0);
  EXPECT_FALSE(scanner.next(&unit));
}

TEST(AnnexB, KeyPictureIsOneWithAnIdrSlice) {
  const Bytes key = kDelimiter + kSps + kPps + kIdr;
  const Bytes other = kDelimiter + kSlice;
  EXPECT_TRUE(isKeyPicture(key.data(), key.size()));
  EXPECT_FALSE(isKeyPicture(other.data(), other.size()));
  EXPECT_FALSE(isKeyPicture(kSps.data(), kSps.size()));
}

TEST(AnnexB, ParameterSetsAreFoundInFrontOfThePicture) {
  const Bytes key = kDelimiter + kSps + kPps + kIdr;
  NalUnit sps;
  NalUnit pps;
  ASSERT_TRUE(findParameterSets(key.data(), key.size(), &sps, &pps));
  EXPECT_EQ(Bytes(sps.data, sps.data + sps.size), Bytes(kSps.begin() + 4, kSps.end()));
  EXPECT_EQ(Bytes(pps.data, pps.data + pps.size), Bytes(kPps.begin() + 4, kPps.end()));
  EXPECT_FALSE(findParameterSets(kIdr.data(), kIdr.size(), &sps, &pps));
  EXPECT_EQ(sps.size, 0u);
}

TEST(AnnexB, TimeStampUnitHasItsGoldenBytes) {
  useTimeZone("UTC");
  const uint8_t golden[] = {0x00, 0x00, 0x00, 0x01, 0x66, 0x05, 0x2A, 0x9D, 0x3B, 0x71,
                            0xC4, 0x5E, 0x18, 0x4F, 0xA6, 0xB2, 0x6D, 0x54, 0x61, 0x72,
                            0x6E, 0x54, 0x53, 't',  'i',  'm',  'e',  's',  't',  'a',
                            'm',  'p',  ' ',  '=',  ' ',  '2',  '0',  '0',  '1',  '0',
                            '9',  '0',  '9',  '0',  '1',  '4',  '6',  '4',  '0',  0x80};
  static_assert(sizeof golden == kTimeStampSeiSize);
  uint8_t sei[kTimeStampSeiSize];
  makeTimeStampSei(1000000000, sei);
  EXPECT_EQ(0, memcmp(sei, golden, sizeof golden));
}

TEST(AnnexB, TimeStampUnitIsInLocalTime) {
  useTimeZone("XYZ-05:30");
  const Bytes picture = stamped(kSlice, 1000000000);
  EXPECT_EQ(stampSeenByRepair(picture), "20010909071640");
}

TEST(AnnexB, TimeStampUnitNeedsNoEmulationPreventionAtAnyTime) {
  useTimeZone("UTC");
  for (uint32_t seconds : {0u, 1u, 951782400u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    uint8_t sei[kTimeStampSeiSize];
    makeTimeStampSei(seconds, sei);
    for (size_t i = 4; i < sizeof sei; ++i) EXPECT_NE(sei[i], 0) << seconds << " " << i;
  }
}

TEST(AnnexB, TimeStampUnitStandsAtTheHeadOfAPictureWithoutDelimiter) {
  EXPECT_EQ(timeStampSeiPlace(kSlice.data(), kSlice.size()), 0u);
  const Bytes junk = {1, 2, 3};
  EXPECT_EQ(timeStampSeiPlace(junk.data(), junk.size()), 0u);
}

TEST(AnnexB, TimeStampUnitStandsBehindADelimiter) {
  const Bytes picture = kDelimiter + kSlice;
  EXPECT_EQ(timeStampSeiPlace(picture.data(), picture.size()), kDelimiter.size());
  const Bytes shortCode = Bytes{0, 0, 1, 0x09, 0x10} + kIdr;
  EXPECT_EQ(timeStampSeiPlace(shortCode.data(), shortCode.size()), 5u);
}

TEST(AnnexB, TimeStampUnitStaysWithinTheWindowOfTheRepair) {
  // A delimiter that never seems to end must not push the unit out of the window.
  const Bytes endless = Bytes{0, 0, 0, 1, 0x09} + Bytes(600, 0x55) + kSlice;
  const Bytes picture = stamped(endless, 1000000000);
  EXPECT_NE(stampSeenByRepair(picture), "");
  EXPECT_EQ(removed(picture), endless);
  // The last place that fits, and the first that does not.
  for (const size_t length : {232u, 233u}) {
    const Bytes edge = Bytes{0, 0, 0, 1, 0x09} + Bytes(length, 0x55) + kSlice;
    EXPECT_EQ(timeStampSeiPlace(edge.data(), edge.size()), length == 232 ? 237u : 0u);
    EXPECT_NE(stampSeenByRepair(stamped(edge, 1000000000)), "");
    EXPECT_EQ(removed(stamped(edge, 1000000000)), edge);
  }
}

TEST(AnnexB, RemovingGivesThePictureBackExactly) {
  const Bytes zeros = Bytes{0, 0, 0, 0};
  for (const Bytes& picture : {kSlice, kDelimiter + kSlice, kDelimiter, kDelimiter + zeros + kSlice,
                               zeros + kDelimiter + kSlice, kDelimiter + kSps + kPps + kIdr,
                               Bytes{7}, Bytes{0, 0, 0, 1, 0x09}, Bytes(1000, 0), Bytes{0, 0, 1},
                               kDelimiter + Bytes(400, 0), kDelimiter + kDelimiter + kSlice}) {
    const Bytes with = stamped(picture, 1234567890);
    EXPECT_EQ(with.size(), picture.size() + kTimeStampSeiSize);
    EXPECT_EQ(removed(with), picture);
    // Once more: a picture that came with a unit of ours keeps that one.
    EXPECT_EQ(removed(stamped(with, 1234567999)), with);
  }
}

TEST(AnnexB, PictureWithoutUnitIsLeftAlone) {
  EXPECT_EQ(removed(kDelimiter + kSlice), kDelimiter + kSlice);
  EXPECT_EQ(removed(Bytes{}), Bytes{});
}

TEST(AnnexB, UnitOfSomebodyElseIsLeftAlone) {
  const Bytes good = stamped(kSlice, 1000000000);
  // Identifier, text, a digit, the stop bits.
  for (const size_t at : {7u, 22u, 23u, 34u, 35u, 48u, 49u}) {
    Bytes other = good;
    other[at] = 0x41;
    EXPECT_EQ(removed(other), other) << at;
  }
  const Bytes cut(good.begin(), good.begin() + 49);
  EXPECT_EQ(removed(cut), cut);
}

}  // namespace
}  // namespace tarn
