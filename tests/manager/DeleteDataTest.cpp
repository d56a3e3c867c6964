#include <gmock/gmock.h>
#include <syslog.h>

#include "manager/CTARNEndlessManager.h"
#include "manager/CTARNStreamManager.h"
#include "manager/FakeServer.h"
#include "support/CardImage.h"
#include "support/IoFaults.h"
#include "support/SyslogCapture.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Misbehave = FakeServer::Misbehave;

constexpr uint32_t kStreamSize = 128 * kKiB;
constexpr uint32_t kPictureSize = 4 * kKiB;
constexpr uint32_t kUnanswered = 0xFFFFFFFFu;
// Order of the requests of one stream deletion.
constexpr int kFirstRelease = 4;

struct Area {
  uint32_t use;
  uint32_t free;
};

// One chunk's management record, as the real server would keep it.
class DeleteTest : public testing::Test {
 protected:
  DeleteTest() {
    server.on(9, [](Message& m) { putWord(m, 20, 4); });
    server.on(10,
              [](Message& m) { putWord(m, 20, getWord(m, 20) == 1 ? kStreamSize : kPictureSize); });
    server.on(11, [](Message& m) { putWord(m, 20, 1); });
    server.on(2, [this](Message& m) {
      putWord(m, 32, area[0].use);
      putWord(m, 36, area[0].free);
      putWord(m, 40, area[1].use);
      putWord(m, 44, area[1].free);
    });
    server.on(4, [this](Message& m) { area[getWord(m, 24)].free = getWord(m, 20); });
    server.on(5, [this](Message& m) { area[getWord(m, 24)].use = getWord(m, 20); });
  }

  // Requests that change something, as {command, chunk, offset, area}.
  std::vector<std::vector<uint32_t>> changes() const {
    std::vector<std::vector<uint32_t>> found;
    for (const Message& m : server.requests()) {
      const uint32_t command = getWord(m, 0);
      if (command != 4 && command != 5) continue;
      found.push_back({command, getWord(m, 16), getWord(m, 20), getWord(m, 24)});
    }
    return found;
  }

  Area area[2] = {};
  FakeServer server;
  SyslogCapture log;
};

// ---- endless and syslog chunks ----

class EndlessDeleteTest : public DeleteTest {
 protected:
  EndlessDeleteTest() : manager(51, 2) { EXPECT_EQ(manager.openManageData(), 0); }
  ~EndlessDeleteTest() override { manager.closeManageData(); }

  // Deletes with the given addresses and returns what was logged.
  std::vector<LogLine> logged(uint32_t a, uint32_t size, uint32_t use, uint32_t free) {
    area[0] = {use, free};
    log.clear();
    EXPECT_EQ(manager.deleteData(2, a, size), static_cast<int>(size));
    return log.lines();
  }

  CTARNEndlessManager manager;  // chunks of kStreamSize bytes
};

TEST_F(EndlessDeleteTest, MovesTheUseOffsetToTheRangesEnd) {
  EXPECT_THAT(logged(1000, 500, 1000, 3000), IsEmpty());
  EXPECT_EQ(area[0].use, 1500u);
  EXPECT_EQ(area[0].free, 3000u);
  const std::vector<Message> requests = server.requests();
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(requests[2], wire({2, 2, kUnanswered, 51, 2, 0, 0}));
  EXPECT_EQ(requests[3], wire({5, 2, kUnanswered, 51, 2, 1500, 0}));
}

TEST_F(EndlessDeleteTest, RangeThatEndsAtTheChunksEndSetsZero) {
  EXPECT_THAT(logged(kStreamSize - 100, 100, kStreamSize - 100, 50), IsEmpty());
  EXPECT_EQ(area[0].use, 0u);
}

TEST_F(EndlessDeleteTest, RangeWrapsAtTheChunksEnd) {
  EXPECT_THAT(logged(kStreamSize - 100, 130, kStreamSize - 100, 50), IsEmpty());
  EXPECT_EQ(area[0].use, 30u);
}

TEST_F(EndlessDeleteTest, SizeBeyondTheChunkIsCutToIt) {
  area[0] = {0, 4000};
  EXPECT_EQ(manager.deleteData(1, 0, kStreamSize + 1), static_cast<int>(kStreamSize));
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{LOG_ERR, "deleteData : chunk size < delete size"}));
  EXPECT_EQ(area[0].use, 0u);  // the end is the chunk's
}

TEST_F(EndlessDeleteTest, WholeChunkFromTheMiddleEndsWhereItBegan) {
  EXPECT_THAT(logged(700, kStreamSize, 700, 600), IsEmpty());
  EXPECT_EQ(area[0].use, 700u);
}

TEST_F(EndlessDeleteTest, FailedRequestsAreMinusOne) {
  server.misbehave(Misbehave::Refuse, 1);
  EXPECT_EQ(manager.deleteData(1, 0, 10), -1);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{LOG_ERR, "CTARNManagerBase:getUsage() result NG"}));
  log.clear();
  area[0] = {0, 100};
  server.misbehave(Misbehave::Refuse, 2);
  EXPECT_EQ(manager.deleteData(1, 0, 10), -1);
  EXPECT_THAT(log.lines(),
              ElementsAre(LogLine{LOG_ERR, "CTARNManagerBase:setUseOffset() result NG"}));
  EXPECT_EQ(area[0].use, 0u);
}

// A, B, U, F and the rule that they break; 0: none. B is reached by the size that leads to it.
struct RangeCase {
  uint32_t a, b, u, f;
  int rule;
};

std::vector<LogLine> warning(const RangeCase& c) {
  static const char* const rules[] = {"", "(A must be zero && Bend < Free)",
                                      "(Astart < Free && U < Bend && Bend < Free)",
                                      "(Astart < U && (U < Bend || B = zero)",
                                      "(F < Astart && Astart < U && (U < Bend || Bend < Free)"};
  if (c.rule == 0) return {};
  return {{LOG_WARNING, "deleteData : range error" + std::to_string(c.rule) + ". A(" +
                            std::to_string(c.a) + ") B(" + std::to_string(c.b) + ") U(" +
                            std::to_string(c.u) + ") F(" + std::to_string(c.f) + ") " +
                            rules[c.rule]}};
}

uint32_t sizeOf(const RangeCase& c, uint32_t areaSize) {
  return c.b > c.a ? c.b - c.a : areaSize - c.a + c.b;
}

const std::vector<RangeCase> kRanges = {
    // U = 0
    {0, 100, 0, 200, 0},
    {0, 200, 0, 200, 0},
    {0, 201, 0, 200, 1},
    {32, 100, 0, 200, 1},
    // 0 < U <= F
    {64, 160, 64, 320, 0},
    {32, 160, 64, 320, 0},
    {64, 320, 64, 320, 0},
    {32, 64, 64, 320, 0},
    {96, 160, 64, 320, 2},
    {0, 32, 64, 320, 2},
    {64, 352, 64, 320, 2},
    {64, 96, 64, 64, 2},
    // U > F = 0
    {512, 1024, 512, 0, 0},
    {480, 512, 512, 0, 0},
    {512, 0, 512, 0, 0},
    {544, 1024, 512, 0, 3},
    {256, 480, 512, 0, 3},
    // U > F > 0
    {1024, 2048, 1024, 512, 0},
    {512, 1024, 1024, 512, 0},
    {1024, 512, 1024, 512, 0},
    {1024, 0, 1024, 512, 0},
    {480, 2048, 1024, 512, 4},
    {1056, 2048, 1024, 512, 4},
    {1024, 544, 1024, 512, 4},
    {600, 800, 1024, 512, 4},
};

TEST_F(EndlessDeleteTest, EveryRuleWarnsOfExactlyWhatBreaksItAndTheDeletionGoesOn) {
  for (const RangeCase& c : kRanges) {
    EXPECT_EQ(logged(c.a, sizeOf(c, kStreamSize), c.u, c.f), warning(c));
    EXPECT_EQ(area[0].use, c.b);
  }
}

// ---- stream chunks ----

class StreamDeleteTest : public DeleteTest {
 protected:
  static CardLayout layout() {
    CardLayout layout;
    layout.families[tarn::kFileStream] = {kStreamSize, 4, 0};
    layout.families[tarn::kFilePicture] = {kPictureSize, 4, 0};
    return layout;
  }

  StreamDeleteTest() : card(layout()), manager(51) {
    EXPECT_EQ(manager.openManageData(), 0);
    server.forget();
  }
  ~StreamDeleteTest() override { manager.closeManageData(); }

  // Puts the two headers of an entry of chunk 1 at `at` of its picture area.
  void putEntry(uint32_t at, uint32_t streamStart, uint32_t streamLength) {
    putHeader(at, 12, streamLength);
    putHeader((at + 32) % kPictureSize, 8, streamStart);
  }
  void putHeader(uint32_t at, size_t field, uint32_t value) {
    Message header(32, 0x5A);
    putWord(header, field, value);
    card.writeChunk(tarn::kFilePicture, 1, at, header);
  }
  static LogLine trace(const std::string& rest) {
    return {LOG_INFO, "tarn::delete() chunk:1:" + rest};
  }

  CardImage card;
  CTARNStreamManager manager;
};

TEST_F(StreamDeleteTest, FreesThePictureEntryAndTheStreamDataItCovers) {
  area[0] = {64, 640};
  area[1] = {5000, 90000};
  putEntry(64, 5000, 20000);
  EXPECT_EQ(manager.deleteData(1, 64, 128), 20000);
  EXPECT_THAT(changes(), ElementsAre(ElementsAre(5, 1, 192, 0), ElementsAre(5, 1, 25000, 1)));
  EXPECT_THAT(log.lines(), ElementsAre(trace("0, A:64,B:192,U:64->192,F:640->640"),
                                       trace("1, A:5000,B:25000,U:5000->25000,F:90000->90000")));
}

TEST_F(StreamDeleteTest, RequestsComeInTheirOrder) {
  area[0] = {64, 640};
  area[1] = {5000, 90000};
  putEntry(64, 5000, 20000);
  ASSERT_EQ(manager.deleteData(1, 64, 128), 20000);
  EXPECT_THAT(
      server.requests(),
      ElementsAre(wire({11, 7, kUnanswered, 51, 1, 0, 0}), wire({2, 7, kUnanswered, 51, 1, 0, 0}),
                  wire({2, 7, kUnanswered, 51, 1, 0, 0}), wire({5, 7, kUnanswered, 51, 1, 192, 0}),
                  wire({5, 7, kUnanswered, 51, 1, 25000, 1})));
}

TEST_F(StreamDeleteTest, LastEntryLeavesBothAreasAtZero) {
  area[0] = {64, 192};
  area[1] = {5000, 25000};
  putEntry(64, 5000, 20000);
  EXPECT_EQ(manager.deleteData(1, 64, 128), 20000);
  EXPECT_THAT(changes(), ElementsAre(ElementsAre(4, 1, 0, 0), ElementsAre(5, 1, 0, 0),
                                     ElementsAre(4, 1, 0, 1), ElementsAre(5, 1, 0, 1)));
  EXPECT_THAT(log.lines(), ElementsAre(trace("0, A:64,B:192,U:64->0,F:192->0"),
                                       trace("1, A:5000,B:25000,U:5000->0,F:25000->0")));
  for (const Area& a : area) {
    EXPECT_EQ(a.use, 0u);
    EXPECT_EQ(a.free, 0u);
  }
}

TEST_F(StreamDeleteTest, AResetThatFailsKeepsTheAddresses) {
  area[0] = {64, 192};
  area[1] = {5000, 25000};
  putEntry(64, 5000, 20000);
  server.misbehave(Misbehave::Refuse, kFirstRelease);
  EXPECT_EQ(manager.deleteData(1, 64, 128), 20000);
  EXPECT_THAT(changes(), ElementsAre(ElementsAre(4, 1, 0, 0), ElementsAre(5, 1, 192, 0),
                                     ElementsAre(4, 1, 0, 1), ElementsAre(5, 1, 0, 1)));
  EXPECT_THAT(log.lines(),
              ElementsAre(LogLine{LOG_ERR, "CTARNManagerBase:setFreeOffset() result NG"},
                          trace("0, A:64,B:192,U:64->192,F:192->192"),
                          trace("1, A:5000,B:25000,U:5000->0,F:25000->0")));
}

TEST_F(StreamDeleteTest, RangesThatEndAtTheAreasEndGiveZero) {
  area[0] = {kPictureSize - 128, 64};
  area[1] = {kStreamSize - 1000, 500};
  putEntry(kPictureSize - 128, kStreamSize - 1000, 1000);
  EXPECT_EQ(manager.deleteData(1, kPictureSize - 128, 128), 1000);
  EXPECT_THAT(changes(), ElementsAre(ElementsAre(5, 1, 0, 0), ElementsAre(5, 1, 0, 1)));
  EXPECT_THAT(log.lines(), ElementsAre(trace("0, A:3968,B:0,U:3968->0,F:64->64"),
                                       trace("1, A:130072,B:0,U:130072->0,F:500->500")));
}

TEST_F(StreamDeleteTest, RangesAndHeadersWrapAtTheAreasEnd) {
  area[0] = {kPictureSize - 32, 512};
  area[1] = {kStreamSize - 1000, 5000};
  putEntry(kPictureSize - 32, kStreamSize - 1000, 1500);
  EXPECT_EQ(manager.deleteData(1, kPictureSize - 32, 128), 1500);
  EXPECT_EQ(area[0].use, 96u);
  EXPECT_EQ(area[1].use, 500u);
  EXPECT_THAT(log.atPriority(LOG_WARNING), IsEmpty());
}

TEST_F(StreamDeleteTest, SizesBeyondTheAreasAreCut) {
  area[0] = {64, 640};
  area[1] = {5000, 90000};
  putEntry(64, 5000, kStreamSize + 1);
  EXPECT_EQ(manager.deleteData(1, 64, kPictureSize + 1), static_cast<long>(kStreamSize));
  EXPECT_THAT(log.atPriority(LOG_ERR),
              ElementsAre(LogLine{LOG_ERR, "deleteData : picture size < delete size"},
                          LogLine{LOG_ERR, "deleteData : stream size < delete size"}));
  EXPECT_EQ(area[0].use, 64u);  // all the way round
  EXPECT_EQ(area[1].use, 5000u);
}

TEST_F(StreamDeleteTest, EveryRuleWarnsForThePictureArea) {
  area[1] = {0, 90000};
  for (const RangeCase& c : kRanges) {
    const uint32_t size = sizeOf(c, kPictureSize);
    if (size < 64) continue;  // no room for the headers
    area[0] = {c.u, c.f};
    area[1] = {0, 90000};
    putEntry(c.a, 0, 100);
    log.clear();
    EXPECT_EQ(manager.deleteData(1, c.a, size), 100);
    EXPECT_EQ(log.atPriority(LOG_WARNING), warning(c));
  }
}

TEST_F(StreamDeleteTest, EveryRuleWarnsForTheStreamArea) {
  for (const RangeCase& c : kRanges) {
    area[0] = {0, 1024};
    area[1] = {c.u, c.f};
    putEntry(0, c.a, sizeOf(c, kStreamSize));
    log.clear();
    EXPECT_EQ(manager.deleteData(1, 0, 64), static_cast<long>(sizeOf(c, kStreamSize)));
    EXPECT_EQ(log.atPriority(LOG_WARNING), warning(c));
  }
}

TEST_F(StreamDeleteTest, FailedRequestsAreMinusOne) {
  putEntry(64, 5000, 20000);
  const char* const words[] = {"getChunkAttr", "getUsage", "getUsage", "setUseOffset",
                               "setUseOffset"};
  for (int n = 1; n <= 5; ++n) {
    area[0] = {64, 640};
    area[1] = {5000, 90000};
    log.clear();
    server.misbehave(Misbehave::Refuse, n);
    EXPECT_EQ(manager.deleteData(1, 64, 128), -1) << n;
    EXPECT_THAT(log.atPriority(LOG_ERR),
                ElementsAre(LogLine{
                    LOG_ERR, std::string("CTARNManagerBase:") + words[n - 1] + "() result NG"}));
    // An area already done stays done.
    EXPECT_EQ(area[0].use, n == 5 ? 192u : 64u);
    EXPECT_EQ(area[1].use, 5000u);
  }
}

// Nothing may change when the entry cannot be read.
class UnreadableTest : public StreamDeleteTest {
 protected:
  UnreadableTest() {
    area[0] = {64, 640};
    area[1] = {5000, 90000};
    putEntry(64, 5000, 20000);
  }
  void expectUnreadable(uint32_t start, uint32_t size, const std::string& text) {
    EXPECT_EQ(manager.deleteData(1, start, size), -3);
    ASSERT_FALSE(log.atPriority(LOG_ERR).empty());
    EXPECT_EQ(log.atPriority(LOG_ERR).back(), (LogLine{LOG_ERR, text}));
    EXPECT_THAT(changes(), IsEmpty());
    EXPECT_THAT(log.atPriority(LOG_INFO), IsEmpty());
  }
};

TEST_F(UnreadableTest, ASizeOfZeroIsNoEntry) {
  expectUnreadable(64, 0, "deleteData : can't open chunk.");
}

TEST_F(UnreadableTest, AChunkThatDoesNotOpen) {
  IoFaults io(kCardPath);
  io.fail(Call::Open, 1, EIO);
  expectUnreadable(64, 128, "deleteData : can't open chunk.");
}

TEST_F(UnreadableTest, AnEntryShorterThanItsStreamHeader) {
  expectUnreadable(64, 31, "read stream header error");
}

TEST_F(UnreadableTest, AnEntryShorterThanItsPictureHeader) {
  expectUnreadable(64, 63, "read picture header error");
}

// Which device call is which, of a deletion that works.
std::vector<IoRecord> callsOf(CTARNStreamManager& manager) {
  IoFaults io(kCardPath);
  EXPECT_GT(manager.deleteData(1, 64, 128), 0);
  return io.calls();
}

TEST_F(UnreadableTest, EveryFailedDeviceReadAndSeekChangesNothing) {
  const std::vector<IoRecord> calls = callsOf(manager);
  for (Call kind : {Call::Read, Call::Pread, Call::Lseek}) {
    int total = 0;
    for (const IoRecord& call : calls) total += call.call == kind ? 1 : 0;
    for (int n = 1; n <= total; ++n) {
      area[0] = {64, 640};
      area[1] = {5000, 90000};
      server.forget();
      log.clear();
      IoFaults io(kCardPath);
      io.fail(kind, n, EIO);
      const long result = manager.deleteData(1, 64, 128);
      if (result == 20000) {
        // A seek that nothing depended on; the right range was freed.
        EXPECT_EQ(kind, Call::Lseek);
        EXPECT_EQ(area[1].use, 25000u);
        continue;
      }
      EXPECT_EQ(result, -3);
      EXPECT_THAT(changes(), IsEmpty());
      EXPECT_EQ(area[1].use, 5000u);
    }
  }
}

TEST_F(UnreadableTest, AFailedDeviceReadIsNotTakenForAnEmptyHeader) {
  int headerReads = 0;
  for (const IoRecord& call : callsOf(manager)) {
    if (call.call == Call::Read || call.call == Call::Pread) ++headerReads;
  }
  area[0] = {64, 640};
  area[1] = {5000, 90000};
  server.forget();
  log.clear();
  IoFaults io(kCardPath);
  io.fail(Call::Read, headerReads, EIO);  // the block with both headers is read last
  io.fail(Call::Pread, headerReads, EIO);
  expectUnreadable(64, 128, "read stream header error");
}

}  // namespace
}  // namespace tarn_test
