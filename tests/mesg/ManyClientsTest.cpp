// Server and clients together, each in threads of its own.

#include <memory>

#include "mesg/CMesgClient.h"
#include "mesg/MesgTest.h"
#include "support/Pace.h"

namespace tarn_test {
namespace {

// An echo server's loop in a thread of its own.
class Echo {
 public:
  Echo() : server_(kSocketPath, 60, 0) {
    EXPECT_EQ(server_.startAcceptNewConnectionThread(), 0);
    EXPECT_EQ(server_.waitUntilListening(), 0);
    thread_ = std::thread([this] { run(); });
  }
  ~Echo() {
    stop_ = true;
    server_.interrupt();
    thread_.join();
  }

 private:
  void run() {
    char buffer[1024];
    while (!stop_) {
      if (server_.select() < 0) server_.waitForClient(-1);
      long client, got;
      while ((got = server_.readReady(buffer, sizeof buffer, &client)) != 0) {
        if (got > 0) server_.writeMesg(buffer, got, client);
      }
    }
  }

  CMesgServer server_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Rounds of a request and its answer; how many answers were right.
int talk(int number, int rounds) {
  CMesgClient client(kSocketPath);
  int right = 0;
  for (int round = 0; round < rounds; ++round) {
    const std::string text = std::to_string(number) + ":" + std::to_string(round);
    char buffer[1024];
    if (client.writeMesg(text.data(), static_cast<long>(text.size())) < 0) continue;
    const long got = client.readMesg(buffer, sizeof buffer);
    right += got > 0 && std::string(buffer, static_cast<size_t>(got)) == text;
  }
  return right;
}

TEST(ManyClients, SixtyFourAtOnceGetEachTheirOwnAnswers) {
  SyslogCapture log;
  constexpr int kClients = 64;
  constexpr int kRounds = 100;
  Echo echo;
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&right, i] { right += talk(i, kRounds); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, kClients * kRounds);
}

TEST(ManyClients, ThoseThatLeaveAtAnyMomentDisturbNobody) {
  constexpr int kExchanges = tries(60);
  SyslogCapture log;
  Echo echo;
  std::atomic<bool> busy{true};
  std::vector<std::thread> rude;
  for (int i = 0; i < 4; ++i) {
    rude.emplace_back([&busy, i] {
      for (int round = i; busy; ++round) {
        RawClient client(kSocketPath);
        for (int sent = 0; sent < round % 4; ++sent) client.send(std::string(1024, 'r'));
        if (round % 3 == 0) client.receive(0);
      }
    });
  }
  std::atomic<int> right{0};
  std::vector<std::thread> polite;
  for (int i = 0; i < 8; ++i) polite.emplace_back([&right, i] { right += talk(i, kExchanges); });
  for (std::thread& thread : polite) thread.join();
  busy = false;
  for (std::thread& thread : rude) thread.join();
  EXPECT_EQ(right, 8 * kExchanges);
}

}  // namespace
}  // namespace tarn_test
