// Programs that get no memory at some moment of their lives end with one line and exit code 1.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/Shell.h"

namespace tarn_test {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kPreloaded[] = TARN_BIN_DIR "/libtarn_no_memory.so";

class OutOfMemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kPreloaded, F_OK) != 0) GTEST_SKIP() << "the sanitizers own the allocations";
    ASSERT_EQ(shell(TARN_BIN_DIR "/tarn format /tmp/card --size 34M").exitCode, 0);
  }

  static ShellResult run(const std::string& command, unsigned long from) {
    return shell("LD_PRELOAD=" + std::string(kPreloaded) + " TARN_NO_MEMORY_FROM=" +
                 std::to_string(from) + " timeout 60 " TARN_BIN_DIR "/" + command);
  }

  // At each of its first allocations and at some of the later ones, until all were enough.
  template <typename Expect>
  static void failAtEach(const std::string& command, unsigned long step, Expect expect) {
    unsigned long failed = 0;
    for (unsigned long from = 1;; from += 1 + from / step) {
      ASSERT_LT(from, 10000000u) << command;
      SCOPED_TRACE(command + " without memory from allocation " + std::to_string(from));
      const ShellResult result = run(command, from);
      ASSERT_THAT(result.exitCode, AnyOf(0, 1)) << result.output;
      if (result.exitCode == 0) break;
      expect(result);
      ++failed;
    }
    EXPECT_GT(failed, 3u) << command;
  }
};

TEST_F(OutOfMemoryTest, OneLineAndAFailureWhereverItIsMissing) {
  const auto oneLine = [](const ShellResult& result) {
    EXPECT_EQ(result.output, "tarn: out of memory\n");
  };
  failAtEach("tarn info /tmp/card", 2, oneLine);
  failAtEach("tarn --version", 1, oneLine);
}

TEST_F(OutOfMemoryTest, AViewAndAllInItEndsInOrder) {
  failAtEach("tarn --card /tmp/card list", 1, [](const ShellResult& result) {
    EXPECT_THAT(result.output, StartsWith("tarn"));
    EXPECT_THAT(result.output, Not(HasSubstr("terminate called")));
  });
  EXPECT_EQ(shell(TARN_BIN_DIR "/tarn --card /tmp/card list").exitCode, 0);
}

TEST_F(OutOfMemoryTest, OfTheOtherProgramsToo) {
  failAtEach("dbsetup init", 4, [](const ShellResult& result) {
    EXPECT_THAT(result.output, AnyOf("dbsetup: out of memory\n", "dbsetup init: out of memory\n"));
  });
  EXPECT_EQ(run("tarn-server", 1).exitCode, 1);
}

}  // namespace
}  // namespace tarn_test
