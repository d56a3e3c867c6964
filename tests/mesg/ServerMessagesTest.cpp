// Waiting for, reading from and writing to the clients of a CMesgServer.

#include <fcntl.h>

#include <csignal>
#include <memory>

#include "mesg/MesgTest.h"

namespace tarn_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class ServerMessages : public ServerTest {};

TEST_F(ServerMessages, SelectWithoutClientsReturnsAtOnce) {
  serve();
  errno = 0;
  EXPECT_EQ(server_->select(), -1);
  EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(ServerMessages, ReadingWithoutClientsReturnsZero) {
  serve();
  EXPECT_EQ(readNext(), "<0>");
  EXPECT_EQ(readReady(), "<0>");
}

TEST_F(ServerMessages, SelectTimesOutWithoutMessages) {
  serve(0, 20000);
  std::unique_ptr<RawClient> client;
  accept(client);
  const auto begin = steady_clock::now();
  EXPECT_EQ(server_->select(), 0);
  EXPECT_GE(steady_clock::now() - begin, milliseconds(19));
}

TEST_F(ServerMessages, MicrosecondsBeyondASecondCountAsSeconds) {
  serve(0, 1020000);
  std::unique_ptr<RawClient> client;
  accept(client);
  const auto begin = steady_clock::now();
  EXPECT_EQ(server_->select(), 0);
  EXPECT_GE(steady_clock::now() - begin, milliseconds(1010));
}

TEST_F(ServerMessages, MessageIsReadAndAnswered) {
  serve();
  std::unique_ptr<RawClient> client;
  const int fd = accept(client);
  ASSERT_TRUE(client->send("question"));
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "question");
  EXPECT_EQ(from_, fd);
  EXPECT_EQ(server_->writeMesg("answer", 6, from_), 6);
  EXPECT_EQ(client->receive(), "answer");
}

TEST_F(ServerMessages, LongMessageIsCutAndItsRestLost) {
  serve();
  std::unique_ptr<RawClient> client;
  accept(client);
  ASSERT_TRUE(client->send("0123456789"));
  ASSERT_TRUE(client->send("next"));
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(outcome(server_->readMesg(buffer_, 4, &from_)), "0123");
  EXPECT_EQ(readNext(), "next");
}

TEST_F(ServerMessages, MessagesOfAnyLengthAreTaken) {
  serve();
  std::unique_ptr<RawClient> client;
  accept(client);
  ASSERT_TRUE(client->send(std::string(2000, 'x')));
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), std::string(2000, 'x'));
}

TEST_F(ServerMessages, ClientsAreReadInTurn) {
  serve();
  std::unique_ptr<RawClient> a, b;
  const int fdA = accept(a);
  const int fdB = accept(b);
  for (const char* text : {"1", "2"}) {
    a->send(std::string("a") + text);
    b->send(std::string("b") + text);
  }
  for (const auto& [text, fd] :
       {std::pair("a1", fdA), std::pair("b1", fdB), std::pair("a2", fdA), std::pair("b2", fdB)}) {
    EXPECT_EQ(server_->select(), 2 - (fd == fdB && text[1] == '2'));
    EXPECT_EQ(readNext(), text);
    EXPECT_EQ(from_, fd);
  }
}

TEST_F(ServerMessages, ClientsWithoutAMessageArePassedOver) {
  serve();
  std::unique_ptr<RawClient> a, b, c;
  accept(a);
  accept(b);
  const int fdC = accept(c);
  c->send("from c");
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "from c");
  EXPECT_EQ(from_, fdC);
}

TEST_F(ServerMessages, DisconnectedClientIsDroppedByTheReadThatReachesIt) {
  serve();
  std::unique_ptr<RawClient> client;
  const int fd = accept(client);
  client->close();
  EXPECT_EQ(server_->select(), 1);
  EXPECT_TRUE(log_.atPriority(LOG_ERR).empty());
  EXPECT_EQ(readNext(), "<-1>");
  const std::vector<LogLine> expected = {{LOG_ERR, closedText(fd)}, {LOG_ERR, "not conneted"}};
  EXPECT_EQ(log_.atPriority(LOG_ERR), expected);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(server_->select(), -1);
  EXPECT_EQ(readNext(), "<0>");
}

// Programs that read the log know these operations, not our helpers.
TEST_F(ServerMessages, DropsAreLoggedUnderReadMesgWhicheverOperationReads) {
  serve();
  for (const bool ready : {false, true}) {
    std::unique_ptr<RawClient> client;
    const std::string fd = std::to_string(accept(client));
    client->close();
    log_.clear();
    server_->select();
    EXPECT_EQ(ready ? readReady() : readNext(), "<-1>");
    const std::vector<LogLine> expected = {
        {LOG_ERR, "readMesg line N is CMesgServer: socket " + fd + " closed"},
        {LOG_ERR, "m_setupSelect line N is CMesgServer: not conneted"}};
    EXPECT_EQ(linesAsN(), expected) << ready;
  }
}

TEST_F(ServerMessages, ReadAndWriteErrorsAreLoggedUnderTheOperationAsked) {
  serve();
  std::unique_ptr<RawClient> client;
  const int fd = accept(client);
  ASSERT_EQ(server_->writeMesg("unread", 6, fd), 6);
  client->close();  // with an unread message: the server's end is reset
  log_.clear();
  server_->select();
  EXPECT_EQ(readNext(), "<-1>");
  EXPECT_EQ(server_->writeMesg("late", 4, fd), -1);
  const std::vector<LogLine> expected = {
      {LOG_ERR, "readMesg line N is CMesgServer: errorNumber = " + std::to_string(ECONNRESET)},
      {LOG_ERR, "writeMesg line N is CMesgServer: write(fd=" + std::to_string(fd) +
                    ", mesg, size=4) error(" + std::to_string(EPIPE) + ")"}};
  EXPECT_EQ(linesAsN(), expected);
}

TEST_F(ServerMessages, AfterADropTheNextRoundStartsOneFurtherOn) {
  serve();
  std::unique_ptr<RawClient> a, b, c;
  accept(a);
  const int fdB = accept(b);
  const int fdC = accept(c);
  a->close();
  b->send("from b");
  c->send("from c");
  EXPECT_EQ(server_->select(), 3);
  EXPECT_EQ(readNext(), "<-1>");
  EXPECT_EQ(from_, fdB);
  EXPECT_EQ(readNext(), "from c");
  EXPECT_EQ(from_, fdC);
  EXPECT_EQ(readNext(), "from b");
  EXPECT_EQ(from_, fdB);
}

TEST_F(ServerMessages, DroppingTheLastOfTheListNamesNobodyAndStaysAtTheEnd) {
  serve();
  std::unique_ptr<RawClient> a, b, c;
  const int fdA = accept(a);
  accept(b);
  b->close();
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "<-1>");
  EXPECT_EQ(from_, -1);
  // At the end, so the round begins anew, not with a client that joined there.
  accept(c);
  a->send("from a");
  c->send("from c");
  EXPECT_EQ(server_->select(), 2);
  EXPECT_EQ(readNext(), "from a");
  EXPECT_EQ(from_, fdA);
}

TEST_F(ServerMessages, ReadingASilentClientDropsIt) {
  serve();
  std::unique_ptr<RawClient> a, b;
  const int fdA = accept(a);
  const int fdB = accept(b);
  EXPECT_EQ(readNext(), "<-1>");
  EXPECT_TRUE(log_.has(LOG_ERR, closedText(fdA)));
  EXPECT_EQ(from_, fdB);
  EXPECT_EQ(a->receive(), "");
}

TEST_F(ServerMessages, ReadErrorIsLoggedAndKeepsTheClient) {
  serve();
  std::unique_ptr<RawClient> client;
  const int fd = accept(client);
  ASSERT_EQ(server_->writeMesg("unread", 6, fd), 6);
  client->close();  // with an unread message: the server's end is reset
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "<-1>");
  const std::vector<LogLine> expected = {{LOG_ERR, "errorNumber = " + std::to_string(ECONNRESET)}};
  EXPECT_EQ(log_.atPriority(LOG_ERR), expected);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "<-1>");
  EXPECT_TRUE(log_.has(LOG_ERR, closedText(fd)));
}

TEST_F(ServerMessages, FailedWriteKeepsTheNumberUntilTheClientIsDropped) {
  serve();
  std::unique_ptr<RawClient> gone, other;
  const int fd = accept(gone);
  accept(other);
  gone->close();
  EXPECT_EQ(server_->writeMesg("answer", 6, fd), -1);
  const std::vector<LogLine> expected = {
      {LOG_ERR,
       "write(fd=" + std::to_string(fd) + ", mesg, size=6) error(" + std::to_string(EPIPE) + ")"}};
  EXPECT_EQ(log_.atPriority(LOG_ERR), expected);
  std::vector<tarn::UniqueFd> files(8);
  for (tarn::UniqueFd& file : files) {
    file.reset(open("/dev/null", O_RDONLY));
    EXPECT_NE(file.get(), fd);
  }
  std::unique_ptr<RawClient> joined;
  EXPECT_NE(accept(joined), fd);
  other->send("still served");
  EXPECT_EQ(server_->select(), 2);
  EXPECT_EQ(readNext(), "<-1>");
  EXPECT_TRUE(log_.has(LOG_ERR, closedText(fd)));
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "still served");
}

TEST_F(ServerMessages, ClientThatTakesNoAnswersIsCutOffWithoutBlocking) {
  serve();
  std::unique_ptr<RawClient> client;
  const int fd = accept(client);
  const std::string answer(1024, 'a');
  int sent = 0;
  while (server_->writeMesg(answer.data(), 1024, fd) == 1024) ++sent;
  EXPECT_GT(sent, 1);
  EXPECT_TRUE(log_.has(LOG_ERR, "write(fd=" + std::to_string(fd) + ", mesg, size=1024) error(" +
                                    std::to_string(EAGAIN) + ")"));
  for (int i = 0; i < sent; ++i) EXPECT_EQ(client->receive(), answer);
  EXPECT_EQ(client->receive(), "");
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "<-1>");
  EXPECT_TRUE(log_.has(LOG_ERR, closedText(fd)));
}

TEST_F(ServerMessages, WritingToADeadClientNeverRaisesSigpipe) {
  serve();
  std::unique_ptr<RawClient> client;
  const int fd = accept(client);
  client->close();
  signal(SIGPIPE, SIG_DFL);  // as a careless program would
  EXPECT_EQ(server_->writeMesg("answer", 6, fd), -1);
}

TEST_F(ServerMessages, ConstructionMakesTheProcessIgnoreSigpipe) {
  signal(SIGPIPE, SIG_DFL);
  serve();
  EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST_F(ServerMessages, WritingToNobodyFailsAndIsLogged) {
  serve();
  EXPECT_EQ(server_->writeMesg("x", 1, -1), -1);
  EXPECT_TRUE(log_.has(LOG_ERR, "write(fd=-1, mesg, size=1) error(" + std::to_string(EBADF) + ")"));
}

// ---- New clients while the owner waits ----

TEST_F(ServerMessages, NewClientsFirstRequestDoesNotWaitForTheTimeOut) {
  serve();  // 60 s, more than the test may take
  std::unique_ptr<RawClient> silent;
  accept(silent);
  std::thread joiner([] {
    RawClient client(kSocketPath);
    client.send("first");
    client.receive();
  });
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "first");
  EXPECT_EQ(server_->writeMesg("answer", 6, from_), 6);
  joiner.join();
}

TEST_F(ServerMessages, NewClientsNeitherCountNorProlongTheTimeOut) {
  serve(0, 100000);
  std::unique_ptr<RawClient> silent;
  accept(silent);
  std::atomic<bool> waiting{true};
  constexpr int kMost = 400;
  std::vector<std::unique_ptr<RawClient>> joined;
  std::thread joiner([&] {
    while (waiting && joined.size() < kMost) {
      joined.push_back(std::make_unique<RawClient>(kSocketPath));
      std::this_thread::sleep_for(milliseconds(5));
    }
  });
  const auto begin = steady_clock::now();
  EXPECT_EQ(server_->select(), 0);
  EXPECT_GE(steady_clock::now() - begin, milliseconds(99));
  waiting = false;
  joiner.join();
  EXPECT_LT(joined.size(), size_t{kMost});  // with the time-out begun anew each time: never
}

TEST_F(ServerMessages, ClientThatJoinsBesideAMessageIsNotMarked) {
  serve();
  std::unique_ptr<RawClient> a, b;
  const int fdA = accept(a);
  a->send("from a");
  accept(b);  // the wake-up and the message are there together
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readReady(), "from a");
  EXPECT_EQ(from_, fdA);
  EXPECT_EQ(readReady(), "<0>");
}

TEST_F(ServerMessages, WaitForClientSleepsUntilThereIsOne) {
  serve();
  EXPECT_EQ(server_->waitForClient(1), 0);
  std::unique_ptr<RawClient> client;
  std::thread joiner([&] { client = std::make_unique<RawClient>(kSocketPath); });
  EXPECT_EQ(server_->waitForClient(-1), 1);
  joiner.join();
  EXPECT_EQ(server_->waitForClient(-1), 1);
}

TEST_F(ServerMessages, InterruptEndsTheRunningOrTheNextWait) {
  serve();
  server_->interrupt();
  EXPECT_EQ(server_->waitForClient(-1), 0);
  std::unique_ptr<RawClient> client;
  accept(client);
  server_->interrupt();
  EXPECT_EQ(server_->select(), 0);
  std::thread other([&] {
    std::this_thread::sleep_for(milliseconds(10));
    server_->interrupt();
  });
  EXPECT_EQ(server_->select(), 0);
  other.join();
  client->send("still served");
  EXPECT_EQ(server_->select(), 1);
}

TEST_F(ServerMessages, InterruptLeavesNobodyMarked) {
  serve();
  std::unique_ptr<RawClient> client;
  accept(client);
  client->send("later");
  server_->interrupt();
  EXPECT_EQ(server_->select(), 0);
  EXPECT_EQ(readReady(), "<0>");
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readReady(), "later");
}

// ---- One select for many ----

TEST_F(ServerMessages, ReadReadyReadsEachMarkedClientOnce) {
  serve();
  std::unique_ptr<RawClient> a, silent, b;
  accept(a);
  accept(silent);
  accept(b);
  a->send("a1");
  a->send("a2");
  b->send("b1");
  EXPECT_EQ(server_->select(), 2);
  EXPECT_EQ(readReady(), "a1");
  EXPECT_EQ(readReady(), "b1");
  EXPECT_EQ(readReady(), "<0>");
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readReady(), "a2");
  EXPECT_EQ(readReady(), "<0>");
  b->send("b2");
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readReady(), "b2");
}

TEST_F(ServerMessages, ReadReadySurvivesDropsWithoutLosingATurn) {
  serve();
  std::unique_ptr<RawClient> a, b, c, silent;
  accept(a);
  accept(b);
  accept(c);
  accept(silent);
  a->close();
  b->send("from b");
  c->close();
  EXPECT_EQ(server_->select(), 3);
  std::vector<std::string> seen;
  for (std::string got; (got = readReady()) != "<0>";) seen.push_back(got);
  EXPECT_THAT(seen, testing::UnorderedElementsAre("<-1>", "from b", "<-1>"));
  EXPECT_EQ(silent->receive(0), "<nothing>");  // not dropped
}

TEST_F(ServerMessages, CloseClientsDisconnectsAll) {
  serve();
  std::unique_ptr<RawClient> a, b;
  accept(a);
  accept(b);
  server_->closeClients();
  EXPECT_EQ(a->receive(), "");
  EXPECT_EQ(b->receive(), "");
  EXPECT_EQ(server_->select(), -1);
  EXPECT_EQ(readNext(), "<0>");
  std::unique_ptr<RawClient> c;
  accept(c);
  c->send("from c");
  EXPECT_EQ(server_->select(), 1);
  EXPECT_EQ(readNext(), "from c");
}

}  // namespace
}  // namespace tarn_test
