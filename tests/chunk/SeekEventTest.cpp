#include <cerrno>

#include "chunk/ChunkTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Where a seek starts, what it asks, what comes of it, and its warning, if any.
struct Step {
  long from;
  long offset;
  long result;
  const char* warns;
};

class OpenEvent : public PlainCard {
 public:
  OpenEvent(uint32_t start, uint32_t size) {
    const CHUNK_EVENT event = eventOf(1, start, size);
    EXPECT_EQ(chunk.openChunkFile(&event), 0);
  }
  void check(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      SCOPED_TRACE(std::to_string(step.from) + " by " + std::to_string(step.offset));
      ASSERT_EQ(chunk.seek(step.from, SEEK_SET), step.from);
      log.clear();
      EXPECT_EQ(chunk.seekEvent(step.offset, SEEK_CUR), step.result);
      EXPECT_EQ(chunk.currentOffset(), step.result == -1 ? step.from : step.result);
      if (step.warns == nullptr) {
        EXPECT_THAT(log.lines(), IsEmpty());
      } else {
        EXPECT_THAT(log.lines(), ElementsAre(warning(step.warns)));
      }
    }
  }
  JournalProbe chunk{kJournal};
};

constexpr char kRange1[] = "seekEvent: SEEK_CUR range error1 offset too big.";
constexpr char kRange2[] = "seekEvent: SEEK_CUR range error2 offset too big.";
constexpr char kRange3[] = "seekEvent: SEEK_CUR range error3 offset too big.";
constexpr char kRange4[] = "seekEvent: SEEK_CUR range error4 offset too big.";
constexpr char kRange5[] = "seekEvent: SEEK_CUR range error5 offset too small.";
constexpr char kRange6[] = "seekEvent: SEEK_CUR range error6 offset too small.";
constexpr char kRange7[] = "seekEvent: SEEK_CUR range error7 offset too small.";
constexpr char kRange8[] = "seekEvent: SEEK_CUR range error8 offset too small.";

TEST(SeekEvent, OffsetZeroGivesThePosition) {
  OpenEvent e(1000, 200);
  e.check({{1000, 0, 1000, nullptr}, {3000, 0, 3000, nullptr}});
}

TEST(SeekEvent, ForwardInAnEventThatDoesNotWrap) {
  OpenEvent e(1000, 200);  // its last byte is 1199
  e.check({{1000, 199, 1199, nullptr},
           {1000, 200, 1200, kRange3},
           {1000, 3095, 4095, kRange3},
           {0, 999, 999, kRange3},
           {0, 1000, 1000, nullptr}});
}

TEST(SeekEvent, ForwardInAnEventThatWraps) {
  OpenEvent e(4000, 200);  // its last byte is 103
  // Short of the ring's end the warning comes although the place belongs to the event.
  e.check({{4000, 50, 4050, kRange4}, {0, 103, 103, nullptr}, {0, 104, 104, kRange4}});
}

TEST(SeekEvent, ForwardAcrossTheEndOfAnEventThatDoesNotWrap) {
  OpenEvent e(1000, 200);
  e.check({{1000, 3096, 0, kRange1}, {1100, 4096, 1100, kRange1}, {0, 10000, 5904, kRange1}});
}

TEST(SeekEvent, ForwardAcrossTheEndOfAnEventThatWraps) {
  OpenEvent e(4000, 200);
  e.check({{4000, 96, 0, nullptr}, {4000, 199, 103, nullptr}, {4000, 200, 104, kRange2}});
}

TEST(SeekEvent, ForwardFromBehindTheChunkComparesSigned) {
  OpenEvent e(1000, 200);
  e.check({{5000, 1, 905, kRange1}});
}

TEST(SeekEvent, BackwardInAnEventThatDoesNotWrap) {
  OpenEvent e(1000, 200);
  e.check({{1100, -100, 1000, nullptr},
           {1100, -101, 999, kRange7},
           {1500, -100, 1400, kRange7},
           {1100, -1100, 0, kRange7}});
}

TEST(SeekEvent, BackwardInAnEventThatWraps) {
  OpenEvent e(4000, 200);
  e.check({{4050, -50, 4000, nullptr},
           {4050, -51, 3999, kRange8},
           {50, -50, 0, nullptr},
           {200, -96, 104, kRange8}});
}

TEST(SeekEvent, BackwardAcrossTheStartOfAnEventThatDoesNotWrap) {
  OpenEvent e(1000, 200);
  e.check({{1000, -1001, 4095, kRange5}, {0, -3000, 1096, kRange5}});
}

TEST(SeekEvent, BackwardAcrossTheStartOfAnEventThatWraps) {
  OpenEvent e(4000, 200);
  e.check({{50, -51, 4095, nullptr}, {50, -146, 4000, nullptr}, {50, -147, 3999, kRange6}});
}

TEST(SeekEvent, BackwardByMoreThanTheRingIsRefused) {
  OpenEvent e(1000, 200);
  e.check({{0, -4097, -1, kRange5}, {100, -2147483647L - 1, -1, kRange5}});
}

TEST(SeekEvent, AnUnknownPositionIsReported) {
  OpenEvent e(1000, 200);
  e.io.fail(Call::Lseek, 1, EIO);
  EXPECT_EQ(e.chunk.seekEvent(1, SEEK_CUR), -1);
  EXPECT_THAT(problems(e.log),
              ElementsAre(err("CFATAccess.lseek"), err("seekPicture: seek error. errno[5]")));
}

TEST(SeekEvent, FromTheStartUpToJustBehindTheEvent) {
  OpenEvent e(1000, 200);
  EXPECT_EQ(e.chunk.seekEvent(0, SEEK_SET), 1000);
  EXPECT_EQ(e.chunk.seekEvent(200, SEEK_SET), 1200);
  EXPECT_THAT(e.log.lines(), IsEmpty());
  EXPECT_EQ(e.chunk.seekEvent(201, SEEK_SET), -1);
  EXPECT_EQ(e.chunk.seekEvent(-1, SEEK_SET), -1);
  EXPECT_EQ(e.chunk.currentOffset(), 1200);
  EXPECT_THAT(e.log.lines(),
              ElementsAre(warning("seekEvent: SEEK_SET range error"),
                          warning("EventSize(200) < offset(201) or offset is minus"),
                          warning("seekEvent: SEEK_SET range error"),
                          warning("EventSize(200) < offset(-1) or offset is minus")));
}

TEST(SeekEvent, FromTheStartAcrossTheRingsEnd) {
  OpenEvent e(4000, 200);
  EXPECT_EQ(e.chunk.seekEvent(95, SEEK_SET), 4095);
  EXPECT_EQ(e.chunk.seekEvent(96, SEEK_SET), 0);
  EXPECT_EQ(e.chunk.seekEvent(200, SEEK_SET), 104);
  EXPECT_EQ(e.chunk.seekEvent(201, SEEK_SET), -1);
}

TEST(SeekEvent, FromTheStartWithoutAnEventEveryOffsetIsAllowed) {
  OpenEvent e(1000, 200);
  e.chunk.eventSize = 0;
  EXPECT_EQ(e.chunk.seekEvent(0, SEEK_SET), 1000);
  EXPECT_EQ(e.chunk.seekEvent(3000, SEEK_SET), 4000);
  EXPECT_EQ(e.chunk.seekEvent(3100, SEEK_SET), 4);
  EXPECT_THAT(e.log.lines(), IsEmpty());
}

TEST(SeekEvent, FromTheEnd) {
  OpenEvent e(4000, 200);
  EXPECT_EQ(e.chunk.seekEvent(-50, SEEK_END), 54);
  EXPECT_EQ(e.chunk.seekEvent(0, SEEK_END), 104);
  EXPECT_EQ(e.chunk.seekEvent(-104, SEEK_END), 0);
  EXPECT_EQ(e.chunk.seekEvent(-105, SEEK_END), 4095);
  EXPECT_EQ(e.chunk.seekEvent(-200, SEEK_END), 4000);
  EXPECT_THAT(e.log.lines(), IsEmpty());
  EXPECT_EQ(e.chunk.seekEvent(-201, SEEK_END), -1);
  EXPECT_EQ(e.chunk.seekEvent(1, SEEK_END), -1);
  EXPECT_THAT(e.log.lines(),
              ElementsAre(warning("seekEvent: SEEK_END range error"),
                          warning("EventSize(200) < abs(offset(-201)) or offset is plus"),
                          warning("seekEvent: SEEK_END range error"),
                          warning("EventSize(200) < abs(offset(1)) or offset is plus")));
}

TEST(SeekEvent, FromTheEndOfAnEventThatEndsWithTheRing) {
  OpenEvent e(3896, 200);
  EXPECT_EQ(e.chunk.seekEvent(0, SEEK_END), 0);
  EXPECT_EQ(e.chunk.seekEvent(-1, SEEK_END), 4095);
}

TEST(SeekEvent, AnyOtherOriginIsRefusedInSilence) {
  OpenEvent e(1000, 200);
  EXPECT_EQ(e.chunk.seekEvent(0, 3), -1);
  EXPECT_EQ(e.chunk.seekEvent(0, -1), -1);
  EXPECT_THAT(e.log.lines(), IsEmpty());
}

}  // namespace
}  // namespace tarn_test
