// Every command on cards that are damaged, or are none: an answer in words, never a crash or a
// hang.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "recorder/CheckRig.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using nlohmann::json;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kCard[] = "/tmp/card";
constexpr size_t kSector = 512;

// A command that hangs ends with 124, one that crashes with 128 and more.
ShellResult tarn(const std::string& arguments) {
  return shell("timeout 120 " TARN_BIN_DIR "/tarn " + arguments);
}

bool hasMedia() { return tarn("record --help").exitCode == 0; }

Bytes noise(size_t size, uint64_t seed) {
  Bytes bytes(size);
  for (uint8_t& byte : bytes) {
    seed = seed * 6364136223846793005u + 1442695040888963407u;
    byte = static_cast<uint8_t>(seed >> 56);
  }
  return bytes;
}

class TarnDamagedCard : public CheckRig {
 protected:
  void SetUp() override {
    if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
    CheckRig::SetUp();
    good_ = wholeCard();
  }

  static void setCard(const Bytes& bytes) {
    const tarn::UniqueFd fd(open(kCard, O_WRONLY | O_CREAT | O_TRUNC, 0600));
    ASSERT_EQ(::write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void damage(uint64_t offset, const Bytes& bytes) const {
    Bytes card = good_;
    std::copy(bytes.begin(), bytes.end(), card.begin() + static_cast<std::ptrdiff_t>(offset));
    setCard(card);
  }

  uint64_t le16At(size_t offset) const { return good_[offset] | good_[offset + 1] << 8; }
  uint64_t le32At(size_t offset) const { return le16At(offset) | le16At(offset + 2) << 16; }
  uint64_t fatByte(uint32_t copy) const { return (le16At(14) + copy * le32At(36)) * kSector; }
  uint64_t rootByte() const { return fatByte(2) + (le32At(44) - 2) * good_[13] * kSector; }

  Bytes good_;
};

TEST_F(TarnDamagedCard, WhatIsNoCardIsRefusedByEveryCommandInWords) {
  const size_t size = good_.size();
  std::vector<std::string> commands = {"recover", "list",        "list events",
                                       "log",     "log --write", "run -- true"};
  if (hasMedia()) {
    ASSERT_EQ(shell("printf '\\0\\0\\0\\1\\145\\210\\204\\041' >/tmp/clip.h264").exitCode, 0);
    commands.insert(commands.end(),
                    {"record - </tmp/clip.h264", "export --stream 1 -o /tmp/out.h264"});
  }
  for (const Bytes& bytes :
       {Bytes(), Bytes(kSector, 0), Bytes(size, 0), Bytes(size, 0xFF), noise(size, 1)}) {
    SCOPED_TRACE(std::to_string(bytes.size()) + " bytes, first " +
                 (bytes.empty() ? "" : std::to_string(bytes[0])));
    setCard(bytes);
    const ShellResult check = tarn("check /tmp/card");
    EXPECT_EQ(check.exitCode, 8) << check.output;
    EXPECT_THAT(check.output, StartsWith("tarn: "));
    const ShellResult info = tarn("info /tmp/card");
    EXPECT_EQ(info.exitCode, 1) << info.output;
    EXPECT_THAT(info.output, StartsWith("tarn: "));
    for (const std::string& command : commands) {
      const ShellResult result = tarn("--card /tmp/card " + command);
      EXPECT_EQ(result.exitCode, 1) << command << ": " << result.output;
      EXPECT_THAT(result.output, StartsWith("tarn: ")) << command;
    }
    EXPECT_EQ(shell("test -e /tmp/out.h264").exitCode, 1);
  }
}

struct Damage {
  std::string where;
  uint64_t offset;
};

class TarnDamagedSector : public TarnDamagedCard {
 protected:
  // What runs on the card, and leaves what it said in files.
  static ShellResult useCard() {
    const std::string program = TARN_BIN_DIR "/tarn ";
    const std::string out = " >/tmp/.outside/";
    std::string commands = program + "list --json" + out + "rows; ";
    if (hasMedia()) {
      commands += program + "export --stream 2 --force -o /tmp/.outside/out.h264" + out + "said; ";
    }
    return tarn("--card /tmp/card run -- sh -c '" + commands + program + "log" + out + "log'");
  }

  // All recordings are listed again, the log can be read, and check has an opinion.
  void expectUsable(const Damage& place, const Bytes& filling) {
    SCOPED_TRACE(place.where + ", filled with " + std::to_string(filling[0]));
    damage(place.offset, filling);
    const ShellResult before = tarn("check /tmp/card");
    EXPECT_THAT(before.exitCode, AnyOf(0, 4)) << before.output;
    EXPECT_THAT(before.output, HasSubstr("/tmp/card: "));
    const ShellResult run = useCard();
    EXPECT_EQ(run.exitCode, 0) << run.output;
    const json rows = json::parse(shell("cat /tmp/rows").output, nullptr, false);
    EXPECT_EQ(rows["streams"].size(), 3u) << run.output;
    const ShellResult after = tarn("check /tmp/card");
    EXPECT_THAT(after.exitCode, AnyOf(0, 4)) << after.output;
  }

  // Without these a card is none.
  void expectRefusal(const Damage& place, const Bytes& filling) {
    SCOPED_TRACE(place.where + ", filled with " + std::to_string(filling[0]));
    damage(place.offset, filling);
    const ShellResult check = tarn("check /tmp/card");
    EXPECT_THAT(check.exitCode, AnyOf(4, 8)) << check.output;
    const ShellResult run = useCard();
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_THAT(run.output, StartsWith("tarn: "));
  }

  const Bytes zeros_ = Bytes(kSector, 0);
  const Bytes ones_ = Bytes(kSector, 0xFF);
  const Bytes noise_ = noise(kSector, 7);
};

TEST_F(TarnDamagedSector, OfTheFileSystemIsNeededByTheRecorderOrNot) {
  const std::vector<Damage> unused = {{"FSINFO", kSector},
                                      {"backup boot sector", 6 * kSector},
                                      {"FAT", fatByte(0)},
                                      {"second FAT", fatByte(1)}};
  const std::vector<Damage> needed = {{"boot sector", 0},
                                      {"root directory", rootByte()},
                                      {"info file", chunkByte(tarn::kFileInfo, 0)}};
  for (const Damage& place : unused) expectUsable(place, noise_);
  for (const Damage& place : needed) expectRefusal(place, zeros_);
  expectRefusal(needed[0], noise_);
}

TEST_F(TarnDamagedSector, OfWhatIsThereTwiceTakesNothing) {
  const std::vector<Damage> places = {
      {"management of streams", chunkByte(tarn::kFileStreamManage, 0)},
      {"its backup", chunkByte(tarn::kFileStreamManage, 1)},
      {"management of the log", chunkByte(tarn::kFileSyslogManage, 0)},
      {"management of the journal", chunkByte(tarn::kFileJournalManage, 0)},
      {"event journal", chunkByte(tarn::kFileJournal, 0)},
      {"stream journal", chunkByte(tarn::kFileJournal, 2)},
      {"its mirror", chunkByte(tarn::kFileJournal, 3)},
  };
  for (const Damage& place : places) expectUsable(place, zeros_);
  const Damage original = {"stream journal", chunkByte(tarn::kFileJournal, 2)};
  expectUsable(original, ones_);
  expectUsable(original, noise_);
}

TEST_F(TarnDamagedSector, OfWhatIsThereOnceTakesNoMoreThanItself) {
  const std::vector<Damage> places = {
      {"stream header", chunkByte(tarn::kFilePicture, rows_[0].chunkID, rows_[0].chunkOffset)},
      {"pictures", chunkByte(tarn::kFileStream, rows_[0].chunkID)},
      {"system log", chunkByte(tarn::kFileSyslog, 0)},
      {"database image", chunkByte(tarn::kFileDbImage, 0)},
  };
  for (const Damage& place : places) expectUsable(place, noise_);
}

}  // namespace
}  // namespace tarn_test
