#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "db/CApiDb.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/ServerRetry.h"

namespace tarn {
namespace {

using State = DatabaseGate::State;

// A process that takes the lock and dies with it.
pid_t dieWithTheLock() {
  const pid_t child = fork();
  if (child == 0) {
    CApiDb db;
    db.lockSem();
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  return child;
}

TEST(DatabaseGate, IsOpenWhileNobodyHoldsTheLock) {
  EXPECT_EQ(DatabaseGate::look(), State::kFree) << "no lock yet";
  CApiDb db;
  pid_t holder = 7;
  EXPECT_EQ(DatabaseGate::look(&holder), State::kFree);
  EXPECT_EQ(holder, 0);
  EXPECT_FALSE(DatabaseGate::releaseDead());
}

TEST(DatabaseGate, NamesALivingHolderAndWaitsForItWithALimit) {
  CApiDb db;
  ASSERT_EQ(db.lockSem(), 0u);
  pid_t holder = 0;
  EXPECT_EQ(DatabaseGate::look(&holder), State::kHeld);
  EXPECT_EQ(holder, getpid());
  EXPECT_FALSE(DatabaseGate::releaseDead()) << "its holder lives";
  EXPECT_EQ(DatabaseGate::await(50), State::kHeld);
  std::thread later([&db] {
    usleep(30000);
    db.unlockSem();
  });
  EXPECT_EQ(DatabaseGate::await(20000), State::kFree);
  later.join();
}

TEST(DatabaseGate, TellsAHolderThatDiedAtOnce) {
  const pid_t dead = dieWithTheLock();
  pid_t holder = 0;
  const int64_t begin = monotonicMs();
  EXPECT_EQ(DatabaseGate::await(20000, &holder), State::kHolderDead);
  EXPECT_LT(monotonicMs() - begin, 5000);
  EXPECT_EQ(holder, dead);
}

TEST(DatabaseGate, SetsTheLockOfADeadHolderFreeOnce) {
  dieWithTheLock();
  EXPECT_TRUE(DatabaseGate::releaseDead());
  EXPECT_FALSE(DatabaseGate::releaseDead());
  const int lock = semget(ftok("/bin/cp", 1), 1, 0);
  EXPECT_EQ(semctl(lock, 0, GETVAL), 1) << "one user at a time, as before";
  CApiDb db;
  EXPECT_EQ(db.lockSem(), 0u);
  db.unlockSem();
}

// A process that used the lock, gave it back and ended is nobody's business.
TEST(DatabaseGate, AUserThatEndedInPeaceLeavesItOpen) {
  const pid_t child = fork();
  if (child == 0) {
    CApiDb db;
    db.lockSem();
    db.unlockSem();
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  EXPECT_EQ(DatabaseGate::look(), State::kFree);
}

}  // namespace
}  // namespace tarn
