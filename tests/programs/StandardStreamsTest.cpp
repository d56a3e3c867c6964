// Programs that are started without standard input, output or error, as a careless launcher does.

#include <sys/wait.h>

#include <initializer_list>

#include "manager/CTARNStreamManager.h"
#include "manager/RequestFormat.h"
#include "programs/ServerProcess.h"
#include "support/CardImage.h"
#include "support/RawClient.h"
#include "support/Shell.h"
#include "support/SyslogCapture.h"

namespace tarn_test {
namespace {

// A child process that closes these descriptors and runs the program.
pid_t startWithout(std::initializer_list<int> streams, std::vector<std::string> args) {
  args[0] = std::string(TARN_BIN_DIR "/") + args[0];
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  for (const int stream : streams) close(stream);
  execv(argv[0], argv.data());
  _exit(127);
}

int exitStatus(pid_t pid) {
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

std::string targetOf(pid_t pid, int fd) {
  char target[256] = {};
  const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
  return readlink(link.c_str(), target, sizeof target - 1) < 0 ? "" : target;
}

TEST(StandardStreams, ServerWithoutThemWritesItsNoticesNowhere) {
  SyslogCapture log;
  CardImage card;
  card.initManagement();
  const std::vector<uint8_t> before = card.read(0, card.size());
  ASSERT_EQ(exitStatus(startWithout({}, {"dbsetup", "init"})), 0);
  const pid_t server = startWithout({0, 1, 2}, {"tarn-server"});
  CTARNStreamManager manager(51);
  ASSERT_TRUE(eventually([&] { return access(tarn::kServerSocketPath, F_OK) == 0; }));
  ASSERT_TRUE(eventually([&] {
    if (manager.openManageData() == 0) return true;
    manager.closeManageData();
    return false;
  }));
  for (const int fd : {0, 1, 2}) EXPECT_EQ(targetOf(server, fd), "/dev/null") << fd;
  // Each prints a notice: more of them than standard output collects.
  for (int i = 0; i < 200; ++i) ASSERT_EQ(manager.firstAvailableChunk(1000, 0, 0), 1);
  manager.closeManageData();
  kill(server, SIGTERM);
  EXPECT_EQ(exitStatus(server), 0);
  EXPECT_TRUE(card.read(0, card.size()) == before) << "notices on the card";
}

TEST(StandardStreams, EachOfThemMayBeMissingAlone) {
  SyslogCapture log;
  CardImage card;
  card.initManagement();
  for (const int missing : {0, 1, 2}) {
    const pid_t server = startWithout({missing}, {"tarn-server"});
    EXPECT_TRUE(eventually([&] { return access(tarn::kServerSocketPath, F_OK) == 0; }));
    EXPECT_EQ(targetOf(server, missing), "/dev/null");
    kill(server, SIGTERM);
    EXPECT_EQ(exitStatus(server), 0);
  }
}

TEST(StandardStreams, DatabaseSetUpWithoutThemMakesAWholeDatabase) {
  EXPECT_EQ(exitStatus(startWithout({0, 1, 2}, {"dbsetup", "init"})), 0);
  EXPECT_EQ(exitStatus(startWithout({0, 1, 2}, {"dbsetup", "start"})), 0);
}

TEST(StandardStreams, ToolWithoutThemLeavesTheCardClean) {
  if (access(TARN_BIN_DIR "/tarn", X_OK) != 0) GTEST_SKIP() << "without the tool";
  ASSERT_EQ(
      exitStatus(startWithout({0, 1, 2}, {"tarn", "format", "/dev/sdblk0p1", "--size", "34M"})), 0);
  EXPECT_EQ(exitStatus(startWithout({0, 1, 2}, {"tarn", "recover"})), 0);
  const ShellResult check = shell(TARN_BIN_DIR "/tarn check /dev/sdblk0p1");
  EXPECT_EQ(check.exitCode, 0) << check.output;
  unlink("/dev/sdblk0p1");
}

}  // namespace
}  // namespace tarn_test
