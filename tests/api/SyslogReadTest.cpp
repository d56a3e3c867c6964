#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "api/CApiTarnSyslogRead.h"
#include "manager/CTARNEndlessManagerNative.h"
#include "recorder/server/ManagementServer.h"
#include "support/CardImage.h"
#include "support/SyslogCapture.h"

namespace {

using tarn_test::CardImage;

// A card whose five syslog chunks hold "chunk N line\n" and have their free address behind it.
class SyslogRead : public testing::Test {
 protected:
  void SetUp() override {
    card_.initManagement();
    setActive(2);
    for (short n = 0; n < 5; ++n) {
      const std::string text = line(n);
      card_.write(card_.chunkStart(tarn::kFileSyslog, n), text.data(), text.size());
    }
  }

  static std::string line(int n) { return "chunk " + std::to_string(n) + " line\n"; }

  void setActive(signed char active) {
    CTARNEndlessManagerNative store(tarn::kFileSyslog);
    ASSERT_EQ(store.openManageData(51), 0);
    for (short n = 0; n < 5; ++n) {
      store.setUsage(n, 0, 0);
      store.setFree(n, line(n).size(), 0);
    }
    store.setChType(0, active, 0);
    ASSERT_EQ(store.saveManageData(), 0);
  }

  // What an open reader yields until its end.
  static std::string readAll(CApiTarnSyslogRead* reader) {
    std::string text;
    char block[7];
    for (long got = 0; (got = reader->read(block, sizeof block)) > 0;)
      text.append(block, static_cast<size_t>(got));
    return text;
  }

  tarn_test::SyslogCapture log_;
  CardImage card_;
};

// Runs `action` and returns what it printed.
template <class Action>
std::string printed(Action action) {
  testing::internal::CaptureStdout();
  action();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST_F(SyslogRead, TypeZeroHasFiveChunksFromZero) {
  CApiTarnSyslogRead reader(51);
  short start = 9, count = 9;
  EXPECT_EQ(reader.getChunkStartCount(0, &start, &count), 0);
  EXPECT_EQ(start, 0);
  EXPECT_EQ(count, 5);
}

TEST_F(SyslogRead, OtherTypesAreInvalid) {
  CApiTarnSyslogRead reader(51);
  short start = 9, count = 9;
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.getChunkStartCount(1, &start, &count), -1); }),
            "getChunkStartCount() invalid syslog type (1)\n");
  EXPECT_EQ(start, 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.open(1, 0), -1); }),
            "getChunkStartCount() invalid syslog type (1)\n");
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.openChunk(255, 0), -1); }),
            "getChunkStartCount() invalid syslog type (255)\n");
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.getActiveChunk(1), -1); }),
            "getChunkStartCount() invalid syslog type (1)\n");
}

TEST_F(SyslogRead, IndexCountsBackwardsFromTheActiveChunkRoundTheRing) {
  CApiTarnSyslogRead reader(51);
  EXPECT_EQ(reader.getActiveChunk(0), 2);
  const int expected[] = {2, 1, 0, 4, 3, 2};  // index 5 passes and is the active chunk again
  for (unsigned char index = 0; index <= 5; ++index) {
    ASSERT_EQ(reader.open(0, index), 0) << int{index};
    EXPECT_EQ(readAll(&reader), line(expected[index])) << int{index};
    EXPECT_EQ(reader.close(), 0);
  }
}

TEST_F(SyslogRead, BeforeChunkZeroComesChunkFour) {
  setActive(0);
  CApiTarnSyslogRead reader(51);
  ASSERT_EQ(reader.open(0, 1), 0);
  EXPECT_EQ(readAll(&reader), line(4));
}

TEST_F(SyslogRead, IndexBeyondTheCountIsInvalid) {
  CApiTarnSyslogRead reader(51);
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.open(0, 6), -1); }),
            "CApiTarnSyslogRead::open() invalid index(6)");
}

TEST_F(SyslogRead, ChunkNumberBeyondTheTypeIsInvalid) {
  CApiTarnSyslogRead reader(51);
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.openChunk(0, 5), -1); }),
            "CApiTarnSyslogRead::openChunk() invalid chunkID(5)");
  ASSERT_EQ(reader.openChunk(0, 4), 0);
  EXPECT_EQ(readAll(&reader), line(4));
}

TEST_F(SyslogRead, OpenOnAnOpenReaderClosesItFirst) {
  CApiTarnSyslogRead reader(51);
  ASSERT_EQ(reader.openChunk(0, 1), 0);
  ASSERT_EQ(reader.openChunk(0, 3), 0);
  EXPECT_EQ(readAll(&reader), line(3));
  ASSERT_EQ(reader.open(0, 0), 0);
  EXPECT_EQ(readAll(&reader), line(2));
  EXPECT_EQ(reader.close(), 0);
  EXPECT_EQ(reader.close(), -1);
  EXPECT_TRUE(log_.atPriority(4).empty());  // no "already opened"
}

TEST_F(SyslogRead, SeeksLikeAFileOfTheReadableSize) {
  CApiTarnSyslogRead reader(51);
  ASSERT_EQ(reader.open(0, 0), 0);
  const int size = static_cast<int>(line(2).size());
  EXPECT_EQ(reader.seek(-5, SEEK_END), size - 5);
  EXPECT_EQ(readAll(&reader), "line\n");
  EXPECT_EQ(reader.seek(0, SEEK_SET), 0);
  EXPECT_EQ(readAll(&reader), line(2));
  EXPECT_EQ(reader.seek(size + 1, SEEK_SET), -1);
}

TEST_F(SyslogRead, ActiveFlagBelowZeroHasNoUsage) {
  for (const signed char active : {-7, -100}) {
    setActive(active);
    CApiTarnSyslogRead reader(51);
    EXPECT_EQ(printed([&] { EXPECT_EQ(reader.open(0, 0), -1); }),
              "CApiTarnSyslogRead::getUsage() manager not available"
              "CApiTarnSyslogRead::open() manager not available");
  }
}

TEST_F(SyslogRead, ActiveChunkBeyondTheFamilyHasNoUsage) {
  setActive(100);
  CApiTarnSyslogRead reader(51);
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.open(0, 0), -1); }),
            "CApiTarnSyslogRead::getUsage() manager not available"
            "CApiTarnSyslogRead::open() manager not available");
}

TEST_F(SyslogRead, WithoutManagementDataEveryCallSaysSo) {
  card_.fill(card_.chunkStart(tarn::kFileSyslogManage, 0), 122, 0x5A);  // a bad checksum
  CApiTarnSyslogRead reader(51);
  CHUNK_USAGE usage{};
  signed char flag = 0;
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.getUsage(0, &usage), -1); }),
            "CApiTarnSyslogRead::getUsage() manager not available");
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.getActiveFlag(0, &flag), -1); }),
            "CApiTarnSyslogRead::getActiveFlag() manager not available");
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.getActiveChunk(0), -1); }),
            "CApiTarnSyslogRead::getActiveFlag() manager not available"
            "CApiTarnSyslogRead::getActiveChunk() manager not available");
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.open(0, 0), -1); }),
            "CApiTarnSyslogRead::getActiveFlag() manager not available"
            "CApiTarnSyslogRead::open() manager not available");
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.openChunk(0, 0), -1); }),
            "CApiTarnSyslogRead::getUsage() manager not available"
            "CApiTarnSyslogRead::openChunk() manager not available");
}

TEST_F(SyslogRead, WithoutServerTheObjectStaysUsableAndFails) {
  CApiTarnSyslogRead reader;
  EXPECT_EQ(printed([&] { EXPECT_EQ(reader.open(0, 0), -1); }),
            "CApiTarnSyslogRead::getActiveFlag() manager not available"
            "CApiTarnSyslogRead::open() manager not available");
  EXPECT_TRUE(log_.has(3, "CTARNManagerBase:openManageData() writeMesg error"));
}

TEST_F(SyslogRead, ReadsThroughTheManagementServer) {
  tarn::ManagementServer server;
  ASSERT_EQ(server.start(), 0);
  std::thread serving([&server] { server.run(); });
  {
    CApiTarnSyslogRead reader;
    EXPECT_EQ(reader.getActiveChunk(0), 2);
    ASSERT_EQ(reader.open(0, 1), 0);
    EXPECT_EQ(readAll(&reader), line(1));
    CHUNK_USAGE usage{};
    EXPECT_EQ(reader.getUsage(3, &usage), 0);
    EXPECT_EQ(usage.freeAddr, line(3).size());
  }
  server.requestStop();
  serving.join();
}

}  // namespace
