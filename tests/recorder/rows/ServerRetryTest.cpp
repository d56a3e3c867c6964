// How long a program of the recorder goes on asking a server that does not answer.

#include <gtest/gtest.h>

#include <thread>

#include "recorder/rows/ServerRetry.h"

namespace tarn_test {
namespace {

using tarn::kServerPatienceMs;
using tarn::RequestPatience;
using tarn::retryFor;

class ServerRetry : public testing::Test {
 protected:
  ~ServerRetry() override {
    tarn::waitForServerForever(false);
    RequestPatience::resume();
  }
  bool never() {
    ++attempts_;
    return false;
  }
  int attempts_ = 0;
};

TEST_F(ServerRetry, AnAttemptIsMadeOnceWithoutAnyPatience) {
  EXPECT_FALSE(retryFor(0, [this] { return never(); }));
  EXPECT_EQ(attempts_, 1);
}

TEST_F(ServerRetry, PatienceCountsFromTheFirstAttempt) {
  EXPECT_FALSE(retryFor(60, [this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(70));
    return never();
  }));
  EXPECT_EQ(attempts_, 1) << "an attempt that waited for an answer was the patience";
}

TEST_F(ServerRetry, AnAttemptThatSucceedsEndsIt) {
  EXPECT_TRUE(retryFor(kServerPatienceMs, [this] { return ++attempts_ == 2; }));
}

TEST_F(ServerRetry, WaitingForeverEndsWithTheProgramOnly) {
  EXPECT_EQ(tarn::serverPatienceMs(), kServerPatienceMs);
  tarn::waitForServerForever(true);
  EXPECT_EQ(tarn::serverPatienceMs(), RequestPatience::kForever);
  EXPECT_FALSE(retryFor(100, [this] { return never(); })) << "short waits stay short";
  EXPECT_TRUE(retryFor(kServerPatienceMs, [this] { return ++attempts_ > 5; }));
  RequestPatience::hurry();
  const int64_t begin = tarn::monotonicMs();
  EXPECT_FALSE(retryFor(kServerPatienceMs, [this] { return never(); }));
  EXPECT_LT(tarn::monotonicMs() - begin, 1900);
}

}  // namespace
}  // namespace tarn_test
