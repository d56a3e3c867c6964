#include "dblog/RepairRig.h"
#include "manager/CTARNEndlessManagerNative.h"

namespace tarn_test {
namespace {

// Where the scan of an active chunk that holds this text, and 0xFF behind it, says that it ends.
class SyslogScanEnd : public CardTest {
 protected:
  SyslogScanEnd() { setTimeZone("UTC0"); }

  uint32_t endOf(const std::string& text) {
    card.fill(card.chunkStart(tarn::kFileSyslog, 0), 64 * kKiB, 0xFF);
    card.writeChunk(tarn::kFileSyslog, 0, 0, Bytes(text.begin(), text.end()));
    EXPECT_EQ(CDbRestore().recoverSyslogManage(), 0);
    CTARNEndlessManagerNative store(tarn::kFileSyslog);
    EXPECT_EQ(store.openManageData('3'), 0);
    CHUNK_USAGE usage{};
    EXPECT_EQ(store.getUsage(0, &usage), 0);
    return usage.freeAddr;
  }
  // A line of `length` bytes, line feed included.
  static std::string line(const std::string& time, size_t length = 64) {
    return time + std::string(length - 1 - time.size(), 'x') + "\n";
  }
  static std::string block(const std::string& time) {
    std::string text;
    while (text.size() < 4096) text += line(time);
    return text;
  }
  const std::string t1 = "2024-01-01T00:00:00";
  const std::string t2 = "2024-01-01T00:00:01";
  const std::string older = "2023-12-31T23:59:59";
  const std::string longGone = "1970-01-02T00:00:00";
};

TEST_F(SyslogScanEnd, ALongGoneTimeBehindTheNewestLineIsTheEnd) {
  const std::string text = line(t1) + line(t1) + line(t2);
  EXPECT_EQ(endOf(text + line(longGone)), text.size());
  EXPECT_EQ(endOf(block(t1) + text + line(longGone)), 4096 + text.size());
}

TEST_F(SyslogScanEnd, OlderTextIsTheEndWhereverItStands) {
  EXPECT_EQ(endOf(line(t1) + line(older)), 64u);
  EXPECT_EQ(endOf(block(t1) + block(t2) + block(older) + block(older)), 8192u);
  EXPECT_EQ(endOf(line(longGone) + line("1969-12-31T23:59:58")), 64u);
  EXPECT_EQ(endOf(line("1969-12-31T23:59:58") + line(t1)), 0u);
}

TEST_F(SyslogScanEnd, WithoutAnOlderLineTheTextOfTheLastBlockIsNotTaken) {
  EXPECT_EQ(endOf(line(t1) + line(t2)), 0u);
  EXPECT_EQ(endOf(block(t1) + line(t2)), 4096u);
}

TEST_F(SyslogScanEnd, AFullBlockIsFollowedByTheNext) {
  EXPECT_EQ(endOf(block(t1)), 4096u);
  EXPECT_EQ(endOf(block(t1) + block(t1) + block(t2)), 3u * 4096);
}

TEST_F(SyslogScanEnd, AFirstLineThatIsNoTimeEndsTheScanAtItsPlace) {
  EXPECT_EQ(endOf("no time at the beginning of this\n" + line(t1)), 0u);
  EXPECT_EQ(endOf(block(t1) + "no time at the beginning of this\n"), 4096u);
  EXPECT_EQ(endOf("\n\n\nno time at the beginning of this\n"), 3u);
}

TEST_F(SyslogScanEnd, AFirstLineWithAShortTimeEndsTheScan) {
  // All fields there, but fewer than 19 characters.
  EXPECT_EQ(endOf(line("2024-1-1T0:0:0") + line(t2) + line(older)), 0u);
  // Of a later line only the time counts.
  EXPECT_EQ(endOf(line(t1) + line("2024-1-1T0:0:1") + line(longGone)), 128u);
}

TEST_F(SyslogScanEnd, ALaterLineThatIsNoTimeEndsTheScanAtItsBlock) {
  EXPECT_EQ(endOf(line(t1) + line("no time") + line(older)), 0u);
  EXPECT_EQ(endOf(block(t1) + line(t1) + line("no time") + line(older)), 4096u);
}

TEST_F(SyslogScanEnd, ALaterLineWithADateOnlyCountsAsMidnight) {
  EXPECT_EQ(endOf(line("2024-01-01T10:00:00") + line("2024-01-01 text") + line(t1)), 64u);
  EXPECT_EQ(endOf(line(older) + line("2024-01-01 text") + line(longGone)), 128u);
}

TEST_F(SyslogScanEnd, TimesThatThirtyTwoBitsCannotHoldEndTheScanAtItsBlock) {
  EXPECT_EQ(endOf(line("2038-01-19T03:14:07") + line(longGone)), 64u);
  EXPECT_EQ(endOf(line("2038-01-19T03:14:08") + line(longGone)), 0u);
  EXPECT_EQ(endOf(line(t1) + line("2038-01-19T03:14:08") + line(longGone)), 0u);
  EXPECT_EQ(endOf(block(t1) + line("1900-01-01T00:00:00") + line(longGone)), 4096u);
  EXPECT_EQ(endOf(line("1969-12-31T23:59:59")), 0u);  // -1 itself counts as none
}

TEST_F(SyslogScanEnd, ALineWithTooFewBytesLeftEndsItsBlock) {
  // The last line of the block begins 18 bytes before its end and is not looked at.
  std::string text = block(t1);
  text.resize(4096 - 64);
  text += line(t1, 64 - 18) + std::string(17, 'y') + "\n";
  ASSERT_EQ(text.size(), 4096u);
  EXPECT_EQ(endOf(text + line(t2) + line(longGone)), 4096u + 64);
  // With 19 bytes it is.
  text.resize(4096 - 64);
  text += line(t1, 64 - 19) + older;
  ASSERT_EQ(text.size(), 4096u);
  EXPECT_EQ(endOf(text + line(t2)), 4096u - 19);
}

TEST_F(SyslogScanEnd, ABlockThatBeginsInsideALineEndsTheScanAtItsBegin) {
  std::string text = block(t1);
  text.resize(4096 - 64);
  text += t1 + std::string(200, 'z') + "\n";
  EXPECT_EQ(endOf(text + line(t2) + line(longGone)), 4096u);
}

TEST_F(SyslogScanEnd, EmptyLinesAreSteppedOver) {
  const std::string text = "\n\n" + line(t1) + "\n\n\n" + line(t2);
  EXPECT_EQ(endOf(text + "\n" + line(longGone)), text.size() + 1);
  EXPECT_EQ(endOf(std::string(4096, '\n') + line(t1) + line(longGone)), 4096u + 64);
}

TEST_F(SyslogScanEnd, ZerosEndTheText) {
  EXPECT_EQ(endOf(std::string(64 * kKiB, '\0')), 0u);
  EXPECT_EQ(endOf(block(t1) + std::string(60 * kKiB, '\0')), 4096u);
}

TEST_F(SyslogScanEnd, TheChunkIsReadToItsEnd) {
  std::string text;
  for (int i = 0; i < 16; ++i) text += block(t1);
  EXPECT_EQ(endOf(text), 0u);  // the chunk's size
  text.resize(64 * kKiB - 4096);
  EXPECT_EQ(endOf(text), 64 * kKiB - 4096);
}

TEST_F(SyslogScanEnd, TimesAreComparedInEveryTimeZone) {
  for (const char* zone : {"JST-9", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0"}) {
    setTimeZone(zone);
    const std::string text = line("2024-03-31T01:59:59") + line("2024-03-31T02:30:00") +
                             line("2024-03-31T03:00:00") + line("2024-07-15T12:00:00");
    EXPECT_EQ(endOf(text + line(longGone)), text.size()) << zone;
  }
}

}  // namespace
}  // namespace tarn_test
