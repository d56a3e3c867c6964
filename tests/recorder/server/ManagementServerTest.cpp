// The management server's socket, its start and its end.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <memory>
#include <thread>

#include "manager/CTARNEndlessManager.h"
#include "manager/CTARNStreamManager.h"
#include "manager/RequestFormat.h"
#include "recorder/rows/ServerProbe.h"
#include "recorder/server/ManagementServer.h"
#include "support/CardImage.h"
#include "support/IoFaults.h"
#include "support/RawClient.h"
#include "support/SyslogCapture.h"

namespace tarn_test {
namespace {

using tarn::kServerSocketPath;
using tarn::RequestRecord;

constexpr char kServerRuns[] = "another management server answers on /tmp/unix-sock-tarn-server";

std::string asPacket(const RequestRecord& record) {
  return std::string(reinterpret_cast<const char*>(record.bytes()), tarn::kRequestSize);
}

std::string countRequest() {
  RequestRecord record;
  record.setCommand(tarn::kRequestNumChunk);
  record.setKind(7);
  record.setPartition(51);
  record.setResult(tarn::kResultUnanswered);
  return asPacket(record);
}

// The answer to a packet that is no request.
std::string emptyRefusal() {
  RequestRecord record;
  record.setResult(tarn::kResultRefused);
  return asPacket(record);
}

bool serves() {
  RawClient client(kServerSocketPath);
  return client.connected() && client.send(countRequest()) && client.receive().size() == 1024;
}

class ManagementServerTest : public testing::Test {
 protected:
  ManagementServerTest() { card_.initManagement(); }
  ~ManagementServerTest() override { stop(); }

  void serve() {
    server_ = std::make_unique<tarn::ManagementServer>();
    ASSERT_EQ(server_->start(), 0);
    thread_ = std::thread([this] { result_ = server_->run(); });
  }
  int stop() {
    if (thread_.joinable()) {
      server_->requestStop();
      thread_.join();
    }
    return result_;
  }
  // What a start says that is refused for this reason.
  void expectRefused(const std::string& text) {
    tarn::ManagementServer second;
    log_.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(second.start(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "tarn-server: " + text + "\n");
    EXPECT_TRUE(log_.has(LOG_ERR, text));
    EXPECT_EQ(second.run(), -1);
  }

  SyslogCapture log_;
  CardImage card_;
  std::unique_ptr<tarn::ManagementServer> server_;
  std::thread thread_;
  int result_ = -1;
};

using ManagementServer = ManagementServerTest;

TEST_F(ManagementServer, ManagersAreServed) {
  serve();
  CTARNStreamManager manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  EXPECT_EQ(manager.getNumChunk(), 4);
  EXPECT_EQ(manager.streamChunkSize(), 4 * kMiB);
  EXPECT_EQ(manager.setFreeOffset(3, 640, 1), 0);
  CHUNK_USAGE usage{};
  EXPECT_EQ(manager.getUsage(3, &usage, 1), 0);
  EXPECT_EQ(usage.freeAddr, 640u);
  manager.closeManageData();
}

TEST_F(ManagementServer, SocketIsForUserAndGroupOnly) {
  const mode_t before = umask(0);
  serve();
  umask(before);
  struct stat info;
  ASSERT_EQ(stat(kServerSocketPath, &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 07777u, 0660u);
}

TEST_F(ManagementServer, PacketsOfTheWrongLengthAreRefused) {
  serve();
  RawClient client(kServerSocketPath);
  const std::string request = countRequest();
  for (const size_t length : {1u, 4u, 12u, 28u, 1023u}) {
    ASSERT_TRUE(client.send(request.substr(0, length)));
    EXPECT_EQ(client.receive(), emptyRefusal()) << length;
  }
  for (const size_t excess : {1u, 2000u}) {
    ASSERT_TRUE(client.send(request + std::string(excess, '\0')));
    EXPECT_EQ(client.receive(), emptyRefusal()) << excess;
  }
  ASSERT_TRUE(client.send(request));
  EXPECT_EQ(tarn::getLe32(client.receive().data() + tarn::kRequestResultOff), tarn::kResultDone);
}

TEST_F(ManagementServer, EmptyPacketEndsTheConnectionOfItsSenderOnly) {
  serve();
  RawClient odd(kServerSocketPath);
  ASSERT_EQ(send(odd.fd(), "", 0, 0), 0);
  EXPECT_EQ(odd.receive(), "");
  EXPECT_TRUE(serves());
}

TEST_F(ManagementServer, StopSavesRemovesTheSocketAndDisconnects) {
  serve();
  RawClient idle(kServerSocketPath);
  ASSERT_TRUE(idle.connected());
  CTARNStreamManager manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  ASSERT_EQ(manager.setFreeOffset(1, 0x4321, 1), 0);
  EXPECT_EQ(stop(), 0);
  manager.closeManageData();
  for (const int copy : {0, 1}) {
    EXPECT_EQ(tarn::getLe32(card_.readChunk(tarn::kFileStreamManage, copy, 24 + 12, 4).data()),
              0x4321u);
  }
  EXPECT_EQ(access(kServerSocketPath, F_OK), -1);
  EXPECT_EQ(idle.receive(), "");
  EXPECT_TRUE(log_.has(LOG_INFO, "management server stopped"));
}

TEST_F(ManagementServer, StopIsHeardBeforeRunBegins) {
  tarn::ManagementServer early;
  early.requestStop();
  ASSERT_EQ(early.start(), 0);
  EXPECT_EQ(early.run(), 0);
  EXPECT_EQ(access(kServerSocketPath, F_OK), -1);
  EXPECT_EQ(early.start(), -1);  // serves once
}

TEST_F(ManagementServer, StopWithoutClientsIsHeard) {
  serve();
  EXPECT_EQ(stop(), 0);
}

TEST_F(ManagementServer, DestructionWithoutRunningRemovesTheSocketAndSavesNothing) {
  {
    tarn::ManagementServer server;
    ASSERT_EQ(server.start(), 0);
    EXPECT_TRUE(RawClient(kServerSocketPath).connected());
  }
  EXPECT_EQ(access(kServerSocketPath, F_OK), -1);
  EXPECT_FALSE(log_.has(LOG_INFO, " saveManageData (ST) "));
  serve();
  EXPECT_TRUE(serves());
}

TEST_F(ManagementServer, SecondServerRefusesAndLeavesTheFirstAlone) {
  serve();
  expectRefused(kServerRuns);
  EXPECT_TRUE(serves());
}

TEST_F(ManagementServer, ServerOfAnotherMakeIsLeftAloneToo) {
  const tarn::UniqueFd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressOf(kServerSocketPath);
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 5), 0);
  expectRefused(kServerRuns);
  EXPECT_TRUE(RawClient(kServerSocketPath).connected());
}

TEST_F(ManagementServer, ListenerOfAnotherTypeIsLeftAloneToo) {
  const tarn::UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressOf(kServerSocketPath);
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 5), 0);
  expectRefused(kServerRuns);
  EXPECT_EQ(access(kServerSocketPath, F_OK), 0);
}

TEST_F(ManagementServer, SocketOfADeadServerIsReplaced) {
  {
    const tarn::UniqueFd dead(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    const sockaddr_un address = addressOf(kServerSocketPath);
    ASSERT_EQ(bind(dead.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(dead.get(), 5), 0);
  }
  EXPECT_EQ(access(kServerSocketPath, F_OK), 0);
  serve();
  EXPECT_TRUE(serves());
}

TEST_F(ManagementServer, PathThatCannotBeUsedIsReported) {
  ASSERT_EQ(mkdir(kServerSocketPath, 0700), 0);
  expectRefused("can't listen on /tmp/unix-sock-tarn-server");
  ASSERT_EQ(rmdir(kServerSocketPath), 0);
  serve();
  EXPECT_TRUE(serves());
}

TEST_F(ManagementServer, WithoutACardItDoesNotStart) {
  ASSERT_EQ(rename(kCardPath, "/dev/away"), 0);
  {
    tarn::ManagementServer blind;
    testing::internal::CaptureStderr();
    EXPECT_EQ(blind.start(), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::EndsWith("tarn-server: no management data can be opened: the card is "
                                  "missing, damaged or cannot be read\n"));
    EXPECT_EQ(blind.run(), -1);
    EXPECT_FALSE(RawClient(kServerSocketPath).connected());
  }
  ASSERT_EQ(rename("/dev/away", kCardPath), 0);
  serve();
  EXPECT_TRUE(serves());
}

TEST_F(ManagementServer, OneDamagedStoreIsRefusedAsTheCardsAndTheOthersAreServed) {
  for (int copy : {0, 1}) card_.writeChunk(tarn::kFileJournalManage, copy, 5, {0x5A});
  serve();
  CTARNEndlessManager journal(51, tarn::kFileJournal);
  EXPECT_EQ(journal.openManageData(), -1);
  EXPECT_EQ(journal.lastResult(), tarn::kResultCard);
  journal.closeManageData();
  EXPECT_TRUE(serves());
}

TEST_F(ManagementServer, ALockFileThatCannotBeOpenedIsNoOtherServer) {
  unlink(tarn::kServerLockPath);
  ASSERT_EQ(mkdir(tarn::kServerLockPath, 0700), 0);
  expectRefused(std::string("the lock file /tmp/unix-sock-tarn-server.lock can't be opened: ") +
                strerror(EISDIR));
  rmdir(tarn::kServerLockPath);
}

TEST_F(ManagementServer, RunsOnce) {
  tarn::ManagementServer once;
  ASSERT_EQ(once.start(), 0);
  once.requestStop();
  EXPECT_EQ(once.run(), 0);
  EXPECT_EQ(once.run(), -1);
}

TEST_F(ManagementServer, ItsEndWithoutRunningDisconnectsItsClients) {
  auto server = std::make_unique<tarn::ManagementServer>();
  ASSERT_EQ(server->start(), 0);
  RawClient client(kServerSocketPath);
  ASSERT_TRUE(client.send(countRequest()));
  EXPECT_TRUE(eventually([&] { return !log_.atPriority(LOG_INFO).empty(); }));
  server.reset();
  EXPECT_EQ(client.receive(2000), "<error>");  // the request was not read: a reset
}

// A client whose reads fail stays marked: the server would ask it without an end.
TEST_F(ManagementServer, ClientsThatCannotBeReadAreAskedNowAndThen) {
  serve();
  RawClient client(kServerSocketPath);
  ASSERT_TRUE(client.send(countRequest()));
  ASSERT_EQ(client.receive().size(), 1024u);
  {
    IoFaults refused;
    refused.fail(Call::Read, 1, EIO, IoFaults::kForever);
    ASSERT_TRUE(client.send(countRequest()));
    usleep(100000);
    EXPECT_LT(refused.count(Call::Read), 30u);
  }
  EXPECT_EQ(client.receive().size(), 1024u);
}

TEST_F(ManagementServer, ManyRequestsOfOneClientDoNotKeepOthersWaiting) {
  serve();
  RawClient greedy(kServerSocketPath);
  for (int i = 0; i < 32; ++i) ASSERT_TRUE(greedy.send(countRequest()));
  EXPECT_TRUE(serves());
  for (int i = 0; i < 32; ++i) EXPECT_EQ(greedy.receive().size(), 1024u);
}

}  // namespace
}  // namespace tarn_test
