// A case that was interrupted goes on where it was, by what its sums prove.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "media/MoviePieces.h"
#include "media/evidence/EvidenceExporter.h"
#include "recorder/RecorderRig.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr char kDir[] = "/tmp/case";
constexpr char kPart[] = "/tmp/case.part";
constexpr char kFinished[] = "/tmp/case.part/.finished";
constexpr int64_t kBegin = kWall / 1000000;

std::string textOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

size_t linesOf(const std::string& path) {
  const std::string text = textOf(path);
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

ino_t numberOf(const std::string& path) {
  struct stat found = {};
  return stat(path.c_str(), &found) == 0 ? found.st_ino : 0;
}

// Two seconds on each of three channels.
class EvidenceContinues : public testing::Test {
 protected:
  void SetUp() override {
    for (int8_t channel = 0; channel < 3; ++channel) record(channel, 0);
  }
  static void record(int8_t channel, int64_t fromUs) {
    tarn::RecordingSession session;
    tarn::RecordingOptions options;
    options.channel = channel;
    ASSERT_EQ(session.open(options), 0) << session.errorText();
    for (int64_t i = 0; i < 50; ++i) {
      const tarn::OutputPicture one = pictureAt(fromUs + i * 40000 + channel, i % 25 == 0);
      ASSERT_EQ(
          session.writePicture(one.annexB.data(), one.annexB.size(), one.presentation, 0, one.key),
          0);
    }
    ASSERT_EQ(session.close(), 0);
  }
  static tarn::EvidenceRequest request() {
    tarn::EvidenceRequest request;
    request.what.from = tarn::PictureTime{kBegin - 10, 0};
    request.what.to = tarn::PictureTime{kBegin + 30, 0};
    request.folder = kDir;
    return request;
  }
  static std::string videoOf(const std::string& folder, int channel) {
    return folder + "/video/video-ch" + std::to_string(channel) + ".mp4";
  }
  // Kills a run once so many channels are finished.
  static void killBehind(size_t channels) {
    const pid_t child = fork();
    if (child == 0) {
      tarn::EvidenceExporter exporter(request());
      exporter.run([channels] {
        if (linesOf(kFinished) >= channels && numberOf(std::string(kPart) + "/original") != 0)
          raise(SIGKILL);
        return false;
      });
      _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << channels;
    ASSERT_EQ(linesOf(kFinished), channels);
    ASSERT_EQ(numberOf(kDir), 0u) << "complete or not at all";
  }
  // All that two runs of the same case must tell alike.
  static json told() {
    json manifest = json::parse(textOf(std::string(kDir) + "/manifest.json"), nullptr, false);
    manifest.erase("made");
    for (json& file : manifest["files"]) {
      if (file["name"] == "report.html") file = json();  // tells when it was made
    }
    return manifest;
  }
  static json whole() {
    tarn::EvidenceExporter exporter(request());
    EXPECT_TRUE(exporter.run()) << exporter.error();
    EXPECT_EQ(exporter.keptChannels(), 0u);
    const json manifest = told();
    EXPECT_EQ(shell("rm -r /tmp/case").exitCode, 0);
    return manifest;
  }

  RecorderRig rig{{256 * kKiB, 64 * kKiB, 6, 64 * kKiB}};
  SyslogCapture log;
};

TEST_F(EvidenceContinues, BehindEachFinishedChannelOfARunThatWasKilled) {
  const json expected = whole();
  for (size_t channels = 0; channels <= 3; ++channels) {
    killBehind(channels);
    ino_t before[3] = {};
    for (int i = 0; i < 3; ++i) before[i] = numberOf(videoOf(kPart, i));
    tarn::EvidenceExporter exporter(request());
    ASSERT_TRUE(exporter.run()) << exporter.error();
    EXPECT_EQ(exporter.keptChannels(), channels);
    EXPECT_EQ(exporter.beganAnew(), channels == 0);
    EXPECT_EQ(exporter.channels().size(), 3u);
    EXPECT_EQ(told(), expected) << channels;
    for (size_t i = 0; i < channels; ++i)
      EXPECT_EQ(numberOf(videoOf(kDir, static_cast<int>(i))), before[i]) << "not made again";
    EXPECT_EQ(shell("cd /tmp/case && sha256sum --check --quiet SHA256SUMS && ls -A").output,
              "README.txt\nSHA256SUMS\nlog.txt\nmanifest.json\noriginal\nreport.html\nvideo\n");
    EXPECT_EQ(numberOf(kPart), 0u);
    ASSERT_EQ(shell("rm -r /tmp/case").exitCode, 0);
  }
}

TEST_F(EvidenceContinues, WithNothingThatIsNotProven) {
  const json expected = whole();
  const char* const spoils[] = {
      "printf X | dd of=%0 bs=1 seek=200 conv=notrunc 2>/dev/null",  // a byte of a file
      "truncate -s -1 %0",                                           // its end
      "rm %0",
      "sed -i '1s/\"written\":50/\"written\":49/' /tmp/case.part/.finished",  // what is told of it
      "truncate -s 100 /tmp/case.part/.finished",                             // a torn line
      "cp %1 %0",                                                             // another file
      "touch /tmp/case.part/video/strange.mp4 && mkdir /tmp/case.part/video/folder",
  };
  for (std::string spoil : spoils) {
    killBehind(2);
    for (int i = 0; i < 2; ++i) {
      const size_t at = spoil.find("%" + std::to_string(i));
      if (at != std::string::npos) spoil.replace(at, 2, videoOf(kPart, i));
    }
    ASSERT_EQ(shell(spoil).exitCode, 0) << spoil;
    tarn::EvidenceExporter exporter(request());
    ASSERT_TRUE(exporter.run()) << exporter.error() << spoil;
    EXPECT_EQ(exporter.keptChannels(), spoil.find("strange") != std::string::npos     ? 2u
                                       : spoil.find(".finished") != std::string::npos ? 0u
                                                                                      : 1u)
        << spoil;
    EXPECT_EQ(told(), expected) << spoil;
    ASSERT_EQ(shell("rm -r /tmp/case").exitCode, 0);
  }
}

TEST_F(EvidenceContinues, AlsoBehindALineThatPowerTore) {
  killBehind(1);
  ASSERT_EQ(shell("printf 0123 >> /tmp/case.part/.finished").exitCode, 0);
  killBehind(2);
  tarn::EvidenceExporter exporter(request());
  ASSERT_TRUE(exporter.run()) << exporter.error();
  EXPECT_EQ(exporter.keptChannels(), 2u);
}

TEST_F(EvidenceContinues, AndTakesNothingAwayOutsideOfItsVideo) {
  killBehind(1);
  const auto line = shell(
      "echo precious > /tmp/outside; "
      "text='{\"channel\":0,\"files\":[],\"of\":\"x\",\"sums\":[{\"bytes\":9,"
      "\"name\":\"video/../../outside\",\"sha256\":\"'$(sha256sum < /tmp/outside | cut "
      "-c1-64)'\"}]}'; "
      "printf '%s %s\\n' $(printf %s \"$text\" | sha256sum | cut -c1-64) \"$text\" "
      "> /tmp/case.part/.finished");
  ASSERT_EQ(line.exitCode, 0);
  tarn::EvidenceExporter exporter(request());
  ASSERT_TRUE(exporter.run()) << exporter.error();
  EXPECT_EQ(exporter.keptChannels(), 0u);
  EXPECT_EQ(textOf("/tmp/outside"), "precious\n");
}

TEST_F(EvidenceContinues, OnlyWhereItIsOfTheSame) {
  killBehind(2);
  record(1, 5000000);  // one channel has more now
  tarn::EvidenceExporter exporter(request());
  ASSERT_TRUE(exporter.run()) << exporter.error();
  EXPECT_EQ(exporter.keptChannels(), 1u);
  EXPECT_EQ(exporter.channels()[1].totals.written, 100u);
  ASSERT_EQ(shell("rm -r /tmp/case").exitCode, 0);
  killBehind(2);
  tarn::EvidenceRequest other = request();
  other.what.to = tarn::PictureTime{kBegin + 1, 0};
  tarn::EvidenceExporter shorter(other);
  ASSERT_TRUE(shorter.run()) << shorter.error();
  EXPECT_EQ(shorter.keptChannels(), 0u);
  EXPECT_TRUE(shorter.beganAnew());
  EXPECT_LT(shorter.channels()[0].totals.written, 50u);
}

TEST_F(EvidenceContinues, WhereItWasStoppedInOrder) {
  const json expected = whole();
  tarn::EvidenceExporter stopped(request());
  EXPECT_FALSE(stopped.run([] { return linesOf(kFinished) >= 1; }));
  EXPECT_STREQ(stopped.error(), "stopped before its end");
  EXPECT_TRUE(stopped.leavesParts());
  EXPECT_EQ(numberOf(kDir), 0u);
  tarn::EvidenceExporter exporter(request());
  ASSERT_TRUE(exporter.run()) << exporter.error();
  EXPECT_EQ(exporter.keptChannels(), 1u);
  EXPECT_FALSE(exporter.leavesParts());
  EXPECT_EQ(told(), expected);
}

}  // namespace
}  // namespace tarn_test
