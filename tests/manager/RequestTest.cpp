#include <gmock/gmock.h>
#include <syslog.h>

#include <memory>

#include "manager/CTARNEndlessManager.h"
#include "manager/CTARNStreamManager.h"
#include "manager/CTARNSyslogManager.h"
#include "manager/FakeServer.h"
#include "manager/RequestFormat.h"
#include "mesg/CMesgClient.h"
#include "mesg/RequestPatience.h"
#include "support/IoFaults.h"
#include "support/SyslogCapture.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Misbehave = FakeServer::Misbehave;

constexpr uint32_t kUnanswered = 0xFFFFFFFFu;

// A manager whose inside a test may look at; closes itself.
template <typename Manager>
class Probe : public Manager {
 public:
  using Manager::m_client;
  using Manager::m_kind;
  using Manager::m_name;
  using Manager::Manager;
  ~Probe() override { this->closeManageData(); }
};
using BaseManager = Probe<CTARNManagerBase>;
using StreamManager = Probe<CTARNStreamManager>;
using SyslogManager = Probe<CTARNSyslogManager>;
using EndlessManager = Probe<CTARNEndlessManager>;

// Answers both questions of an open: 9 chunks, a stream area of 4 MiB, a picture area of 64 KiB.
void answerOpening(FakeServer& server) {
  server.on(9, [](Message& m) { putWord(m, 20, 9); });
  server.on(10, [](Message& m) { putWord(m, 20, getWord(m, 20) == 1 ? 4194304 : 65536); });
}

// Lines of the managers themselves, without those of the message client.
std::vector<LogLine> managerLines(const SyslogCapture& log) {
  std::vector<LogLine> own;
  for (const LogLine& line : log.lines()) {
    if (line.text.rfind("CTA", 0) == 0) own.push_back(line);
  }
  return own;
}

class RequestTest : public testing::Test {
 protected:
  RequestTest() { answerOpening(server); }

  template <typename Manager>
  void open(Manager& manager) {
    ASSERT_EQ(manager.openManageData(), 0);
    server.forget();
    log.clear();
  }

  FakeServer server;
  SyslogCapture log;
};

// ---- bytes on the wire ----

TEST_F(RequestTest, OpenAsksForChunkCountAndStreamSize) {
  BaseManager manager;
  ASSERT_EQ(manager.openManageData(), 0);
  EXPECT_THAT(server.requests(), ElementsAre(wire({9, 7, kUnanswered, 51, 0, 0, 0}),
                                             wire({10, 7, kUnanswered, 51, 0, 1, 0})));
  EXPECT_EQ(manager.getNumChunk(), 9);
  EXPECT_EQ(manager.getChunkSize(), 4194304u);
  EXPECT_EQ(manager.getPartitionNumber(), 51);
  EXPECT_STREQ(manager.m_name, "dummy");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RequestTest, StreamManagerAlsoAsksForThePictureSize) {
  StreamManager manager(11);
  ASSERT_EQ(manager.openManageData(), 0);
  EXPECT_THAT(server.requests(), ElementsAre(wire({9, 7, kUnanswered, 11, 0, 0, 0}),
                                             wire({10, 7, kUnanswered, 11, 0, 1, 0}),
                                             wire({10, 7, kUnanswered, 11, 0, 0, 0})));
  EXPECT_EQ(manager.streamChunkSize(), 4194304u);
  EXPECT_EQ(manager.pictureChunkSize(), 65536u);
  EXPECT_STREQ(manager.m_name, "stream");
}

TEST_F(RequestTest, ChunkCountHas16Bits) {
  server.on(9, [](Message& m) { putWord(m, 20, 0x10005); });
  BaseManager manager;
  open(manager);
  EXPECT_EQ(manager.getNumChunk(), 5);
}

TEST_F(RequestTest, UsageTakesTheFirstPairOfTheAnswer) {
  server.on(2, [](Message& m) {
    putWord(m, 32, 0x11121314);
    putWord(m, 36, 0x21222324);
    putWord(m, 40, 0x31323334);
    putWord(m, 44, 0x41424344);
  });
  BaseManager manager;
  open(manager);
  CHUNK_USAGE usage{1, 2, 3, 4};
  EXPECT_EQ(manager.getUsage(258, &usage), 0);
  EXPECT_THAT(server.requests(), ElementsAre(wire({2, 7, kUnanswered, 51, 258, 0, 0})));
  EXPECT_EQ(usage.useAddr, 0x11121314u);
  EXPECT_EQ(usage.freeAddr, 0x21222324u);
  EXPECT_EQ(usage.streamUseAddr, 3u);
  EXPECT_EQ(usage.streamFreeAddr, 4u);
}

TEST_F(RequestTest, SignedNumbersAreSignExtended) {
  EndlessManager manager(-2, -3);
  open(manager);
  EXPECT_EQ(manager.setChunkAttr(-4, -1, -128), 0);
  EXPECT_THAT(server.requests(), ElementsAre(wire({3, 0xFFFFFFFD, kUnanswered, 0xFFFFFFFE,
                                                   0xFFFFFFFC, 0xFFFFFFFF, 0xFFFFFF80})));
}

TEST_F(RequestTest, BaseOffsetsLeaveTheAreaZero) {
  BaseManager manager;
  open(manager);
  EXPECT_EQ(manager.setFreeOffset(3, 0x87654321ul), 0);
  EXPECT_EQ(manager.setUseOffset(4, 0x12345678ul), 0);
  EXPECT_THAT(server.requests(), ElementsAre(wire({4, 7, kUnanswered, 51, 3, 0x87654321, 0}),
                                             wire({5, 7, kUnanswered, 51, 4, 0x12345678, 0})));
}

TEST_F(RequestTest, StreamOffsetsNameTheArea) {
  StreamManager manager(51);
  open(manager);
  EXPECT_EQ(manager.setFreeOffset(3, 7, 1), 0);
  EXPECT_EQ(manager.setUseOffset(4, 8, 1), 0);
  EXPECT_EQ(manager.setFreeOffset(5, 9, 0), 0);
  EXPECT_EQ(manager.setUseOffset(6, 10, 255), 0);
  EXPECT_EQ(manager.setUseOffset(6, 11), 0);  // the base's, without an area
  EXPECT_THAT(
      server.requests(),
      ElementsAre(wire({4, 7, kUnanswered, 51, 3, 7, 1}), wire({5, 7, kUnanswered, 51, 4, 8, 1}),
                  wire({4, 7, kUnanswered, 51, 5, 9, 0}), wire({5, 7, kUnanswered, 51, 6, 10, 255}),
                  wire({5, 7, kUnanswered, 51, 6, 11, 0})));
}

TEST_F(RequestTest, OffsetsAreCutTo32Bits) {
  if (sizeof(unsigned long) == 4) GTEST_SKIP() << "an unsigned long has 32 bits here";
  BaseManager manager;
  open(manager);
  EXPECT_EQ(manager.setUseOffset(4, static_cast<unsigned long>(0x100000008ull)), 0);
  EXPECT_THAT(server.requests(), ElementsAre(wire({5, 7, kUnanswered, 51, 4, 8, 0})));
}

TEST_F(RequestTest, AttributesAreTheLowBytesOfTheAnswer) {
  server.on(11, [](Message& m) {
    putWord(m, 20, 0xFFFFFFFF);
    putWord(m, 24, 0x00000180);
  });
  BaseManager manager;
  open(manager);
  signed char first = 0;
  signed char second = 0;
  EXPECT_EQ(manager.getChunkAttr(2, &first, &second), 0);
  EXPECT_EQ(first, -1);
  EXPECT_EQ(second, -128);
  EXPECT_THAT(server.requests(), ElementsAre(wire({11, 7, kUnanswered, 51, 2, 0, 0})));
}

TEST_F(RequestTest, TotalHas64Bits) {
  server.on(7, [](Message& m) {
    putWord(m, 32, 0x89ABCDEF);
    putWord(m, 36, 0x01234567);
  });
  BaseManager manager;
  open(manager);
  EXPECT_EQ(manager.getFreeSizeTotal(), 0x0123456789ABCDEFll);
  EXPECT_THAT(server.requests(), ElementsAre(wire({7, 7, kUnanswered, 51, 0, 0, 0})));
}

TEST_F(RequestTest, SaveAndUsedCountSendNoArguments) {
  server.on(8, [](Message& m) { putWord(m, 20, 513); });
  BaseManager manager;
  open(manager);
  EXPECT_EQ(manager.saveManageData(), 0);
  EXPECT_EQ(manager.getNumUsedChunk(), 513);
  EXPECT_THAT(server.requests(), ElementsAre(wire({6, 7, kUnanswered, 51, 0, 0, 0}),
                                             wire({8, 7, kUnanswered, 51, 0, 0, 0})));
}

TEST_F(RequestTest, ChoiceOfAChunkCarriesChannelAndType) {
  server.on(12, [](Message& m) { putWord(m, 16, getWord(m, 16) == 0 ? 0xFFFFFFFF : 6); });
  StreamManager manager(51);
  open(manager);
  EXPECT_EQ(manager.firstAvailableChunk(1000, -2, 3), 6);
  EXPECT_EQ(manager.firstAvailableChunk(1000), 6);  // the base's: channel and type 0
  EXPECT_EQ(manager.firstAvailableChunk(0, 1, 1), -1);
  EXPECT_THAT(server.requests(), ElementsAre(wire({12, 7, kUnanswered, 51, 1000, 0xFFFFFFFE, 3}),
                                             wire({12, 7, kUnanswered, 51, 1000, 0, 0}),
                                             wire({12, 7, kUnanswered, 51, 0, 1, 1})));
}

// ---- areas, free sizes, flags ----

void answerUsage(FakeServer& server, uint32_t use, uint32_t free, uint32_t streamUse,
                 uint32_t streamFree) {
  server.on(2, [=](Message& m) {
    putWord(m, 32, use);
    putWord(m, 36, free);
    putWord(m, 40, streamUse);
    putWord(m, 44, streamFree);
  });
}

TEST_F(RequestTest, UsageOfAnAreaComesInTheFirstPair) {
  answerUsage(server, 10, 20, 30, 40);
  StreamManager manager(51);
  open(manager);
  CHUNK_USAGE usage{1, 2, 3, 4};
  EXPECT_EQ(manager.getUsage(0, &usage, 0), 0);
  EXPECT_EQ(usage.useAddr, 10u);
  EXPECT_EQ(usage.freeAddr, 20u);
  EXPECT_EQ(manager.getUsage(0, &usage, 1), 0);
  EXPECT_EQ(usage.useAddr, 30u);
  EXPECT_EQ(usage.freeAddr, 40u);
  EXPECT_EQ(manager.getUsage(0, &usage), 0);
  EXPECT_EQ(usage.useAddr, 10u);
  EXPECT_EQ(usage.streamUseAddr, 3u);
  EXPECT_EQ(usage.streamFreeAddr, 4u);
}

TEST_F(RequestTest, UsageOfABadAreaIsMinusTwoAfterTheRequest) {
  StreamManager manager(51);
  open(manager);
  CHUNK_USAGE usage{1, 2, 3, 4};
  EXPECT_EQ(manager.getUsage(5, &usage, 2), -2);
  EXPECT_THAT(server.requests(), ElementsAre(wire({2, 7, kUnanswered, 51, 5, 0, 0})));
  EXPECT_EQ(usage.useAddr, 1u);
  EXPECT_EQ(usage.freeAddr, 2u);
  server.misbehave(Misbehave::Refuse);
  EXPECT_EQ(manager.getUsage(5, &usage, 2), -1);
}

TEST_F(RequestTest, FreeSizeIsThatOfARing) {
  BaseManager base;
  open(base);
  answerUsage(server, 100, 100, 0, 1);
  EXPECT_EQ(base.freeSize(0), 4194304u);
  answerUsage(server, 100, 300, 0, 1);
  EXPECT_EQ(base.freeSize(0), 4194304u - 200u);
  answerUsage(server, 300, 100, 0, 1);
  EXPECT_EQ(base.freeSize(0), 200u);
  server.misbehave(Misbehave::Refuse);
  EXPECT_EQ(base.freeSize(0), 0u);
}

TEST_F(RequestTest, FreeSizeOfAStreamManagerIsTheStreamAreas) {
  StreamManager manager(51);
  open(manager);
  answerUsage(server, 0, 1, 100, 100);
  EXPECT_EQ(manager.freeSize(0), 4194304u);
  answerUsage(server, 0, 1, 100, 300);
  EXPECT_EQ(manager.freeSize(0), 4194304u - 200u);
  answerUsage(server, 0, 1, 300, 100);
  EXPECT_EQ(manager.freeSize(0), 200u);
  server.misbehave(Misbehave::Refuse);
  EXPECT_EQ(manager.freeSize(0), 0u);
}

TEST_F(RequestTest, ChannelAndTypeAreTheAttributes) {
  server.on(11, [](Message& m) {
    putWord(m, 20, 5);
    putWord(m, 24, 6);
  });
  StreamManager manager(51);
  open(manager);
  signed char channel = 0;
  signed char type = 0;
  EXPECT_EQ(manager.getChType(1, &channel, &type), 0);
  EXPECT_EQ(channel, 5);
  EXPECT_EQ(type, 6);
  EXPECT_EQ(manager.setChType(1, -1, 0), 0);
  EXPECT_EQ(server.requests()[1], wire({3, 7, kUnanswered, 51, 1, 0xFFFFFFFF, 0}));
  server.misbehave(Misbehave::Refuse);
  EXPECT_EQ(manager.getChType(1, &channel, &type), -1);
}

TEST_F(RequestTest, ActiveFlagIsTheFirstAttributeAndClearsTheSecond) {
  server.on(11, [](Message& m) {
    putWord(m, 20, 3);
    putWord(m, 24, 99);
  });
  SyslogManager manager(51);
  open(manager);
  EXPECT_STREQ(manager.m_name, "syslog");
  signed char flag = 0;
  EXPECT_EQ(manager.getActiveFlag(0, &flag), 0);
  EXPECT_EQ(flag, 3);
  EXPECT_EQ(manager.setActiveFlag(0, 4), 0);
  EXPECT_THAT(server.requests(), ElementsAre(wire({11, 4, kUnanswered, 51, 0, 0, 0}),
                                             wire({3, 4, kUnanswered, 51, 0, 4, 0})));
  server.misbehave(Misbehave::Refuse);
  EXPECT_EQ(manager.getActiveFlag(0, &flag), -1);
  server.misbehave(Misbehave::Refuse);
  EXPECT_EQ(manager.setActiveFlag(0, 4), -1);
}

TEST_F(RequestTest, EndlessKindsOneAndTwoDifferOnlyInTheKindTheySend) {
  for (signed char kind : {1, 2}) {
    EndlessManager manager(51, kind);
    EXPECT_STREQ(manager.m_name, "endless(DL)");
    open(manager);
    EXPECT_EQ(manager.saveManageData(), 0);
    EXPECT_THAT(server.requests(),
                ElementsAre(wire({6, static_cast<uint32_t>(kind), kUnanswered, 51, 0, 0, 0})));
  }
  EndlessManager syslog(51, 4);
  EXPECT_STREQ(syslog.m_name, "endless(SL)");
}

// ---- failures, for every operation ----

struct Operation {
  const char* word;
  long long failure;
  std::function<long long(StreamManager&)> run;
};
void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.word; }

CHUNK_USAGE g_usage;
signed char g_first;
signed char g_second;

class FailureTest : public RequestTest, public testing::WithParamInterface<Operation> {
 protected:
  FailureTest() : manager(51) {}

  static LogLine line(const char* stage) {
    return {LOG_ERR, std::string("CTARNManagerBase:") + GetParam().word + "() " + stage};
  }
  void expectFailure(const char* stage) {
    log.clear();
    EXPECT_EQ(GetParam().run(manager), GetParam().failure);
    EXPECT_THAT(managerLines(log), ElementsAre(line(stage)));
  }

  StreamManager manager;
};

TEST_P(FailureTest, RefusalIsResultNg) {
  open(manager);
  server.misbehave(Misbehave::Refuse);
  expectFailure("result NG");
}

TEST_P(FailureTest, ARequestThatNobodyAnsweredIsResultNg) {
  open(manager);
  server.misbehave(Misbehave::Untouched);
  expectFailure("result NG");
}

TEST_P(FailureTest, AServerThatClosesIsResultNgAndTheNextRequestReconnects) {
  open(manager);
  server.misbehave(Misbehave::Close);
  expectFailure("result NG");
  log.clear();
  EXPECT_EQ(manager.saveManageData(), 0);
  EXPECT_EQ(server.connections(), 2);
}

TEST_P(FailureTest, FailedReadIsReported) {
  open(manager);
  server.misbehave(Misbehave::CloseUnread);
  expectFailure("readMesg error");
}

TEST_P(FailureTest, NoClientFailsAsAFailedWrite) {
  expectFailure("writeMesg error");
  EXPECT_THAT(server.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Operations, FailureTest,
    testing::Values(
        Operation{"getUsage", -1, [](StreamManager& m) { return m.getUsage(0, &g_usage); }},
        Operation{"getUsage", -1, [](StreamManager& m) { return m.getUsage(0, &g_usage, 1); }},
        Operation{"getUsage", 0,
                  [](StreamManager& m) { return static_cast<long long>(m.freeSize(0)); }},
        Operation{"getChunkAttr", -1,
                  [](StreamManager& m) { return m.getChunkAttr(0, &g_first, &g_second); }},
        Operation{"getChunkAttr", -1,
                  [](StreamManager& m) { return m.getChType(0, &g_first, &g_second); }},
        Operation{"setChType", -1, [](StreamManager& m) { return m.setChunkAttr(0, 1, 2); }},
        Operation{"setChType", -1, [](StreamManager& m) { return m.setChType(0, 1, 2); }},
        Operation{"setUseOffset", -1, [](StreamManager& m) { return m.setUseOffset(0, 1); }},
        Operation{"setUseOffset", -1, [](StreamManager& m) { return m.setUseOffset(0, 1, 1); }},
        Operation{"setFreeOffset", -1, [](StreamManager& m) { return m.setFreeOffset(0, 1); }},
        Operation{"setFreeOffset", -1, [](StreamManager& m) { return m.setFreeOffset(0, 1, 1); }},
        Operation{"saveManageData", -1, [](StreamManager& m) { return m.saveManageData(); }},
        Operation{"freeSizeTotal", -1, [](StreamManager& m) { return m.getFreeSizeTotal(); }},
        Operation{"firstAvailableChunk", -1,
                  [](StreamManager& m) { return m.firstAvailableChunk(1); }},
        Operation{"firstAvailableChunk", -1,
                  [](StreamManager& m) { return m.firstAvailableChunk(1, 1, 1); }},
        Operation{"getChunkAttr", -1, [](StreamManager& m) { return m.deleteData(0, 0, 64); }}));

TEST_F(RequestTest, UsedCountFailsAs65535WithItsOwnSpelling) {
  BaseManager manager;
  EXPECT_EQ(manager.getNumUsedChunk(), 65535);
  EXPECT_THAT(managerLines(log), ElementsAre(LogLine{LOG_ERR,
                                                     "CTANRManageBase::getNumUsedChunk() writeMesg "
                                                     "error\n"}));
  open(manager);
  server.misbehave(Misbehave::Refuse);
  EXPECT_EQ(manager.getNumUsedChunk(), 65535);
  EXPECT_THAT(managerLines(log),
              ElementsAre(LogLine{LOG_ERR, "CTANRManageBase::getNumUsedChunk() result NG\n"}));
  log.clear();
  server.misbehave(Misbehave::CloseUnread);
  EXPECT_EQ(manager.getNumUsedChunk(), 65535);
  EXPECT_THAT(managerLines(log), ElementsAre(LogLine{LOG_ERR,
                                                     "CTANRManageBase::getNumUsedChunk() readMesg "
                                                     "error\n"}));
}

TEST_F(RequestTest, EachStepOfAnOpenFailsUnderTheSameWord) {
  for (int step : {1, 2, 3}) {
    for (auto [how, stage] : {std::pair{Misbehave::Refuse, "result NG"},
                              std::pair{Misbehave::CloseUnread, "readMesg error"}}) {
      StreamManager manager(51);
      log.clear();
      server.misbehave(how, step);
      EXPECT_EQ(manager.openManageData(), -1);
      EXPECT_THAT(
          managerLines(log),
          ElementsAre(LogLine{LOG_ERR, std::string("CTARNManagerBase:openManageData() ") + stage}));
    }
  }
}

TEST_F(RequestTest, AShortAnswerCountsAsAnAnswer) {
  BaseManager manager;
  open(manager);
  server.misbehave(Misbehave::Short);  // result 0 is in it, the data is not
  CHUNK_USAGE usage{1, 2, 3, 4};
  EXPECT_EQ(manager.getUsage(0, &usage), 0);
  EXPECT_EQ(usage.useAddr, 0u);  // as sent
}

// The read is interrupted for good, but the answer arrives all the same: it must not be taken for
// the next request's.
TEST_F(RequestTest, ALateAnswerIsNotTakenForTheNextRequests) {
  server.on(8, [](Message& m) { putWord(m, 20, 8); });
  server.on(7, [](Message& m) { putWord(m, 32, 777); });
  BaseManager manager;
  open(manager);
  {
    IoFaults io;
    io.fail(Call::Read, 1, EINTR, 10);
    EXPECT_EQ(manager.getFreeSizeTotal(), -1);
    EXPECT_THAT(managerLines(log),
                ElementsAre(LogLine{LOG_ERR, "CTARNManagerBase:freeSizeTotal() readMesg error"}));
  }
  EXPECT_EQ(manager.getNumUsedChunk(), 8);
  EXPECT_EQ(server.connections(), 2);
}

TEST_F(RequestTest, ClosingDestroysTheClientAndIsAlwaysZero) {
  BaseManager manager;
  EXPECT_EQ(manager.m_client, nullptr);
  EXPECT_EQ(manager.closeManageData(), 0);
  open(manager);
  EXPECT_NE(manager.m_client, nullptr);
  EXPECT_EQ(manager.closeManageData(), 0);
  EXPECT_EQ(manager.m_client, nullptr);
  EXPECT_EQ(manager.saveManageData(), -1);
}

TEST_F(RequestTest, OpeningAgainDoesNotFreeTheClientButLetsItsConnectionGo) {
  BaseManager manager;
  open(manager);
  const std::unique_ptr<CMesgClient> first(manager.m_client);
  ASSERT_EQ(manager.openManageData(), 0);
  EXPECT_NE(manager.m_client, first.get());
  EXPECT_EQ(server.connections(), 2);
  Message bytes = wire({6, 7, kUnanswered, 51, 0, 0, 0});
  EXPECT_EQ(first->writeMesg(bytes.data(), 1024), 1024);  // still alive
  EXPECT_EQ(first->readMesg(bytes.data(), 1024), 1024);
  EXPECT_EQ(server.connections(), 3);  // and connected anew
}

TEST_F(RequestTest, AServerThatDoesNotAnswerInTimeIsLeftAndItsLateAnswerWithIt) {
  server.on(8, [](Message& m) { putWord(m, 20, 8); });
  server.on(7, [](Message& m) {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    putWord(m, 32, 777);
  });
  BaseManager manager;
  open(manager);
  tarn::RequestPatience::setLimitMs(40);
  EXPECT_EQ(manager.getFreeSizeTotal(), -1);
  tarn::RequestPatience::setLimitMs(tarn::RequestPatience::kDefaultLimitMs);
  EXPECT_EQ(manager.lastResult(), tarn::kResultUnanswered);
  EXPECT_THAT(managerLines(log),
              ElementsAre(LogLine{LOG_ERR, "CTARNManagerBase:freeSizeTotal() readMesg error"}));
  EXPECT_EQ(manager.getNumUsedChunk(), 8);
  EXPECT_EQ(manager.lastResult(), tarn::kResultDone);
  EXPECT_EQ(server.connections(), 2);
  server.misbehave(Misbehave::Refuse);
  EXPECT_EQ(manager.saveManageData(), -1);
  EXPECT_EQ(manager.lastResult(), tarn::kResultRefused);
}

TEST(RequestWithoutServer, EveryRequestFailsAsAFailedWrite) {
  SyslogCapture log;
  StreamManager manager(51);
  EXPECT_EQ(manager.openManageData(), -1);
  EXPECT_NE(manager.m_client, nullptr);
  EXPECT_THAT(managerLines(log),
              ElementsAre(LogLine{LOG_ERR, "CTARNManagerBase:openManageData() writeMesg error"}));
  log.clear();
  EXPECT_EQ(manager.getNumUsedChunk(), 65535);
  EXPECT_THAT(managerLines(log), ElementsAre(LogLine{LOG_ERR,
                                                     "CTANRManageBase::getNumUsedChunk() writeMesg "
                                                     "error\n"}));
  EXPECT_EQ(manager.freeSize(0), 0u);
  EXPECT_EQ(manager.getFreeSizeTotal(), -1);
  EXPECT_EQ(manager.getNumChunk(), 0);
}

}  // namespace
}  // namespace tarn_test
