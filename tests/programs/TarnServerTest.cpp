// The server as a process, with real clients that come, go and die.

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <thread>

#include "base/Crc16.h"
#include "db/CApiDb.h"
#include "manager/CTARNEndlessManager.h"
#include "manager/CTARNStreamManager.h"
#include "manager/RequestFormat.h"
#include "mesg/CMesgClient.h"
#include "programs/ServerProcess.h"
#include "support/CardImage.h"
#include "support/RawClient.h"
#include "support/Shell.h"
#include "support/SyslogCapture.h"

namespace tarn_test {
namespace {

using std::chrono::milliseconds;
using tarn::kServerSocketPath;

constexpr int kChunks = 4;

class TarnServerTest : public testing::Test {
 protected:
  TarnServerTest() { card_.initManagement(); }

  std::unique_ptr<ServerProcess> launch() {
    auto server = std::make_unique<ServerProcess>(std::vector<std::string>{}, true);
    EXPECT_EQ(server->readiness(), "\n");
    return server;
  }
  // A number of a management file on the card.
  uint32_t stored(int copy, uint32_t chunk, uint32_t offset) {
    return tarn::getLe32(
        card_.readChunk(tarn::kFileStreamManage, copy, chunk * 24 + offset, 4).data());
  }
  bool crcHolds(int copy) {
    const std::vector<uint8_t> file =
        card_.readChunk(tarn::kFileStreamManage, copy, 0, kChunks * 24 + 2);
    return tarn::crc16(file.data(), kChunks * 24) == tarn::getLe16(file.data() + kChunks * 24);
  }

  SyslogCapture log_;
  CardImage card_;
};

using TarnServer = TarnServerTest;

size_t openFiles(pid_t pid) {
  DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  if (dir == nullptr) return 0;
  size_t count = 0;
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

bool answers() {
  CTARNStreamManager manager(51);
  const bool good = manager.openManageData() == 0 && manager.getNumChunk() == kChunks;
  manager.closeManageData();
  return good;
}

TEST_F(TarnServer, ALauncherWhosePipeIsFullDoesNotKeepTheClientsWaiting) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  fillPipe(ends[0]);
  const tarn::UniqueFd reading(ends[0]);
  const tarn::UniqueFd writing(ends[1]);
  ServerProcess server({"--ready-fd", std::to_string(writing.get())});
  ASSERT_TRUE(eventually([] { return RawClient(kServerSocketPath).connected(); }));
  EXPECT_TRUE(answers());
  EXPECT_EQ(server.end(SIGTERM), 0);
}

TEST_F(TarnServer, HelpAndVersionGoToStandardOutput) {
  ServerProcess help({"--help"});
  const std::string text = help.out();
  EXPECT_EQ(help.wait(), 0);
  EXPECT_EQ(help.err(), "");
  EXPECT_THAT(text, testing::StartsWith("Usage: tarn-server [--ready-fd N]\n"));
  for (const char* word : {"--help", "--version", "--ready-fd", "Exit status"}) {
    EXPECT_THAT(text, testing::HasSubstr(word));
  }
  ServerProcess version({"--version"});
  EXPECT_THAT(version.out(), testing::MatchesRegex("tarn-server [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_EQ(version.wait(), 0);
}

// A number that no file has here, nor in a program that is started: whoever runs the tests may have
// left any of the small ones open.
std::string closedDescriptor() {
  constexpr int kAboveThem = 500;
  const int free = fcntl(STDIN_FILENO, F_DUPFD, kAboveThem);
  EXPECT_GE(free, kAboveThem);
  close(free);
  return std::to_string(free);
}

TEST_F(TarnServer, WrongUsageIsToldApart) {
  const std::vector<std::vector<std::string>> wrong = {
      {"--unknown"},        {"extra"},
      {"--ready-fd"},       {"--ready-fd", "x"},
      {"--ready-fd", "-1"}, {"--ready-fd", closedDescriptor()},
      {"--ready-fd=7x"},    {"--ready-fd", "99999999999999999999"}};
  for (const auto& args : wrong) {
    ServerProcess process(args);
    EXPECT_THAT(process.err(), testing::StartsWith("tarn-server: ")) << args.back();
    EXPECT_EQ(process.wait(), 2) << args.back();
  }
  EXPECT_EQ(access(kServerSocketPath, F_OK), -1);
}

TEST_F(TarnServer, ServesWhenItSaysReady) {
  const auto server = launch();
  EXPECT_TRUE(RawClient(kServerSocketPath).connected());
  EXPECT_TRUE(answers());
  struct stat info;
  ASSERT_EQ(stat(kServerSocketPath, &info), 0);
  EXPECT_EQ(info.st_mode & 07777u, 0660u);
}

TEST_F(TarnServer, EachStopSignalSavesAndRemovesTheSocket) {
  uint32_t offset = 0x100;
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    const auto server = launch();
    CTARNStreamManager manager(51);
    ASSERT_EQ(manager.openManageData(), 0);
    offset += 0x40;
    ASSERT_EQ(manager.setFreeOffset(2, offset, 1), 0);
    EXPECT_NE(stored(0, 2, 12), offset);
    EXPECT_EQ(server->end(signal), 0);
    manager.closeManageData();
    for (const int copy : {0, 1}) {
      EXPECT_EQ(stored(copy, 2, 12), offset);
      EXPECT_TRUE(crcHolds(copy));
    }
    EXPECT_EQ(access(kServerSocketPath, F_OK), -1);
    EXPECT_EQ(server->err(), "");
  }
}

TEST_F(TarnServer, StopThatCannotSaveIsToldByTheExitStatus) {
  ServerProcess server({}, true, true);
  EXPECT_EQ(server.readiness(), "\n");
  EXPECT_EQ(server.end(SIGTERM), 3);
  const std::string text = server.err();
  for (const char* name : {"stream", "journal", "syslog"}) {
    EXPECT_THAT(text, testing::HasSubstr(std::string("tarn-server: management data of the ") +
                                         name + " chunks can't be saved\n"));
  }
  EXPECT_EQ(access(kServerSocketPath, F_OK), -1);
}

TEST_F(TarnServer, SecondServerRefusesAndTheFirstGoesOn) {
  const auto first = launch();
  ServerProcess second({}, true);
  EXPECT_EQ(second.readiness(), "");  // closed without a word
  EXPECT_EQ(second.wait(), 1);
  EXPECT_EQ(second.err(),
            "tarn-server: another management server answers on /tmp/unix-sock-tarn-server\n");
  EXPECT_TRUE(answers());
}

TEST_F(TarnServer, OfServersThatStartAtOnceOneServes) {
  std::vector<std::unique_ptr<ServerProcess>> servers;
  for (int i = 0; i < 6; ++i) {
    servers.push_back(std::make_unique<ServerProcess>(std::vector<std::string>{}, true));
  }
  int ready = 0;
  for (const auto& server : servers) ready += server->readiness() == "\n";
  EXPECT_EQ(ready, 1);
  EXPECT_TRUE(answers());
}

TEST_F(TarnServer, WithoutACardItIsNotReadyAndSaysSo) {
  ASSERT_EQ(rename(kCardPath, "/dev/away"), 0);
  ServerProcess server({}, true);
  EXPECT_EQ(server.readiness(), "");
  EXPECT_EQ(server.wait(), 1);
  EXPECT_THAT(server.err(), testing::EndsWith("tarn-server: no management data can be opened: the "
                                              "card is missing, damaged or cannot be read\n"));
  EXPECT_EQ(access(kServerSocketPath, F_OK), -1);
  ASSERT_EQ(rename("/dev/away", kCardPath), 0);
}

TEST_F(TarnServer, DamagedManagementDataAreToldAsTheCardsAndTheOthersAreServed) {
  for (int copy : {0, 1}) card_.writeChunk(tarn::kFileJournalManage, copy, 5, {0x5A});
  const auto server = launch();
  CTARNEndlessManager journal(51, tarn::kFileJournal);
  EXPECT_EQ(journal.openManageData(), -1);
  EXPECT_EQ(journal.lastResult(), tarn::kResultCard);
  journal.closeManageData();
  EXPECT_TRUE(answers());
  EXPECT_EQ(server->end(SIGTERM), 0);
}

// What any program may do to the server by hanging: hold the lock of the database, or not read.
class HungServer : public TarnServerTest {
 protected:
  HungServer() { EXPECT_EQ(shell(TARN_BIN_DIR "/dbsetup init").exitCode, 0); }

  // A request for a chunk, for which the server asks the database; its answer is not waited for.
  static std::string chunkRequest() {
    tarn::RequestRecord record;
    record.setCommand(tarn::kRequestFirstAvailable);
    record.setKind(7);
    record.setPartition(51);
    record.setArg0(1000);
    return std::string(reinterpret_cast<const char*>(record.bytes()), tarn::kRequestSize);
  }
  // Exit status of a server that has two seconds for its end; -1 when they were not enough.
  static int endsInTime(ServerProcess& server) {
    const auto begin = std::chrono::steady_clock::now();
    const int status = server.end(SIGTERM);
    return std::chrono::steady_clock::now() - begin < std::chrono::seconds(2) ? status : -1;
  }
};

TEST_F(HungServer, ALockedDatabaseKeepsNobodyElseWaitingAndNoSignal) {
  const auto server = launch();
  CApiDb holder;
  ASSERT_EQ(holder.lockSem(), 0u);
  RawClient first(kServerSocketPath), second(kServerSocketPath);
  ASSERT_TRUE(first.send(chunkRequest()));
  EXPECT_TRUE(answers());
  const std::string answer = first.receive(2000);
  ASSERT_EQ(answer.size(), 1024u);
  EXPECT_EQ(tarn::getLe32(answer.data() + tarn::kRequestResultOff), tarn::kResultDatabase);
  ASSERT_TRUE(second.send(chunkRequest()));
  EXPECT_EQ(endsInTime(*server), 0);
  holder.unlockSem();
}

TEST_F(HungServer, StandardStreamsThatNobodyReadsKeepNobodyWaiting) {
  const auto server = launch();
  fillPipe(server->outFd());
  fillPipe(server->errFd());
  CTARNStreamManager manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  // Each prints a notice: more of them than standard output collects.
  for (int i = 0; i < 120; ++i) ASSERT_EQ(manager.firstAvailableChunk(1000, 0, 0), 1);
  manager.closeManageData();
  EXPECT_EQ(endsInTime(*server), 0);
}

TEST_F(HungServer, FaultsAtItsEndDoNotWaitForAReaderEither) {
  ServerProcess server({}, true, true);
  EXPECT_EQ(server.readiness(), "\n");
  fillPipe(server.errFd());
  EXPECT_EQ(endsInTime(server), 3);
}

TEST_F(TarnServer, FloodOfClientsLeavesRoomForTheCardAndForOthersWhenItIsOver) {
  const rlimit few{96, 96};  // also the hard limit: it cannot be raised
  ServerProcess server({}, true);
  ASSERT_EQ(prlimit(server.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
  EXPECT_EQ(server.readiness(), "\n");
  CTARNStreamManager manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  std::vector<std::unique_ptr<RawClient>> flood;
  for (int i = 0; i < 120; ++i) flood.push_back(std::make_unique<RawClient>(kServerSocketPath));
  EXPECT_EQ(flood.back()->receive(2000), "") << "closed at once";
  EXPECT_EQ(shell(TARN_BIN_DIR "/dbsetup init").exitCode, 0);
  EXPECT_EQ(manager.firstAvailableChunk(1000, 0, 0), 1);
  EXPECT_EQ(manager.saveManageData(), 0);
  flood.clear();
  EXPECT_TRUE(eventually([] { return answers(); }));
  manager.closeManageData();
  EXPECT_EQ(server.end(SIGTERM), 0);
}

TEST_F(TarnServer, ItRaisesItsLimitOfOpenFilesAsFarAsItMayAndNeeds) {
  const auto server = launch();
  rlimit limit;
  ASSERT_EQ(prlimit(server->pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
  EXPECT_GE(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, FD_SETSIZE + 256));
}

// Opening again leaves the client before to whoever holds it.
class OpenedAgain : public CTARNStreamManager {
 public:
  OpenedAgain() : CTARNStreamManager(51) {}
  int open() {
    before_.emplace_back(m_client);
    return openManageData();
  }

 private:
  std::vector<std::unique_ptr<CMesgClient>> before_;
};

TEST_F(TarnServer, OpeningWithoutClosingLeaksNoConnection) {
  const auto server = launch();
  OpenedAgain manager;
  ASSERT_EQ(manager.open(), 0);
  const size_t filesBefore = openFiles(server->pid());
  for (int i = 0; i < 40; ++i) ASSERT_EQ(manager.open(), 0);
  EXPECT_TRUE(eventually([&] { return openFiles(server->pid()) <= filesBefore + 1; }));
  manager.closeManageData();
}

TEST_F(TarnServer, KilledServerLeavesWhatWasSavedAndItsSocketIsReplaced) {
  auto server = launch();
  CTARNStreamManager manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  ASSERT_EQ(manager.setFreeOffset(1, 0x777, 1), 0);
  ASSERT_EQ(manager.saveManageData(), 0);
  ASSERT_EQ(manager.setFreeOffset(1, 0x888, 1), 0);
  EXPECT_EQ(server->end(SIGKILL), -SIGKILL);
  EXPECT_EQ(access(kServerSocketPath, F_OK), 0);
  server = launch();
  CHUNK_USAGE usage{};
  EXPECT_TRUE(eventually([&] { return manager.getUsage(1, &usage, 1) == 0; }));
  EXPECT_EQ(usage.freeAddr, 0x777u);
  manager.closeManageData();
}

TEST_F(TarnServer, KilledAndRestartedUnderLoadNothingHangsAndNothingSavedIsLost) {
  struct Progress {
    std::atomic<uint32_t> sent{0};   // newest value handed to the server
    std::atomic<uint32_t> saved{0};  // newest value that a save acknowledged
  };
  std::array<Progress, kChunks> progress;
  std::atomic<bool> busy{true};
  auto server = launch();
  std::vector<std::thread> clients;
  for (short chunk = 0; chunk < kChunks; ++chunk) {
    clients.emplace_back([&busy, chunk, &mine = progress[static_cast<size_t>(chunk)]] {
      CTARNStreamManager manager(51);
      manager.openManageData();
      for (uint32_t value = 1; busy; ++value) {
        mine.sent = value;
        if (manager.setFreeOffset(chunk, value, 1) == 0 && manager.saveManageData() == 0) {
          // After a restart in between, the save is of older data: ask what it saved.
          CHUNK_USAGE usage{};
          if (manager.getUsage(chunk, &usage, 1) == 0 && usage.freeAddr == value)
            mine.saved = value;
        }
      }
      manager.closeManageData();
    });
  }
  for (int kill = 0; kill < 3; ++kill) {
    std::array<uint32_t, kChunks> before;
    for (size_t i = 0; i < kChunks; ++i) before[i] = progress[i].saved;
    // Every client must get on again, after the first start and after each kill.
    for (size_t i = 0; i < kChunks; ++i) {
      EXPECT_TRUE(eventually([&] { return progress[i].saved > before[i]; })) << i;
    }
    EXPECT_EQ(server->end(SIGKILL), -SIGKILL);
    for (const int copy : {0, 1}) EXPECT_TRUE(crcHolds(copy));
    for (uint32_t i = 0; i < kChunks; ++i) {
      EXPECT_GE(stored(0, i, 12), progress[i].saved);
      EXPECT_LE(stored(0, i, 12), progress[i].sent);
    }
    server = launch();
  }
  busy = false;
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(server->end(SIGTERM), 0);
}

TEST_F(TarnServer, ClientsKilledAtAnyMomentDisturbNobody) {
  const auto server = launch();
  CTARNStreamManager manager(51);
  ASSERT_EQ(manager.openManageData(), 0);
  const size_t filesBefore = openFiles(server->pid());
  ASSERT_GT(filesBefore, 0u);
  std::mt19937 random(7);
  for (int round = 0; round < 40; ++round) {
    const pid_t victim = fork();
    if (victim == 0) {
      for (;;) {  // requests without end, answers read or not
        RawClient client(kServerSocketPath);
        tarn::RequestRecord record;
        record.setCommand(tarn::kRequestGetUsage);
        record.setKind(7);
        record.setPartition(51);
        const std::string packet(reinterpret_cast<const char*>(record.bytes()), 1024);
        for (int i = 0; i < 50 && client.send(packet); ++i) {
          if (i % 3 != 0) client.receive(10);
        }
      }
    }
    ASSERT_GT(victim, 0);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    CHUNK_USAGE usage{};
    EXPECT_EQ(manager.getUsage(0, &usage, 1), 0);
    kill(victim, SIGKILL);
    waitpid(victim, nullptr, 0);
    EXPECT_EQ(manager.setFreeOffset(0, static_cast<unsigned long>(round), 1), 0);
  }
  EXPECT_TRUE(eventually([&] { return openFiles(server->pid()) == filesBefore; }));
  manager.closeManageData();
  EXPECT_EQ(server->end(SIGTERM), 0);
}

TEST_F(TarnServer, SixtyFourClientsAtOnceGetEachTheirOwnAnswers) {
  const auto server = launch();
  constexpr int kClients = 64;
  std::atomic<int> right{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&right, i] {
      CTARNEndlessManager manager(51, i % 2 == 0 ? 2 : 4);
      int good = manager.openManageData() == 0;
      good += manager.getNumChunk() == (i % 2 == 0 ? 4 : 5);
      const auto chunk = static_cast<short>(i % 4);
      for (int round = 0; round < 50; ++round) {
        CHUNK_USAGE usage{};
        good += manager.setUseOffset(chunk, static_cast<unsigned long>(64 * chunk)) == 0 &&
                manager.getUsage(chunk, &usage) == 0 && usage.useAddr == 64u * uint32_t(chunk);
      }
      manager.closeManageData();
      right += good;
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(right, kClients * 52);
  EXPECT_EQ(server->end(SIGTERM), 0);
}

TEST_F(TarnServer, MalformedPacketsAreRefusedAndDoNoHarm) {
  const auto server = launch();
  RawClient client(kServerSocketPath);
  std::mt19937 random(11);
  for (int round = 0; round < 200; ++round) {
    std::string packet(1 + random() % 1500, '\0');
    for (char& byte : packet) byte = static_cast<char>(random());
    ASSERT_TRUE(client.send(packet));
    const std::string answer = client.receive();
    ASSERT_EQ(answer.size(), 1024u);
    EXPECT_NE(tarn::getLe32(answer.data() + tarn::kRequestResultOff), tarn::kResultDone);
  }
  EXPECT_TRUE(answers());
}

TEST_F(TarnServer, StopIsHeardUnderLoad) {
  const auto server = launch();
  std::atomic<bool> busy{true};
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([&busy] {
      RawClient client(kServerSocketPath);
      while (busy && client.send(std::string(1024, '\0')) && !client.receive().empty()) {
      }
    });
  }
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(server->end(SIGTERM), 0);
  busy = false;
  for (std::thread& client : clients) client.join();
}

}  // namespace
}  // namespace tarn_test
