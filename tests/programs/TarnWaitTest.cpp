// Programs of ours while the management server hangs, is away, or has no card.

#include <chrono>
#include <memory>

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
  bool catchesSignals() const {
    const std::string status =
        shell("grep SigCgt /proc/" + std::to_string(pid_) + "/status").output;
    const size_t hex = status.find_first_of("0123456789abcdef", status.find(':'));
    return hex != std::string::npos && (strtoull(status.c_str() + hex, nullptr, 16) >> 14 & 1) != 0;
  }

 private:
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
