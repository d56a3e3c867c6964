#include "dblog/RepairRig.h"

namespace tarn_test {
namespace {

class TimeStamp : public testing::Test {
 protected:
  TimeStamp() { setTimeZone("UTC0"); }

  // A unit by hand: start code, NAL byte, payload type and size, identifier, text, stop bit.
  static Bytes unit(const std::string& text, uint8_t nal = 0x66) {
    Bytes bytes = {0, 0, 0, 1, nal, 5, 42};
    bytes.resize(23, 0xA5);
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back(0x80);
    return bytes;
  }
  static Bytes stamp(const std::string& digits) { return unit("timestamp = " + digits); }
  int timeOf(const Bytes& bytes) {
    // On the heap and of the exact length, so that a sanitizer sees every step outside.
    return restore.getTimeStamp(bytes.data(), static_cast<long>(bytes.size()));
  }
  int timeOf(const std::string& digits) { return timeOf(stamp(digits)); }

  CDbRestore restore;
};

TEST_F(TimeStamp, IsTheLocalTimeInTheUnit) {
  EXPECT_EQ(timeOf("20231114221320"), 1700000000);
  EXPECT_EQ(timeOf("19700101000001"), 1);
  EXPECT_EQ(timeOf("20240229235959"), 1709251199);
}

TEST_F(TimeStamp, IsReadAsTheRecorderWritesIt) {
  for (const char* zone :
       {"UTC0", "JST-9", "CET-1CEST,M3.5.0,M10.5.0/3", "NST3:30NDT,M3.2.0,M11.1.0"}) {
    setTimeZone(zone);
    for (uint32_t seconds : {1705316400u, 1721037600u, 1700000000u, 0x7FFFFFFFu}) {
      Bytes bytes(tarn::kTimeStampSeiSize);
      tarn::makeTimeStampSei(seconds, bytes.data());
      EXPECT_EQ(timeOf(bytes), static_cast<int>(seconds)) << zone;
    }
  }
}

TEST_F(TimeStamp, FollowsTheTimeZone) {
  setTimeZone("JST-9");
  EXPECT_EQ(timeOf("20231115071320"), 1700000000);
  setTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(timeOf("20240115120000"), 1705316400);
  EXPECT_EQ(timeOf("20240715120000"), 1721037600);
}

TEST_F(TimeStamp, MayStandAnywhereBehindItsHead) {
  Bytes bytes(100, 0x33);
  const Bytes found = stamp("20231114221320");
  bytes.insert(bytes.end(), found.begin(), found.end());
  EXPECT_EQ(timeOf(bytes), 1700000000);
  EXPECT_EQ(timeOf(unit("xx timestamp = timestamp = 20231114221320")), 0);
  EXPECT_EQ(timeOf(unit("xx, timestamp = 20231114221320")), 1700000000);
}

TEST_F(TimeStamp, OtherUnitsInFrontAreSteppedOver) {
  Bytes bytes = {0, 0, 0, 1, 0x09, 0x10, 0, 0, 0, 1, 0x67, 0x42};
  const Bytes found = stamp("20231114221320");
  bytes.insert(bytes.end(), found.begin(), found.end());
  EXPECT_EQ(timeOf(bytes), 1700000000);
  EXPECT_EQ(timeOf(unit("timestamp = 20231114221320", 0x06)), 0);
  EXPECT_EQ(timeOf(unit("timestamp = 20231114221320", 0x67)), 0);
}

TEST_F(TimeStamp, ALongerRunOfZerosIsAStartCodeToo) {
  Bytes bytes = stamp("20231114221320");
  bytes.insert(bytes.begin(), 3, 0);
  EXPECT_EQ(timeOf(bytes), 1700000000);
}

TEST_F(TimeStamp, AThreeByteStartCodeIsNone) {
  Bytes bytes = stamp("20231114221320");
  bytes[0] = 1;
  EXPECT_EQ(timeOf(bytes), 0);
}

TEST_F(TimeStamp, TheTextDoesNotBeginInTheUnitsHead) {
  Bytes bytes = unit("");
  const std::string text = "timestamp = 20231114221320";
  bytes.insert(bytes.begin() + 22, text.begin(), text.end());  // one byte too early
  EXPECT_EQ(timeOf(bytes), 0);
}

TEST_F(TimeStamp, NothingIsReadBehindTheLength) {
  Bytes whole = stamp("20231114221320");
  whole.pop_back();  // ends with the last digit
  EXPECT_EQ(timeOf(whole), 1700000000);
  for (size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(timeOf(Bytes(whole.begin(), whole.begin() + static_cast<long>(length))), 0) << length;
  }
  EXPECT_EQ(restore.getTimeStamp(whole.data(), 0), 0);
  EXPECT_EQ(restore.getTimeStamp(whole.data(), -1), 0);
}

TEST_F(TimeStamp, DataWithoutAStampGivesZero) {
  EXPECT_EQ(timeOf(Bytes(287, 0)), 0);
  EXPECT_EQ(timeOf(Bytes(287, 0xFF)), 0);
  EXPECT_EQ(timeOf(unit("timestamp: 20231114221320")), 0);
}

TEST_F(TimeStamp, FieldsHaveAFixedWidth) {
  // A month of 2 and a day of 01 must not be made of "2001".
  for (const char* digits :
       {"20232001221320", "20231314221320", "20230014221320", "20231100221320", "20231132221320",
        "20231114241320", "20231114226020", "20231114221362", "2023111422132x", "x0231114221320",
        "2023 114221320", "2023-114221320"}) {
    EXPECT_EQ(timeOf(digits), 0) << digits;
  }
}

TEST_F(TimeStamp, AStampThatIsNoTimeDoesNotHideTheNextUnit) {
  Bytes bytes = stamp("20231399221320");
  const Bytes good = stamp("20231114221320");
  bytes.insert(bytes.end(), good.begin(), good.end());
  EXPECT_EQ(timeOf(bytes), 1700000000);
}

TEST_F(TimeStamp, WhatThirtyTwoBitsCannotHoldIsMinusOne) {
  EXPECT_EQ(timeOf("20380119031407"), 0x7FFFFFFF);
  EXPECT_EQ(timeOf("20380119031408"), -1);
  EXPECT_EQ(timeOf("99991231235959"), -1);
  EXPECT_EQ(timeOf("19011213204552"), INT32_MIN);
  EXPECT_EQ(timeOf("19011213204551"), -1);
  EXPECT_EQ(timeOf("00000101000000"), -1);
  setTimeZone("JST-9");
  EXPECT_EQ(timeOf("20380119121407"), 0x7FFFFFFF);
  EXPECT_EQ(timeOf("20380119121408"), -1);
}

}  // namespace
}  // namespace tarn_test
