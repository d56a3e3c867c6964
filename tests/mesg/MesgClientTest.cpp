#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>

#include <csignal>
#include <ctime>
#include <memory>

#include "mesg/CMesgClient.h"
#include "mesg/MesgTest.h"
#include "mesg/RequestPatience.h"

namespace {
std::atomic<time_t> g_now{0};  // 0: the real time
}

// The library's call resolves to this one, so tests need not wait for seconds to pass.
extern "C" __attribute__((visibility("default"))) time_t time(time_t* out) noexcept {
  time_t now = g_now;
  if (now == 0) {
    timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    now = real.tv_sec;
  }
  if (out != nullptr) *out = now;
  return now;
}

namespace tarn_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The server's side in the test's own hands.
class ClientTest : public testing::Test {
 protected:
  void SetUp() override { g_now = 1000000000; }

  void listenOnPath() {
    unlink(kSocketPath);
    listener_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const sockaddr_un address = addressOf(kSocketPath);
    ASSERT_EQ(bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    ASSERT_EQ(listen(listener_.get(), 5), 0);
  }
  // Serves one connection, which `client_` opens by sending `text`.
  void connectWith(const std::string& text) {
    listenOnPath();
    ASSERT_EQ(client_.writeMesg(text.data(), static_cast<long>(text.size())),
              static_cast<long>(text.size()));
    peer_.reset(accept(listener_.get(), nullptr, nullptr));
    ASSERT_TRUE(peer_.valid());
  }
  std::string received() {
    char buffer[4096];
    const ssize_t got = recv(peer_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    return got < 0 ? "<nothing>" : std::string(buffer, static_cast<size_t>(got));
  }
  void answer(const std::string& text) {
    ASSERT_EQ(send(peer_.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  std::string readOne() {
    const long got = client_.readMesg(buffer_, sizeof buffer_);
    return got <= 0 ? "<" + std::to_string(got) + ">"
                    : std::string(buffer_, static_cast<size_t>(got));
  }
  size_t attempts() const {
    return log_.count(
        LOG_ERR, std::string("connect(") + kSocketPath + ") error(" + std::to_string(ENOENT) + ")");
  }

  SyslogCapture log_;
  CMesgClient client_{kSocketPath};
  tarn::UniqueFd listener_;
  tarn::UniqueFd peer_;
  char buffer_[2048];
};

using MesgClient = ClientTest;

TEST_F(MesgClient, NothingIsConnectedBeforeTheFirstUse) {
  listenOnPath();
  pollfd entry{listener_.get(), POLLIN, 0};
  EXPECT_EQ(poll(&entry, 1, 0), 0);
  EXPECT_EQ(client_.writeMesg("x", 1), 1);
  EXPECT_EQ(poll(&entry, 1, 0), 1);
}

TEST_F(MesgClient, EveryOperationConnectsFirst) {
  EXPECT_EQ(client_.select(), -1);
  g_now = g_now + 1;
  EXPECT_EQ(readOne(), "<-1>");
  g_now = g_now + 1;
  EXPECT_EQ(client_.writeMesg("x", 1), -1);
  EXPECT_EQ(attempts(), 3u);
  EXPECT_EQ(log_.lines().size(), 3u);
}

TEST_F(MesgClient, TwoFailuresWithinASecondMakeOneAttempt) {
  EXPECT_EQ(client_.writeMesg("x", 1), -1);
  EXPECT_EQ(client_.writeMesg("x", 1), -1);
  EXPECT_EQ(attempts(), 1u);
  listenOnPath();
  EXPECT_EQ(client_.writeMesg("x", 1), -1);  // still the same second
  EXPECT_EQ(log_.lines().size(), 1u);
  g_now = g_now + 1;
  EXPECT_EQ(client_.writeMesg("x", 1), 1);
}

TEST_F(MesgClient, ConnectFailureNamesOperationLineAndClass) {
  client_.select();
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(log_.lines()[0].priority, LOG_ERR);
  EXPECT_THAT(log_.lines()[0].text,
              testing::MatchesRegex("m_connect line [0-9]+ is CMesgClient: "
                                    "connect\\(/tmp/mesg-test\\) error\\(2\\)"));
}

TEST_F(MesgClient, SocketFailureIsLoggedAndCountsAsAnAttempt) {
  listenOnPath();
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_EQ(client_.writeMesg("x", 1), -1);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const std::vector<LogLine> expected = {{LOG_ERR, "socket() error"}};
  EXPECT_EQ(log_.withoutPrefix(), expected);
  EXPECT_EQ(client_.writeMesg("x", 1), -1);
  g_now = g_now + 1;
  EXPECT_EQ(client_.writeMesg("x", 1), 1);
}

TEST_F(MesgClient, MessageAndAnswerGoAsWholePackets) {
  connectWith("request");
  EXPECT_EQ(received(), "request");
  answer("first answer");
  answer("second");
  EXPECT_EQ(client_.readMesg(buffer_, 5), 5);
  EXPECT_EQ(std::string(buffer_, 5), "first");
  EXPECT_EQ(readOne(), "second");
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(MesgClient, MessageOf1024BytesIsSent) {
  connectWith(std::string(1024, 'm'));
  EXPECT_EQ(received(), std::string(1024, 'm'));
}

TEST_F(MesgClient, MessageOf1025BytesIsLoggedAndNotSent) {
  connectWith("hello");
  received();
  const std::string tooLong(1025, 'm');
  EXPECT_EQ(client_.writeMesg(tooLong.data(), 1025), -1);
  const std::vector<LogLine> expected = {{LOG_ERR, "message length too long (1025)"}};
  EXPECT_EQ(log_.withoutPrefix(), expected);
  EXPECT_EQ(received(), "<nothing>");
}

TEST_F(MesgClient, SelectWaitsATenthOfASecond) {
  connectWith("hello");
  const auto begin = steady_clock::now();
  EXPECT_EQ(client_.select(), 0);
  EXPECT_GE(steady_clock::now() - begin, milliseconds(99));
  answer("there");
  EXPECT_EQ(client_.select(), 1);
  EXPECT_EQ(readOne(), "there");
}

TEST_F(MesgClient, SelectWorksForHandlesBeyondTheLimitOfSelect) {
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = FD_SETSIZE + 64;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<tarn::UniqueFd> files;
  while (files.empty() || files.back().get() < FD_SETSIZE) {
    files.emplace_back(open("/dev/null", O_RDONLY));
    ASSERT_TRUE(files.back().valid());
  }
  connectWith("hello");
  answer("there");
  EXPECT_EQ(client_.select(), 1);
}

TEST_F(MesgClient, ReadAfterTheServerClosedIsZeroAndKeepsTheConnection) {
  connectWith("hello");
  received();
  peer_.reset();
  EXPECT_EQ(readOne(), "<0>");
  EXPECT_EQ(readOne(), "<0>");
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(MesgClient, WriteAfterTheServerClosedDisconnectsAndTheNextUseReconnects) {
  connectWith("hello");
  received();
  peer_.reset();
  testing::internal::CaptureStderr();
  EXPECT_EQ(client_.writeMesg("again", 5), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "@CMesgClient::writeMesg(): " + std::string(strerror(EPIPE)) + "\n");
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_THAT(log_.lines()[0].text,
              testing::MatchesRegex("writeMesg line [0-9]+ is CMesgClient: socket [0-9]+ closed"));
  EXPECT_EQ(client_.writeMesg("again", 5), 5);
  peer_.reset(accept(listener_.get(), nullptr, nullptr));
  EXPECT_EQ(received(), "again");
}

TEST_F(MesgClient, OtherWriteFailureIsPrintedAndKeepsTheConnection) {
  connectWith("hello");
  received();
  testing::internal::CaptureStderr();
  EXPECT_EQ(client_.writeMesg(nullptr, 5), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "@CMesgClient::writeMesg(): " + std::string(strerror(EFAULT)) + "\n");
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(client_.writeMesg("more", 4), 4);
  EXPECT_EQ(received(), "more");
}

TEST_F(MesgClient, WritingToADeadServerNeverRaisesSigpipe) {
  connectWith("hello");
  received();
  peer_.reset();
  signal(SIGPIPE, SIG_DFL);  // as a careless program would
  EXPECT_EQ(client_.writeMesg("again", 5), -1);
}

TEST_F(MesgClient, ConstructionMakesTheProcessIgnoreSigpipe) {
  signal(SIGPIPE, SIG_DFL);
  const CMesgClient client(kSocketPath);
  EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST_F(MesgClient, ReadFailureDisconnectsAndTheNextUseReconnects) {
  connectWith("unread by the server");
  peer_.reset();  // with a message unread: the client's end is reset
  EXPECT_EQ(readOne(), "<-1>");
  const std::vector<LogLine> expected = {{LOG_ERR, "read() error"}};
  EXPECT_EQ(log_.withoutPrefix(), expected);
  EXPECT_EQ(client_.writeMesg("again", 5), 5);
  peer_.reset(accept(listener_.get(), nullptr, nullptr));
  EXPECT_EQ(received(), "again");
}

TEST_F(MesgClient, TenInterruptedReadsFailAndKeepTheConnection) {
  connectWith("hello");
  received();
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  std::atomic<bool> reading{true};
  const pthread_t reader = pthread_self();
  std::thread disturber([&] {
    while (reading) {
      pthread_kill(reader, SIGUSR1);
      std::this_thread::sleep_for(milliseconds(1));
    }
  });
  EXPECT_EQ(readOne(), "<-1>");
  reading = false;
  disturber.join();
  const std::vector<LogLine> expected(10, LogLine{LOG_ERR, "read() error"});
  EXPECT_EQ(log_.withoutPrefix(), expected);
  answer("at last");
  EXPECT_EQ(readOne(), "at last");
}

TEST_F(MesgClient, DisconnectKeepsALateAnswerFromTheNextRequest) {
  connectWith("first");
  answer("late answer to the first");
  EXPECT_EQ(client_.disconnect(), 0);
  EXPECT_EQ(client_.disconnect(), 0);
  EXPECT_EQ(client_.writeMesg("second", 6), 6);
  peer_.reset(accept(listener_.get(), nullptr, nullptr));
  answer("answer to the second");
  EXPECT_EQ(readOne(), "answer to the second");
}

// Limits for the whole process, back to normal at the end.
class HurriedClient : public ClientTest {
 protected:
  ~HurriedClient() override {
    tarn::RequestPatience::setLimitMs(tarn::RequestPatience::kDefaultLimitMs);
    tarn::RequestPatience::resume();
  }
  static int64_t sinceMs(steady_clock::time_point begin) {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin).count();
  }
  // Clients of a server that accepts nobody, until its queue has no place: what the last one's
  // message came to.
  long fillQueue() {
    listenOnPath();
    long sent = 1;
    while (waiting_.size() < 20 && sent == 1) {
      waiting_.push_back(std::make_unique<CMesgClient>(kSocketPath));
      sent = waiting_.back()->writeMesg("x", 1);
    }
    return sent;
  }

  std::vector<std::unique_ptr<CMesgClient>> waiting_;
};

TEST_F(HurriedClient, AnAnswerIsWaitedForNoLongerThanTheLimit) {
  connectWith("hello");
  tarn::RequestPatience::setLimitMs(30);
  EXPECT_EQ(client_.awaitMesg(), 0);
  const std::vector<LogLine> expected = {{LOG_ERR, "no answer in time"}};
  EXPECT_EQ(log_.withoutPrefix(), expected);
  answer("there");
  EXPECT_EQ(client_.awaitMesg(), 1);
  peer_.reset();
  EXPECT_EQ(client_.awaitMesg(), 1);
}

TEST_F(HurriedClient, AServerThatHangsIsWaitedForATenthOfTheLimitUntilItAnswers) {
  connectWith("hello");
  tarn::RequestPatience::setLimitMs(200);
  const auto begin = steady_clock::now();
  EXPECT_EQ(client_.awaitMesg(), 0);
  EXPECT_GE(sinceMs(begin), 200);
  const auto second = steady_clock::now();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(client_.awaitMesg(), 0);
  EXPECT_LT(sinceMs(second), 190);
  answer("there");
  EXPECT_EQ(client_.awaitMesg(), 1);
  EXPECT_EQ(received(), "hello");
  char text[8];
  EXPECT_EQ(client_.readMesg(text, sizeof text), 5);
  const auto third = steady_clock::now();
  EXPECT_EQ(client_.awaitMesg(), 0);
  EXPECT_GE(sinceMs(third), 200);
}

TEST_F(HurriedClient, AFullSocketIsWaitedForNoLongerThanTheLimitAndThenDropped) {
  connectWith("hello");
  tarn::RequestPatience::setLimitMs(30);
  testing::internal::CaptureStderr();
  const std::string message(1024, 'm');
  int sent = 0;
  while (sent < 10000 && client_.writeMesg(message.data(), 1024) == 1024) ++sent;
  testing::internal::GetCapturedStderr();
  EXPECT_LT(sent, 10000);
  EXPECT_EQ(client_.writeMesg("new connection", 14), 14);
  peer_.reset(accept(listener_.get(), nullptr, nullptr));
  EXPECT_EQ(received(), "new connection");
}

TEST_F(HurriedClient, AServerThatAcceptsNobodyIsWaitedForNoLongerThanTheLimit) {
  tarn::RequestPatience::setLimitMs(30);
  EXPECT_EQ(fillQueue(), -1);
  EXPECT_TRUE(log_.has(LOG_ERR, "connect(/tmp/mesg-test) error(" + std::to_string(EAGAIN) + ")"));
}

// Each attempt costs the moment of 20 ms that a hurried program has, not the 100 ms that a wait
// lasts before it looks again.
TEST_F(HurriedClient, AFullQueueHoldsUpAProgramThatIsToEndForMomentsOnly) {
  tarn::RequestPatience::setLimitMs(1);
  ASSERT_EQ(fillQueue(), -1);
  tarn::RequestPatience::setLimitMs(tarn::RequestPatience::kDefaultLimitMs);
  tarn::RequestPatience::hurry();
  EXPECT_EQ(waiting_.front()->awaitMesg(), 0);
  const auto begin = steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(CMesgClient(kSocketPath).writeMesg("x", 1), -1);
  }
  EXPECT_GE(sinceMs(begin), 20 * 20);
  EXPECT_LT(sinceMs(begin), 20 * 100 / 2);
}

TEST_F(HurriedClient, AProgramThatIsToEndWaitsASecondInAllAndLooksAtWhatIsThere) {
  connectWith("hello");
  const auto begin = steady_clock::now();
  std::thread signaller([] {
    std::this_thread::sleep_for(milliseconds(20));
    tarn::RequestPatience::hurry();
  });
  EXPECT_EQ(client_.awaitMesg(), 0);
  signaller.join();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(client_.awaitMesg(), 0);
  EXPECT_GE(sinceMs(begin), 1000);
  EXPECT_LT(sinceMs(begin), 1900);
  answer("there");
  EXPECT_EQ(client_.awaitMesg(), 1);
}

TEST_F(MesgClient, DestructionDisconnects) {
  listenOnPath();
  {
    CMesgClient client(kSocketPath);
    ASSERT_EQ(client.writeMesg("x", 1), 1);
    peer_.reset(accept(listener_.get(), nullptr, nullptr));
    EXPECT_EQ(received(), "x");
    EXPECT_EQ(received(), "<nothing>");
  }
  EXPECT_EQ(received(), "");
}

TEST_F(MesgClient, PathIsCutAt32Characters) {
  const std::string path = "/tmp/" + std::string(40, 'p');
  CMesgClient client(path.c_str());
  EXPECT_EQ(client.select(), -1);
  EXPECT_TRUE(log_.has(LOG_ERR, "connect(" + path.substr(0, 32) + ") error(2)"));
}

}  // namespace
}  // namespace tarn_test
