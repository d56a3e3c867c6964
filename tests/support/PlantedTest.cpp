// Tests that end in all the ways that a test can, for tests/support/planted: who runs tests must
// tell each for what it is.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

TEST(Planted, Passes) {}
TEST(Planted, Fails) { ADD_FAILURE() << "planted"; }
TEST(Planted, Skips) { GTEST_SKIP() << "planted"; }
TEST(Planted, Crashes) { abort(); }
TEST(Planted, ExitsInItsMidst) { exit(0); }
TEST(Planted, QuitsInItsMidst) { _exit(0); }
TEST(Planted, QuitsAsIfSkipped) { _exit(77); }

TEST(Planted, FailsBehindItsEnd) {
  ASSERT_EQ(0, atexit([] { _exit(9); }));
}

TEST(Planted, HasAChildThatExits) {
  const pid_t child = fork();
  if (child == 0) exit(5);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(5, WEXITSTATUS(status));
}

TEST(Planted, LeavesAChildBehind) {
  if (fork() == 0) {
    for (;;) pause();
  }
}
