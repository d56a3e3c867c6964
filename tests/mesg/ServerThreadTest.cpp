// The accept thread of a CMesgServer, its socket and its end.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <memory>

#include "mesg/MesgTest.h"
#include "support/IoFaults.h"

namespace {
std::atomic<bool> g_listenFails{false};
std::atomic<bool> g_modeFails{false};
}  // namespace

// The library's call resolves to this one.
extern "C" __attribute__((visibility("default"))) int listen(int fd, int backlog) noexcept {
  if (g_listenFails) {
    errno = EADDRINUSE;
    return -1;
  }
  return static_cast<int>(syscall(SYS_listen, fd, backlog));
}

extern "C" __attribute__((visibility("default"))) int chmod(const char* path,
                                                            mode_t mode) noexcept {
  if (g_modeFails) {
    errno = EROFS;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fchmodat, AT_FDCWD, path, mode));
}

namespace tarn_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// While there are none left, tests only count log lines: the undefined-behaviour sanitizer needs a
// pipe to judge what the comparison of texts does.
void limitDescriptors(rlim_t most) {
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = most;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

rlim_t nextDescriptor() {
  const tarn::UniqueFd fd(open("/dev/null", O_RDONLY));
  return static_cast<rlim_t>(fd.get());
}

std::vector<LogLine> errors(std::initializer_list<const char*> texts) {
  std::vector<LogLine> lines;
  for (const char* text : texts) lines.push_back({LOG_ERR, text});
  return lines;
}

class ServerThread : public ServerTest {};

TEST_F(ServerThread, FileAtThePathIsReplaced) {
  {
    const tarn::UniqueFd stale(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    const sockaddr_un address = addressOf(kSocketPath);
    ASSERT_EQ(bind(stale.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  struct stat before;
  ASSERT_EQ(stat(kSocketPath, &before), 0);
  serve();
  EXPECT_TRUE(RawClient(kSocketPath).connected());
  server_.reset();
  ASSERT_GE(tarn::UniqueFd(open(kSocketPath, O_CREAT | O_WRONLY, 0600)).get(), 0);
  serve();
  EXPECT_TRUE(RawClient(kSocketPath).connected());
}

TEST_F(ServerThread, AcceptedClientIsNoticedByItsHandle) {
  serve();
  std::unique_ptr<RawClient> client;
  const int fd = accept(client);
  const std::vector<LogLine> expected = {
      {LOG_INFO, "accept new client fd is " + std::to_string(fd)}};
  EXPECT_EQ(log_.lines(), expected);
  EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
}

TEST_F(ServerThread, PathIsCutAt32Characters) {
  const std::string path = "/tmp/" + std::string(40, 'p');
  CMesgServer server(path.c_str(), 1, 0);
  ASSERT_EQ(server.startAcceptNewConnectionThread(), 0);
  ASSERT_EQ(server.waitUntilListening(), 0);
  EXPECT_TRUE(RawClient(path.substr(0, 32).c_str()).connected());
  EXPECT_FALSE(RawClient(path.c_str()).connected());
}

TEST_F(ServerThread, ThreadThatCannotBeMadeIsReported) {
  IoFaults faults;
  faults.fail(Call::ThreadCreate, 1, EAGAIN);
  CMesgServer server(kSocketPath, 1, 0);
  EXPECT_EQ(server.startAcceptNewConnectionThread(), -1);
  EXPECT_EQ(log_.withoutPrefix(), errors({"pthread_create() error"}));
  EXPECT_EQ(server.waitUntilListening(), -1);
  EXPECT_EQ(server.startAcceptNewConnectionThread(), 0);
  EXPECT_EQ(server.waitUntilListening(), 0);
}

TEST_F(ServerThread, SecondStartIsRefused) {
  serve();
  EXPECT_EQ(server_->startAcceptNewConnectionThread(), -1);
  EXPECT_EQ(log_.withoutPrefix(), errors({"pthread_create() error"}));
  EXPECT_TRUE(RawClient(kSocketPath).connected());
}

TEST_F(ServerThread, StopWithoutAThreadIsReported) {
  CMesgServer server(kSocketPath, 1, 0);
  EXPECT_EQ(server.stopAcceptNewConnectionThread(), -1);
  EXPECT_EQ(log_.withoutPrefix(), errors({"pthread_join() error"}));
}

TEST_F(ServerThread, SocketThatCannotBeBoundIsReported) {
  CMesgServer server("/tmp/missing/socket", 1, 0);
  EXPECT_EQ(server.startAcceptNewConnectionThread(), 0);
  EXPECT_EQ(server.waitUntilListening(), -1);
  EXPECT_EQ(log_.withoutPrefix(), errors({"bind() error", "socket setup error"}));
  EXPECT_EQ(server.stopAcceptNewConnectionThread(), 0);
}

TEST_F(ServerThread, BindAndModeErrorsAreLoggedUnderTheOperationThatListens) {
  const std::vector<LogLine> failed = {
      {LOG_ERR, "m_acceptNewConnectionFunc line N is CMesgServer: socket setup error"}};
  std::vector<LogLine> expected = failed;
  {
    CMesgServer server("/tmp/missing/socket", 1, 0);
    EXPECT_EQ(server.startAcceptNewConnectionThread(), 0);
    EXPECT_EQ(server.waitUntilListening(), -1);
    expected.insert(expected.begin(), {LOG_ERR, "m_listen line N is CMesgServer: bind() error"});
    EXPECT_EQ(linesAsN(), expected);
  }
  log_.clear();
  g_modeFails = true;
  CMesgServer server(kSocketPath, 1, 0);
  server.setSocketMode(0660);
  EXPECT_EQ(server.startAcceptNewConnectionThread(), 0);
  EXPECT_EQ(server.waitUntilListening(), -1);
  g_modeFails = false;
  expected = failed;
  expected.insert(expected.begin(), {LOG_ERR,
                                     "m_listen line N is CMesgServer: chmod(/tmp/mesg-test) "
                                     "error(" +
                                         std::to_string(EROFS) + ")"});
  EXPECT_EQ(linesAsN(), expected);
}

TEST_F(ServerThread, SocketThatCannotBeMadeIsReported) {
  CMesgServer server(kSocketPath, 1, 0);
  limitDescriptors(nextDescriptor());
  EXPECT_EQ(server.startAcceptNewConnectionThread(), 0);
  EXPECT_EQ(server.waitUntilListening(), -1);
  limitDescriptors(256);
  EXPECT_EQ(log_.withoutPrefix(), errors({"socket() error", "socket setup error"}));
}

TEST_F(ServerThread, SocketThatCannotListenIsReported) {
  CMesgServer server(kSocketPath, 1, 0);
  g_listenFails = true;
  EXPECT_EQ(server.startAcceptNewConnectionThread(), 0);
  EXPECT_EQ(server.waitUntilListening(), -1);
  g_listenFails = false;
  EXPECT_EQ(log_.withoutPrefix(), errors({"listen() error", "socket setup error"}));
}

TEST_F(ServerThread, AfterAFailedSetUpAStartIsANewOne) {
  CMesgServer server(kSocketPath, 1, 0);
  g_listenFails = true;
  EXPECT_EQ(server.startAcceptNewConnectionThread(), 0);
  EXPECT_EQ(server.waitUntilListening(), -1);
  g_listenFails = false;
  ASSERT_EQ(server.startAcceptNewConnectionThread(), 0);
  EXPECT_EQ(server.waitUntilListening(), 0);
  EXPECT_TRUE(RawClient(kSocketPath).connected());
  EXPECT_EQ(server.startAcceptNewConnectionThread(), -1);  // this one runs
}

TEST_F(ServerThread, StopNeedsNoConnectionAndKeepsClients) {
  serve();
  std::unique_ptr<RawClient> client;
  accept(client);
  EXPECT_EQ(server_->stopAcceptNewConnectionThread(), 0);
  const RawClient late(kSocketPath);
  EXPECT_FALSE(late.connected());
  EXPECT_EQ(late.error(), ECONNREFUSED);
  client->send("still served");
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "still served");
  ASSERT_EQ(server_->startAcceptNewConnectionThread(), 0);
  ASSERT_EQ(server_->waitUntilListening(), 0);
  EXPECT_TRUE(RawClient(kSocketPath).connected());
}

TEST_F(ServerThread, DestructorStopsTheThreadAndRemovesThePath) {
  serve();
  EXPECT_EQ(access(kSocketPath, F_OK), 0);
  server_.reset();
  EXPECT_EQ(access(kSocketPath, F_OK), -1);
  EXPECT_EQ(RawClient(kSocketPath).error(), ENOENT);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ServerThread, DestroyingTheServerLeavesClientsConnected) {
  serve();
  std::unique_ptr<RawClient> client;
  const int fd = accept(client);
  server_.reset();
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(client->receive(0), "<nothing>");
  close(fd);
}

TEST_F(ServerThread, DescriptorsAtTheLimitOfSelectAreRefused) {
  serve();
  std::unique_ptr<RawClient> first;
  accept(first);
  limitDescriptors(FD_SETSIZE + 64);
  std::vector<tarn::UniqueFd> files;
  while (files.empty() || files.back().get() < FD_SETSIZE) {
    files.emplace_back(open("/dev/null", O_RDONLY));
    ASSERT_TRUE(files.back().valid());
  }
  RawClient refused(kSocketPath);
  ASSERT_TRUE(refused.connected());
  EXPECT_EQ(refused.receive(), "");
  const std::vector<LogLine> lines = log_.atPriority(LOG_ERR);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0].text,
              testing::MatchesRegex("client refused, fd\\(10[2-9][0-9]\\) is too high"));
  first->send("still served");
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "still served");
  files.clear();
  std::unique_ptr<RawClient> next;
  EXPECT_LT(accept(next), FD_SETSIZE);
}

TEST_F(ServerThread, ClientsThatWouldTakeTheReserveAreClosedAtOnce) {
  constexpr int kReserve = 16;
  server_ = std::make_unique<CMesgServer>(kSocketPath, 60, 0);
  server_->setHandleReserve(kReserve);
  ASSERT_EQ(server_->startAcceptNewConnectionThread(), 0);
  ASSERT_EQ(server_->waitUntilListening(), 0);
  std::unique_ptr<RawClient> first;
  accept(first);
  {  // Room for one more client, whose own end is in this process too.
    const tarn::UniqueFd end(open("/dev/null", O_RDONLY));
    limitDescriptors(nextDescriptor() + 1 + kReserve);
  }
  std::unique_ptr<RawClient> last;
  accept(last);
  RawClient beyond(kSocketPath);
  ASSERT_TRUE(beyond.connected());
  EXPECT_EQ(beyond.receive(), "");
  EXPECT_EQ(accepted(), 2u);
  std::vector<tarn::UniqueFd> files;
  for (int i = 0; i < kReserve / 2; ++i) {
    files.emplace_back(open("/dev/null", O_RDONLY));
    EXPECT_TRUE(files.back().valid()) << i;
  }
}

TEST_F(ServerThread, AcceptErrorsAreLoggedAndBackOff) {
  serve();
  const tarn::UniqueFd client(socket(AF_UNIX, SOCK_SEQPACKET, 0));
  limitDescriptors(nextDescriptor());  // none left for the server
  const sockaddr_un address = addressOf(kSocketPath);
  const auto begin = steady_clock::now();
  ASSERT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_TRUE(eventually([&] { return log_.lines().size() >= 4; }));
  EXPECT_GE(steady_clock::now() - begin, milliseconds(10 + 20 + 40));
  limitDescriptors(256);
  EXPECT_GE(log_.count(LOG_ERR, "accept() error"), 4u);
  EXPECT_TRUE(eventually([&] { return accepted() == 1; }));
}

TEST_F(ServerThread, StopDoesNotWaitForTheBackOff) {
  serve();
  const tarn::UniqueFd client(socket(AF_UNIX, SOCK_SEQPACKET, 0));
  limitDescriptors(nextDescriptor());
  const sockaddr_un address = addressOf(kSocketPath);
  ASSERT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_TRUE(eventually([&] { return !log_.lines().empty(); }));
  EXPECT_EQ(server_->stopAcceptNewConnectionThread(), 0);
  limitDescriptors(256);
  EXPECT_TRUE(log_.has(LOG_ERR, "accept() error"));
}

TEST_F(ServerThread, ClientNeverGetsTheHandleThatMeansNone) {
  serve();
  std::unique_ptr<RawClient> client = std::make_unique<RawClient>(kSocketPath);
  ASSERT_TRUE(eventually([&] { return accepted() == 1; }));
  close(STDIN_FILENO);
  std::unique_ptr<RawClient> occupied;  // takes 0 itself
  std::unique_ptr<RawClient> second;
  EXPECT_GT(accept(occupied), 0);
  occupied->close();
  // Now 0 is free on the server's side: the client's end is moved away first.
  const int moved = fcntl(client->fd(), F_DUPFD, 100);
  ASSERT_GE(moved, 100);
  const tarn::UniqueFd far(fcntl(socket(AF_UNIX, SOCK_SEQPACKET, 0), F_DUPFD, 200));
  close(STDIN_FILENO);
  const sockaddr_un address = addressOf(kSocketPath);
  ASSERT_EQ(connect(far.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_TRUE(eventually([&] { return accepted() == 3; }));
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
  close(moved);
}

TEST_F(ServerThread, SocketModeIsAsOrderedWhateverTheUmask) {
  const mode_t before = umask(0077);
  server_ = std::make_unique<CMesgServer>(kSocketPath, 1, 0);
  server_->setSocketMode(0660);
  ASSERT_EQ(server_->startAcceptNewConnectionThread(), 0);
  ASSERT_EQ(server_->waitUntilListening(), 0);
  struct stat info;
  ASSERT_EQ(stat(kSocketPath, &info), 0);
  EXPECT_EQ(info.st_mode & 07777u, 0660u);
  server_.reset();
  serve();
  ASSERT_EQ(stat(kSocketPath, &info), 0);
  EXPECT_EQ(info.st_mode & 07777u, 0700u);
  umask(before);
}

}  // namespace
}  // namespace tarn_test
