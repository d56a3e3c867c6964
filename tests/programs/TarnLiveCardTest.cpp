// The card of a recorder that runs is nobody else's, under whatever name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "recorder/RecorderRig.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using ::testing::HasSubstr;

constexpr char kCard[] = "/dev/sdblk0p1";
constexpr char kOtherName[] = "/dev/other";
constexpr char kInUse[] = " is in use: the recorder's management server runs";

ShellResult tarn(const std::string& arguments) {
  return shell(std::string(TARN_BIN_DIR "/tarn ") + arguments + " </dev/null");
}

std::string contents() {
  std::ifstream card(kCard, std::ios::binary);
  return {std::istreambuf_iterator<char>(card), {}};
}

class TarnLiveCardTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(symlink(kCard, kOtherName), 0); }
  void expectRefused(const std::string& arguments, const char* name, int code) {
    const ShellResult result = tarn(arguments);
    EXPECT_EQ(result.exitCode, code) << arguments;
    EXPECT_THAT(result.output, HasSubstr(std::string(name) + kInUse)) << arguments;
  }

  RecorderRig rig;
  SyslogCapture log;
};

TEST_F(TarnLiveCardTest, IsNeitherFormattedNorTakenIntoAView) {
  const std::string before = contents();
  expectRefused("format /dev/sdblk0p1 --force", kCard, 1);
  expectRefused("format /dev/other --force", kOtherName, 1);
  expectRefused("--card /dev/sdblk0p1 list", kCard, 1);
  EXPECT_TRUE(contents() == before);
}

TEST_F(TarnLiveCardTest, IsNotMended) {
  const size_t entry = contents().find("CKST0001");
  ASSERT_NE(entry, std::string::npos);
  {
    // The name of a chunk file, which the info file knows better.
    std::fstream card(kCard, std::ios::in | std::ios::out | std::ios::binary);
    card.seekp(static_cast<std::streamoff>(entry));
    card.put('X');
  }
  const std::string before = contents();
  expectRefused("check --repair --save-undo /tmp/undo", kCard, 8);
  EXPECT_TRUE(contents() == before);
  rig.stopServer();
  tarn("check --repair --save-undo /tmp/undo");
  EXPECT_EQ(contents().substr(entry, 8), "CKST0001");
}

TEST_F(TarnLiveCardTest, IsFreeAfterTheServersEnd) {
  rig.stopServer();
  EXPECT_EQ(tarn("format /dev/other --force --size 34M").exitCode, 0);
}

}  // namespace
}  // namespace tarn_test
