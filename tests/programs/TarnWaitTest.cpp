// Programs of ours while the management server hangs, is away, or has no card.

#include <chrono>
#include <fstream>
#include <memory>
#include <thread>

#include "fat/ChunkFiles.h"
#include "manager/CTARNSyslogManager.h"
#include "programs/ServerProcess.h"
#include "support/CardImage.h"
#include "support/RawClient.h"
#include "support/Shell.h"
#include "support/SyslogCapture.h"

namespace tarn_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A program with standard input from a pipe that says nothing. Killed when the object goes.
class ToolProcess {
 public:
  explicit ToolProcess(std::vector<std::string> args) {
    int inPipe[2], errPipe[2];
    EXPECT_EQ(pipe2(inPipe, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(errPipe, O_CLOEXEC), 0);
    std::vector<char*> argv = {const_cast<char*>("tarn")};
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(inPipe[0], STDIN_FILENO);
      dup2(errPipe[1], STDERR_FILENO);
      execv(TARN_BIN_DIR "/tarn", argv.data());
      _exit(127);
    }
    close(inPipe[0]);
    close(errPipe[1]);
    in_.reset(inPipe[1]);
    err_.reset(errPipe[0]);
  }
  ~ToolProcess() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  void feed(const std::string& text) {
    EXPECT_EQ(write(in_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void endInput() { in_.reset(); }
  void signal(int number) const { kill(pid_, number); }
  int wait() {
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }
  std::string err() { return readAll(err_.get()); }
  // True as soon as it has caught SIGTERM: what comes after is in its own hands.
  bool catchesSignals() const { return inSet("SigCgt", SIGTERM); }
  // Gives it a signal, and returns when its handler has begun.
  void signalHandled(int number) const {
    signal(number);
    EXPECT_TRUE(eventually([&] { return !inSet("SigPnd", number) && !inSet("ShdPnd", number); }));
  }

 private:
  bool inSet(const std::string& set, int number) const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind(set + ":", 0) != 0) continue;
      return (strtoull(line.c_str() + set.size() + 1, nullptr, 16) >> (number - 1) & 1) != 0;
    }
    return false;
  }

  pid_t pid_ = -1;
  tarn::UniqueFd in_, err_;
};

class TarnWait : public testing::Test {
 protected:
  TarnWait() {
    card_.initManagement();
    EXPECT_EQ(shell(TARN_BIN_DIR "/dbsetup init").exitCode, 0);
  }
  void SetUp() override {
    if (access(TARN_BIN_DIR "/tarn", X_OK) != 0) GTEST_SKIP() << "without the tool";
  }
  std::unique_ptr<ServerProcess> launch() {
    auto server = std::make_unique<ServerProcess>(std::vector<std::string>{}, true);
    EXPECT_EQ(server->readiness(), "\n");
    return server;
  }
  // All of them get SIGTERM and have two seconds.
  static void expectEndInTime(const std::vector<ToolProcess*>& tools) {
    for (const ToolProcess* tool : tools) {
      EXPECT_TRUE(eventually([&] { return tool->catchesSignals(); }));
    }
    const auto begin = steady_clock::now();
    for (const ToolProcess* tool : tools) tool->signal(SIGTERM);
    for (ToolProcess* tool : tools) {
      EXPECT_EQ(tool->wait(), 1);
      EXPECT_LT(steady_clock::now() - begin, milliseconds(2000));
      EXPECT_THAT(tool->err(), testing::HasSubstr("the management server does not answer"));
    }
  }

  SyslogCapture log_;
  CardImage card_;
};

TEST_F(TarnWait, ProgramsThatWaitForAStoppedServerEndWithinTwoSecondsOfOneSignal) {
  const auto server = launch();
  kill(server->pid(), SIGSTOP);
  ToolProcess log({"log", "--write"});
  ToolProcess show({"log"});
  expectEndInTime({&log, &show});
}

TEST_F(TarnWait, ProgramsThatWaitForAServerThatIsAwayEndWithinTwoSecondsOfOneSignal) {
  ToolProcess log({"log", "--write"});
  expectEndInTime({&log});
}

TEST_F(TarnWait, TwoInterruptsAtOnceAreOneRequestToStop) {
  const auto server = launch();
  kill(server->pid(), SIGSTOP);
  for (int tries = 0; tries < 10; ++tries) {
    ToolProcess log({"log", "--write"});
    ASSERT_TRUE(eventually([&] { return log.catchesSignals(); }));
    const auto begin = steady_clock::now();
    log.signalHandled(SIGINT);
    log.signalHandled(SIGINT);
    const bool atOnce = steady_clock::now() - begin < milliseconds(400);
    const int code = log.wait();
    if (!atOnce) continue;  // the machine was busy with something else
    EXPECT_EQ(code, 1);
    EXPECT_THAT(log.err(), testing::HasSubstr("the management server does not answer"));
    return;
  }
  FAIL() << "no two signals within 400 ms";
}

TEST_F(TarnWait, ALaterInterruptEndsTheProgramWhereItStands) {
  const auto server = launch();
  kill(server->pid(), SIGSTOP);
  ToolProcess log({"log", "--write"});
  ASSERT_TRUE(eventually([&] { return log.catchesSignals(); }));
  log.signalHandled(SIGINT);
  log.signal(SIGSTOP);
  std::this_thread::sleep_for(milliseconds(600));
  log.signal(SIGINT);
  log.signal(SIGCONT);
  EXPECT_EQ(log.wait(), 128 + SIGINT);
}

TEST_F(TarnWait, TheLogIsWrittenWhenItsServerStopsWhileItWaitsForInput) {
  const auto server = launch();
  ToolProcess log({"log", "--write"});
  log.feed("one\n");
  EXPECT_TRUE(eventually([&] {
    const std::vector<uint8_t> bytes = card_.readChunk(tarn::kFileSyslog, 0, 20, 3);
    return std::string(bytes.begin(), bytes.end()) == "one";
  }));
  // The server knows of it: what stops now is not in the middle of a request.
  CTARNSyslogManager manager(tarn::kRecorderPartition);
  CHUNK_USAGE usage = {};
  ASSERT_EQ(manager.openManageData(), 0);
  EXPECT_TRUE(eventually([&] { return manager.getUsage(0, &usage) == 0 && usage.freeAddr == 24; }));
  manager.closeManageData();
  kill(server->pid(), SIGSTOP);
  log.feed("two\n");
  EXPECT_TRUE(eventually([&] {
    const std::vector<uint8_t> bytes = card_.readChunk(tarn::kFileSyslog, 0, 44, 3);
    return std::string(bytes.begin(), bytes.end()) == "two";
  })) << "the card does not wait for the server";
  expectEndInTime({&log});
}

TEST_F(TarnWait, AServerWithoutTheLogsDataIsToldAsTheCardsFault) {
  for (int copy : {0, 1}) card_.writeChunk(tarn::kFileSyslogManage, copy, 5, {0x5A});
  const auto server = launch();
  ToolProcess show({"log"});
  EXPECT_EQ(show.wait(), 1);
  EXPECT_EQ(show.err(),
            "tarn: the management server cannot read the card's management data of the system "
            "log\n");
  ToolProcess log({"log", "--write"});
  EXPECT_EQ(log.wait(), 1);
  EXPECT_EQ(log.err(),
            "tarn: the system log: the management server cannot read or write the card's "
            "management data\n");
}

}  // namespace
}  // namespace tarn_test
