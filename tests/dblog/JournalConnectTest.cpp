#include <dlfcn.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstdarg>

#include "dblog/JournalFormat.h"
#include "dblog/JournalRig.h"

namespace tarn_test {
namespace {
bool g_nameUnreadable = false;
}
}  // namespace tarn_test

// The library's question for the process's name comes here.
extern "C" __attribute__((visibility("default"))) int prctl(int option, ...) {
  va_list args;
  va_start(args, option);
  unsigned long given[4];
  for (unsigned long& value : given) value = va_arg(args, unsigned long);
  va_end(args);
  if (tarn_test::g_nameUnreadable && option == PR_GET_NAME) {
    errno = EFAULT;
    return -1;
  }
  using Prctl = int (*)(int, unsigned long, unsigned long, unsigned long, unsigned long);
  static const auto real = reinterpret_cast<Prctl>(dlsym(RTLD_NEXT, "prctl"));
  return real(option, given[0], given[1], given[2], given[3]);
}

namespace tarn_test {
namespace {

class JournalConnect : public FakeServedTest {
 protected:
  ~JournalConnect() override { g_nameUnreadable = false; }

  // Calls every operation; each must fail and log `texts` in this order.
  void expectAllFail(const std::vector<std::string>& texts) {
    const DB_EVENT event = eventRow(1);
    const DB_STREAM stream = streamRow(1);
    log.clear();
    EXPECT_FALSE(journalLog->insertEvent(&event));
    EXPECT_FALSE(journalLog->updateEvent(0x02, &event));
    EXPECT_FALSE(journalLog->deleteEvent(1));
    EXPECT_FALSE(journalLog->insertStream(&stream));
    EXPECT_FALSE(journalLog->updateStream(0x02, &stream));
    EXPECT_FALSE(journalLog->deleteStream(1));
    EXPECT_EQ(journalLog->getEventLogBackOffset(), 0u);
    EXPECT_EQ(journalLog->getStreamLogBackOffset(), 0u);
    EXPECT_FALSE(journalLog->clearDbLogFreeAddr());
    std::vector<std::string> found;
    for (const LogLine& line : log.atPriority(LOG_ERR)) {
      if (line.text.rfind("CDbLog::", 0) == 0) found.push_back(line.text);
    }
    EXPECT_EQ(found, texts);
  }

  CDbLog* journalLog = CDbLog::getInstance();
};

TEST_F(JournalConnect, AProcessThatCannotReadItsNameIsRefusedEverything) {
  g_nameUnreadable = true;
  const IoFaults card_calls(kCardPath);
  EXPECT_EQ(journalLog->connect(), 0) << "it counts as connected";
  expectAllFail({"CDbLog::insertEvent() process is not recman",
                 "CDbLog::updateEvent() process is not recman or menu",
                 "CDbLog::deleteEvent() process is not recman or menu",
                 "CDbLog::insertEvent() process is not valid",
                 "CDbLog::updateStream() process is not valid",
                 "CDbLog::deleteStream() process is not recman",
                 "CDbLog::getEventLogBackOffset() process is not recman",
                 "CDbLog::getStreamLogBackOffset() process is not valid",
                 "CDbLog::clearDbLogManageInfo() process is not valid"});
  EXPECT_EQ(journalLog->writeLog(), 0);
  EXPECT_EQ(journalLog->writeLogNoManage(), 0);
  EXPECT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kEvent, 0), -1);
  EXPECT_EQ(journalLog->getJournalChunkSize(), 0ul);
  EXPECT_EQ(journalLog->finish(), 0);
  EXPECT_EQ(card_calls.sequence(), "") << "no chunk may be opened";
  EXPECT_THAT(server.requests(), testing::IsEmpty());
}

TEST_F(JournalConnect, AProcessThatLosesItsNameIsRefusedAfterTheNextConnect) {
  EXPECT_EQ(journalLog->connect(), 0);
  free[0] = 64;
  journalLog->finish();
  g_nameUnreadable = true;
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 0u);
  EXPECT_TRUE(log.has(LOG_ERR, "CDbLog::getEventLogBackOffset() process is not recman"));
}

TEST_F(JournalConnect, WithoutAServerEveryOperationSaysThatItCannotConnect) {
  server.misbehave(FakeServer::Misbehave::Refuse, 1);
  EXPECT_EQ(journalLog->connect(), -1);
  EXPECT_TRUE(log.has(LOG_INFO, "CDbLog :: connect"));
  EXPECT_TRUE(log.has(LOG_ERR, "can't open CTARNEndlessManager"));
  for (int n = 1; n <= 9; ++n) server.misbehave(FakeServer::Misbehave::Refuse, n);
  expectAllFail({"CDbLog::insertEvent connect error.", "CDbLog::updateEvent connect error.",
                 "CDbLog::deleteEvent connect error.", "CDbLog::insertStream connect error.",
                 "CDbLog::updateStream connect error.", "CDbLog::deleteStream connect error.",
                 "CDbLog::getEventLogBackOffset connect error.",
                 "CDbLog::getStreamLogBackOffset connect error.",
                 "CDbLog::clearDbLogFreeAddr connect error."});
  // The next one works: nothing of the failures has stayed.
  EXPECT_EQ(journalLog->connect(), 0);
}

// Nor is the journal left locked, for whoever asks next.
TEST_F(JournalConnect, WithoutMemoryItIsNotConnectedAndTheNextOneWorks) {
  if (!AllocationFault::supported()) GTEST_SKIP() << "the sanitizer owns the allocator";
  int failed = 0;
  for (int result = -1; result != 0; ++failed) {
    const AllocationFault fault(1, failed + 1);
    ASSERT_NO_THROW(result = journalLog->connect()) << failed;
  }
  EXPECT_GT(failed, 6);  // two pairs of chunks among them
}

TEST_F(JournalConnect, AsksForKindTwoOfTheRecordersPartition) {
  EXPECT_EQ(journalLog->connect(), 0);
  EXPECT_EQ(commands(),
            (std::vector<uint32_t>{kCount, kSize, kGetUsage, kGetUsage, kGetUsage, kGetUsage}));
  std::vector<uint32_t> chunks;
  for (const Message& message : server.requests()) {
    EXPECT_EQ(getWord(message, 4), 2u);
    EXPECT_EQ(getWord(message, 12), 51u);
    if (getWord(message, 0) == kGetUsage) chunks.push_back(getWord(message, 16));
  }
  EXPECT_EQ(chunks, (std::vector<uint32_t>{0, 1, 2, 3}));
}

TEST_F(JournalConnect, FailsAndWritesNothingWhenAUsageCannotBeRead) {
  for (int chunk = 0; chunk < 4; ++chunk) {
    log.clear();
    server.forget();
    server.misbehave(FakeServer::Misbehave::Refuse, 3 + chunk);
    const IoFaults card_calls(kCardPath);
    EXPECT_EQ(journalLog->connect(), -1) << chunk;
    EXPECT_TRUE(log.has(LOG_ERR, chunk < 2 ? "can't open chunkfile. (eventDbLog)"
                                           : "can't open chunkfile. (streamDbLog)"))
        << chunk;
    EXPECT_EQ(card_calls.writes().size(), 0u);
    // What it had opened is closed again, and an address that nobody knew is told to nobody.
    EXPECT_EQ(card_calls.count(Call::Open), card_calls.count(Call::Close));
    for (const Message& message : server.requests()) {
      if (getWord(message, 0) == kSetFree) {
        EXPECT_NE(getWord(message, 16), static_cast<uint32_t>(chunk));
      }
    }
  }
  EXPECT_EQ(journalLog->connect(), 0);
}

TEST_F(JournalConnect, FailsWhenAChunkCannotBeOpened) {
  const struct {
    int open;
    const char* text;
  } cases[] = {{1, "can't open chunkfile. (eventDbLog)"},
               {2, "can't open chunkfile. (eventDbLog)"},
               {3, "can't open chunkfile. (streamDbLog)"},
               {4, "can't open chunkfile. (streamDbLog)"}};
  for (const auto& one : cases) {
    log.clear();
    IoFaults faults(kCardPath);
    faults.fail(Call::Open, one.open, EIO);
    EXPECT_EQ(journalLog->connect(), -1) << one.open;
    EXPECT_TRUE(log.has(LOG_ERR, one.text)) << one.open;
    EXPECT_EQ(faults.count(Call::Open), faults.count(Call::Close) + 1) << "all but the failed one";
  }
  EXPECT_EQ(journalLog->connect(), 0);
}

TEST_F(JournalConnect, ANameOfAnyProcessWillDo) {
  prctl(PR_SET_NAME, "somebody", 0, 0, 0);
  const DB_EVENT event = eventRow(1);
  EXPECT_TRUE(journalLog->insertEvent(&event));
  EXPECT_TRUE(journalLog->clearDbLogFreeAddr());
}

}  // namespace
}  // namespace tarn_test
