#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "recorder/rows/FileLock.h"

namespace tarn {
namespace {

constexpr char kPath[] = "/tmp/some.lock";

TEST(FileLock, TellsHeldByAnotherFromCannotOpen) {
  FileLock first;
  FileLock second;
  EXPECT_EQ(first.take(kPath, false), FileLock::Outcome::kTaken);
  EXPECT_EQ(second.take(kPath, false), FileLock::Outcome::kHeldByOther);
  EXPECT_FALSE(second.held());
  first.unlock();
  EXPECT_EQ(second.take(kPath, false), FileLock::Outcome::kTaken);
  EXPECT_EQ(first.take("/tmp/no-such-folder/some.lock", false), FileLock::Outcome::kCannotOpen);
}

TEST(FileLock, DoesNotFollowALinkThatSomebodyLaidThere) {
  ASSERT_EQ(symlink("/tmp/elsewhere", kPath), 0);
  FileLock lock;
  EXPECT_EQ(lock.take(kPath, true), FileLock::Outcome::kCannotOpen);
  EXPECT_NE(access("/tmp/elsewhere", F_OK), 0) << "nothing was made where the link points";
}

}  // namespace
}  // namespace tarn
