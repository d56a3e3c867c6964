#include <thread>

#include "manager/CTARNEndlessManager.h"
#include "manager/CTARNStreamManager.h"
#include "manager/CTARNSyslogManager.h"
#include "manager/StoreTest.h"
#include "recorder/server/ManagementServer.h"

namespace tarn_test {
namespace {

constexpr uint32_t kStreamSize = 128 * kKiB;
constexpr uint32_t kPictureSize = 64 * kKiB;

// A manager that closes itself.
template <typename Manager>
class Closing : public Manager {
 public:
  using Manager::Manager;
  ~Closing() override { this->closeManageData(); }
};

// The managers against the real server on a real card.
class ServerTest : public testing::Test {
 protected:
  ServerTest() : card(smallCard(4)) {
    card.initManagement();
    start();
  }
  ~ServerTest() override { stop(); }

  void start() {
    server = std::make_unique<tarn::ManagementServer>();
    EXPECT_EQ(server->start(), 0);
    thread = std::thread([this] { EXPECT_EQ(server->run(), 0); });
  }
  void stop() {
    if (!thread.joinable()) return;
    server->requestStop();
    thread.join();
    server.reset();
  }

  CardImage card;
  SyslogCapture log;
  std::unique_ptr<tarn::ManagementServer> server;
  std::thread thread;
};

TEST_F(ServerTest, StreamManagerSeesTheCard) {
  Closing<CTARNStreamManager> manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  EXPECT_EQ(manager.getNumChunk(), 4);
  EXPECT_EQ(manager.streamChunkSize(), kStreamSize);
  EXPECT_EQ(manager.pictureChunkSize(), kPictureSize);
  EXPECT_EQ(manager.getNumUsedChunk(), 0);
  EXPECT_EQ(manager.getFreeSizeTotal(), 4ll * kStreamSize);
  EXPECT_EQ(manager.freeSize(0), kStreamSize);
}

TEST_F(ServerTest, ChangesAreSeenByOthersAndReachTheCardWhenSaved) {
  Closing<CTARNStreamManager> manager(51);
  Closing<CTARNStreamManager> other(51);
  ASSERT_EQ(manager.openManageData(), 0);
  ASSERT_EQ(other.openManageData(), 0);
  EXPECT_EQ(manager.setChType(2, 3, 4), 0);
  EXPECT_EQ(manager.setFreeOffset(2, 0x100, 0), 0);
  EXPECT_EQ(manager.setUseOffset(2, 0x40, 0), 0);
  EXPECT_EQ(manager.setFreeOffset(2, 0x2000, 1), 0);
  EXPECT_EQ(manager.setUseOffset(2, 0x1000, 1), 0);
  CHUNK_USAGE usage{};
  EXPECT_EQ(other.getUsage(2, &usage, 1), 0);
  EXPECT_EQ(usage.useAddr, 0x1000u);
  EXPECT_EQ(usage.freeAddr, 0x2000u);
  EXPECT_EQ(other.getUsage(2, &usage, 0), 0);
  EXPECT_EQ(usage.useAddr, 0x40u);
  EXPECT_EQ(usage.freeAddr, 0x100u);
  signed char channel = 0;
  signed char type = 0;
  EXPECT_EQ(other.getChType(2, &channel, &type), 0);
  EXPECT_EQ(channel, 3);
  EXPECT_EQ(type, 4);
  EXPECT_EQ(card.readChunk(tarn::kFileStreamManage, 0, 48, 24), recordBytes(-1, 0, 0, 0, 0, 0));
  EXPECT_EQ(manager.saveManageData(), 0);
  const auto expected = recordBytes(3, 4, 0x1000, 0x2000, 0x40, 0x100);
  EXPECT_EQ(card.readChunk(tarn::kFileStreamManage, 0, 48, 24), expected);
  EXPECT_EQ(card.readChunk(tarn::kFileStreamManage, 1, 48, 24), expected);
}

TEST_F(ServerTest, ChunksOutOfRangeAreRefused) {
  Closing<CTARNStreamManager> manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  CHUNK_USAGE usage{};
  signed char first = 0;
  signed char second = 0;
  for (short chunk : {short{4}, short{-1}, short{32767}}) {
    EXPECT_EQ(manager.getUsage(chunk, &usage, 1), -1);
    EXPECT_EQ(manager.setUseOffset(chunk, 0, 1), -1);
    EXPECT_EQ(manager.setFreeOffset(chunk, 0, 1), -1);
    EXPECT_EQ(manager.setChType(chunk, 1, 1), -1);
    EXPECT_EQ(manager.getChType(chunk, &first, &second), -1);
  }
  EXPECT_EQ(manager.getNumUsedChunk(), 0);
}

TEST_F(ServerTest, EndlessManagersShareTheStoreOfTheirSuffix) {
  Closing<CTARNEndlessManager> one(51, 1);
  Closing<CTARNEndlessManager> two(51, 2);
  Closing<CTARNSyslogManager> syslog(51);
  ASSERT_EQ(one.openManageData(), 0);
  ASSERT_EQ(two.openManageData(), 0);
  ASSERT_EQ(syslog.openManageData(), 0);
  EXPECT_EQ(one.getNumChunk(), 4);
  EXPECT_EQ(syslog.getNumChunk(), 5);
  EXPECT_EQ(one.setFreeOffset(3, 640), 0);
  EXPECT_EQ(syslog.setFreeOffset(3, 77), 0);
  CHUNK_USAGE usage{};
  EXPECT_EQ(two.getUsage(3, &usage), 0);
  EXPECT_EQ(usage.freeAddr, 640u);
}

TEST_F(ServerTest, ActiveFlagClearsTheRecordType) {
  Closing<CTARNSyslogManager> manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  ASSERT_EQ(manager.setChunkAttr(0, 1, 9), 0);
  signed char flag = -1;
  EXPECT_EQ(manager.getActiveFlag(0, &flag), 0);
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(manager.setActiveFlag(0, 4), 0);
  signed char type = -1;
  EXPECT_EQ(manager.getChunkAttr(0, &flag, &type), 0);
  EXPECT_EQ(flag, 4);
  EXPECT_EQ(type, 0);
}

TEST_F(ServerTest, ChunkIsChosenByTheServer) {
  Closing<CTARNStreamManager> manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  EXPECT_EQ(manager.firstAvailableChunk(1000, 2, 0), 1);  // the first after chunk 0
}

TEST_F(ServerTest, DeletingTheLastRecordingEmptiesBothAreas) {
  Closing<CTARNStreamManager> manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  std::vector<uint8_t> entry(64, 0);
  entry[13] = 0x20;      // stream header: 0x2000 bytes of stream data
  entry[32 + 9] = 0x10;  // picture header: they begin at 0x1000
  card.writeChunk(tarn::kFilePicture, 1, 0x40, entry);
  ASSERT_EQ(manager.setUseOffset(1, 0x40, 0), 0);
  ASSERT_EQ(manager.setFreeOffset(1, 0x80, 0), 0);
  ASSERT_EQ(manager.setUseOffset(1, 0x1000, 1), 0);
  ASSERT_EQ(manager.setFreeOffset(1, 0x3000, 1), 0);
  EXPECT_EQ(manager.deleteData(1, 0x40, 64), 0x2000);
  CHUNK_USAGE usage{1, 1, 1, 1};
  for (unsigned char area : {0, 1}) {
    ASSERT_EQ(manager.getUsage(1, &usage, area), 0);
    EXPECT_EQ(usage.useAddr, 0u);
    EXPECT_EQ(usage.freeAddr, 0u);
  }
  EXPECT_TRUE(log.has(LOG_INFO, "tarn::delete() chunk:1:0, A:64,B:128,U:64->0,F:128->0"));
  EXPECT_TRUE(log.has(LOG_INFO, "tarn::delete() chunk:1:1, A:4096,B:12288,U:4096->0,F:12288->0"));
}

TEST_F(ServerTest, RequestsWorkAgainAfterTheServerWasRestarted) {
  Closing<CTARNStreamManager> manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  ASSERT_EQ(manager.setChType(1, 2, 0), 0);
  stop();  // saves
  EXPECT_EQ(manager.getNumUsedChunk(), 65535);
  start();
  EXPECT_EQ(manager.getNumUsedChunk(), 1);
}

}  // namespace
}  // namespace tarn_test
