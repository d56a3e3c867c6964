#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>

#include "db/DbRecordFormat.h"
#include "dblog/JournalFormat.h"
#include "media/MoviePieces.h"
#include "media/evidence/EvidenceExporter.h"
#include "media/evidence/HtmlText.h"
#include "media/seal/FileVerifier.h"
#include "media/seal/SealKeys.h"
#include "recorder/RecorderRig.h"
#include "recorder/log/LogWriter.h"
#include "recorder/recording/RecordingReader.h"
#include "support/IoFaults.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr char kDir[] = "/tmp/case";
constexpr int64_t kSecond = 1000000;
constexpr uint32_t kBegin = 1700000000;
constexpr char kHostile[] = "</td><script src=\"http://evil/\">alert('x')</script>&\x1b[2J\xff";

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string textOf(const std::string& name) {
  std::ifstream file(std::string(kDir) + "/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Two recordings of two seconds, the second 20 s behind the first, an event in the first, and a
// line of the log between them.
class EvidenceExporterTest : public testing::Test {
 protected:
  void SetUp() override {
    record(0, true);
    record(20 * kSecond, false);
    tarn::LogWriter writer;
    ASSERT_EQ(writer.open(), 0) << writer.errorText();
    ASSERT_EQ(writer.append("long before", 11, kBegin - 1000), 0);
    ASSERT_EQ(writer.append(kHostile, sizeof kHostile - 1, kBegin + 5), 0);
    const std::string step =
        "RecordingSession: channel 0: the clock was set by 18000000 us, a new recording begins";
    ASSERT_EQ(writer.append(step.data(), step.size(), kBegin + 6), 0);
    ASSERT_EQ(writer.append("long behind", 11, kBegin + 1000), 0);
    ASSERT_EQ(writer.close(), 0) << writer.errorText();
  }
  // `wide`: 80 pixels instead of 64.
  static void record(int64_t from, bool withEvent, bool wide = false) {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    for (int64_t i = 0; i < 50; ++i) {
      tarn::OutputPicture one = pictureAt(from + i * 40000, i % 25 == 0);
      if (wide && one.key) one.annexB[9] = 0x15;
      ASSERT_EQ(
          session.writePicture(one.annexB.data(), one.annexB.size(), one.presentation, 0, one.key),
          0);
    }
    if (withEvent) {
      const uint32_t event = session.beginEvent(9, tarn::PictureTime{kBegin + 1, 0}, 0);
      ASSERT_NE(event, 0u);
      ASSERT_EQ(session.endEvent(event, tarn::PictureTime{kBegin + 2, 0}), 0);
    }
    ASSERT_EQ(session.close(), 0);
  }
  static tarn::EvidenceRequest request(const SealKey* key = nullptr) {
    tarn::EvidenceRequest request;
    request.what.from = tarn::PictureTime{kBegin - 10, 0};
    request.what.to = tarn::PictureTime{kBegin + 30, 0};
    request.folder = kDir;
    if (key != nullptr) request.seal = key->request("case \"12\" <b>");
    return request;
  }
  static void make(const tarn::EvidenceRequest& wanted) {
    tarn::EvidenceExporter exporter(wanted);
    ASSERT_TRUE(exporter.run()) << exporter.error() << testing::PrintToString(exporter.missing());
    ASSERT_STREQ(exporter.error(), "");
  }
  static json manifest() { return json::parse(textOf("manifest.json"), nullptr, false); }

  RecorderRig rig{{256 * kKiB, 64 * kKiB, 3, 64 * kKiB}};
  SyslogCapture log;
};

TEST_F(EvidenceExporterTest, ASealedFolderProvesItself) {
  const SealKey key("unit");
  make(request(&key));
  EXPECT_FALSE(exists(std::string(kDir) + ".part"));
  const ShellResult sums = shell("cd /tmp/case && sha256sum --check --strict SHA256SUMS");
  EXPECT_EQ(sums.exitCode, 0) << sums.output;
  // Each file is in it, but for it and its seal.
  const std::string unlisted =
      shell(
          "cd /tmp/case && find . -type f | sed 's,^./,,' | sort >/tmp/all; cut -c67- "
          "SHA256SUMS | sort | comm -13 - /tmp/all")
          .output;
  EXPECT_EQ(unlisted, "SHA256SUMS\nSHA256SUMS.sig\n");
  const json told = manifest();
  EXPECT_EQ(told["sealed"], true);
  for (const json& file : told["files"]) {
    const std::string name = file["name"];
    EXPECT_EQ(shell("sha256sum <'/tmp/case/" + name + "'").output,
              file["sha256"].get<std::string>() + "  -\n");
    EXPECT_EQ(file["bytes"], textOf(name).size());
  }
  const std::string video = told["channels"][0]["videos"][0]["file"];
  EXPECT_TRUE(tarn::FileVerifier().verify(std::string(kDir) + "/" + video).proven());
  EXPECT_THAT(textOf("report.html"), HasSubstr("unchanged since it was sealed"));
  EXPECT_THAT(textOf("report.html"), HasSubstr("case &quot;12&quot; &lt;b&gt;"));
  EXPECT_EQ(told["note"], "case \"12\" <b>");
}

TEST_F(EvidenceExporterTest, TheCommandsOfTheReportProveItAndFindAChange) {
  if (shell("command -v openssl").exitCode != 0) GTEST_SKIP() << "openssl is missing";
  const SealKey key("unit");
  make(request(&key));
  const std::string report = textOf("report.html");
  const size_t begin = report.find("<pre>") + 5;
  std::string commands = report.substr(begin, report.find("tarn verify", begin) - begin);
  for (size_t at; (at = commands.find("&gt;")) != std::string::npos;) commands.replace(at, 4, ">");
  const ShellResult good = shell("cd /tmp/case && set -e\n" + commands);
  EXPECT_EQ(good.exitCode, 0) << good.output;
  EXPECT_THAT(good.output, HasSubstr("Verified OK"));
  ASSERT_EQ(shell("echo >>/tmp/case/SHA256SUMS").exitCode, 0);
  EXPECT_NE(shell("cd /tmp/case && set -e\n" + commands).exitCode, 0);
}

TEST_F(EvidenceExporterTest, TheManifestTellsGapsEventsRecordingsAndTheCard) {
  make(request());
  const json told = manifest();
  EXPECT_EQ(told["kind"], "tarn evidence");
  EXPECT_EQ(told["zone"]["offsetAtBegin"], "+02:00");
  EXPECT_EQ(told["missing"], json::array());
  ASSERT_EQ(told["channels"].size(), 1u);
  const json& channel = told["channels"][0];
  EXPECT_EQ(channel["channel"], 0);
  EXPECT_EQ(channel["videos"][0]["pictures"], 100);
  EXPECT_EQ(channel["videos"][0]["recorderZones"], json::array({"+02:00"}));
  EXPECT_EQ(channel["videos"][0]["goesOnIn"], json::array());
  ASSERT_EQ(channel["recordings"].size(), 2u);
  EXPECT_EQ(channel["recordings"][1]["pictures"], 50);
  EXPECT_EQ(channel["recordings"][1]["first"], "2023-11-15T00:13:40.123+02:00");
  EXPECT_EQ(channel["recordings"][1]["last"], "2023-11-15T00:13:42.083+02:00");
  ASSERT_EQ(channel["gaps"].size(), 3u) << channel["gaps"];
  EXPECT_EQ(channel["gaps"][1]["from"], "2023-11-15T00:13:22.083+02:00");
  EXPECT_EQ(channel["gaps"][1]["to"], "2023-11-15T00:13:40.123+02:00");
  EXPECT_EQ(channel["gaps"][1]["reason"], "noRecording");
  ASSERT_EQ(told["events"].size(), 1u);
  EXPECT_EQ(told["events"][0]["trigger"], 9);
  EXPECT_EQ(told["clockSteps"].size(), 1u);
  EXPECT_EQ(told["log"]["lines"], 2);
  EXPECT_EQ(told["card"]["deviceBytes"], rig.card.size());
  EXPECT_EQ(told["card"]["families"].size(), size_t{tarn::kFileTypeCount});
}

TEST_F(EvidenceExporterTest, ThePictureThatIsDamagedOnTheCardIsInTheManifestWithItsTime) {
  const DB_STREAM row = allStreams()[0];
  tarn::RecordingReader reader;
  tarn::PictureEntry entry;
  ASSERT_EQ(reader.open(row), 0);
  ASSERT_TRUE(reader.picture(30, &entry));
  const uint32_t last = entry.dataOffset + entry.size - 1;
  Bytes byte = rig.card.readChunk(tarn::kFileStream, static_cast<int>(row.chunkID), last, 1);
  byte[0] ^= 0x10;
  rig.card.writeChunk(tarn::kFileStream, static_cast<int>(row.chunkID), last, byte);
  make(request());
  const json video = manifest()["channels"][0]["videos"][0];
  EXPECT_EQ(video["damaged"], 1);
  ASSERT_EQ(video["damages"].size(), 1u);
  EXPECT_EQ(video["damages"][0]["recording"], row.streamID);
  EXPECT_EQ(video["damages"][0]["firstIndex"], 30);
  EXPECT_EQ(video["damages"][0]["lastIndex"], 30);
  EXPECT_EQ(video["damages"][0]["from"], "2023-11-15T00:13:21.323+02:00");
}

TEST_F(EvidenceExporterTest, EachFileOfAChannelIsNamedByWhereItEndsUp) {
  record(40 * kSecond, false, true);
  tarn::EvidenceRequest wanted = request();
  wanted.what.to = tarn::PictureTime{kBegin + 60, 0};
  tarn::EvidenceExporter exporter(wanted);
  ASSERT_TRUE(exporter.run()) << exporter.error();
  const json videos = manifest()["channels"][0]["videos"];
  ASSERT_EQ(videos.size(), 2u) << videos;
  const std::string second = videos[1]["file"];
  EXPECT_EQ(videos[0]["goesOnIn"][0]["file"], second);
  EXPECT_TRUE(exists(std::string(kDir) + "/" + second)) << second;
  ASSERT_EQ(exporter.channels().size(), 2u);
  EXPECT_EQ(exporter.channels()[0].totals.changes.at(0).next, std::string(kDir) + "/" + second);
}

TEST_F(EvidenceExporterTest, TheReportNeedsNothingAndIsNotSteeredByTheLog) {
  make(request());
  const std::string report = textOf("report.html");
  EXPECT_THAT(report, HasSubstr("Nothing here is sealed"));
  EXPECT_THAT(report, HasSubstr("content=\"default-src 'none'; img-src data:;"));
  EXPECT_THAT(report,
              HasSubstr("&lt;/td&gt;&lt;script src=&quot;http://evil/&quot;&gt;alert(&#39;x"));
  EXPECT_THAT(report, Not(HasSubstr("<script")));
  EXPECT_THAT(report, Not(HasSubstr("\x1b")));
  EXPECT_THAT(report, Not(HasSubstr("\xff")));
  // The only address is the escaped one of the log; nothing is fetched from anywhere.
  EXPECT_EQ(report.find("://"), report.rfind("://"));
  for (size_t at = 0; (at = report.find("src=\"", at)) != std::string::npos; ++at)
    EXPECT_EQ(report.compare(at, 29, "src=\"data:image/jpeg;base64,/"), 0) << report.substr(at, 40);
  EXPECT_THAT(report, Not(HasSubstr("href")));
  EXPECT_THAT(report, Not(HasSubstr("long before")));
  EXPECT_THAT(report, Not(HasSubstr("long behind")));
  EXPECT_THAT(report, HasSubstr("<svg"));
  EXPECT_THAT(report, HasSubstr("event 1, 2023-11-15 00:13:21.000+02:00"));
  EXPECT_THAT(textOf("log.txt"), HasSubstr("http://evil/"));
}

TEST_F(EvidenceExporterTest, OriginalBytesAreThoseOfTheCard) {
  make(request());
  const std::vector<DB_STREAM> rows = allStreams();
  const json recordings = manifest()["channels"][0]["recordings"];
  const std::string entries = textOf("original/entries.bin");
  const std::string stored = textOf("original/recordings.bin");
  const std::string journal = textOf("original/journal-recordings.bin");
  ASSERT_EQ(stored.size(), rows.size() * 48);
  ASSERT_EQ(journal.size(), rows.size() * (8 + 2 * 64));
  EXPECT_EQ(textOf("original/events.bin").size(), 24u);
  EXPECT_EQ(textOf("original/journal-events.bin").size(), 8u + 2 * 32);
  for (size_t i = 0; i < rows.size(); ++i) {
    const size_t size = 51 * 32;
    ASSERT_EQ(recordings[i]["entries"]["bytes"], size);
    const auto bytes = rig.card.readChunk(tarn::kFilePicture, static_cast<int>(rows[i].chunkID),
                                          rows[i].chunkOffset, size);
    EXPECT_EQ(entries.substr(recordings[i]["entries"]["at"], size),
              std::string(bytes.begin(), bytes.end()));
    uint8_t record[64];
    tarn::encodeStreamRecord(rows[i], record);
    EXPECT_EQ(memcmp(stored.data() + i * 48, record + 4, 48), 0);
    const auto first = rig.card.readChunk(tarn::kFileJournal, 2, rows[i].backOffset, 64);
    EXPECT_EQ(memcmp(journal.data() + i * 136 + 8, first.data(), 64), 0);
    EXPECT_EQ(memcmp(journal.data() + i * 136 + 8 + 64, first.data(), 64), 0);
  }
}

TEST_F(EvidenceExporterTest, ARunThatIsStoppedLeavesNoFolderAndNothingUnfinished) {
  bool made = false;
  for (int steps = 0; !made; ++steps) {
    int asked = 0;
    tarn::EvidenceExporter exporter(request());
    made = exporter.run([&] { return ++asked > steps * 20; });
    if (made) break;
    EXPECT_STREQ(exporter.error(), "stopped before its end");
    EXPECT_FALSE(exists(kDir));
    EXPECT_EQ(exists(std::string(kDir) + ".part"), exporter.leavesParts());
    ASSERT_LT(steps, 100);
  }
  EXPECT_TRUE(exists(kDir));
}

TEST_F(EvidenceExporterTest, FlushesThatSignalsInterruptAreMadeAgain) {
  IoFaults faults;
  for (int n = 1; n < 100; n += 2) faults.fail(Call::Fsync, n, EINTR);
  make(request());
  EXPECT_GE(faults.count(Call::Fsync), 2u);
  EXPECT_TRUE(exists(kDir));
}

TEST_F(EvidenceExporterTest, WhatAKilledRunLeftIsMadeAnewAndNothingElseIsTouched) {
  ASSERT_EQ(
      shell("mkdir -p /tmp/case.part/video && echo half >/tmp/case.part/video/old.mp4").exitCode,
      0);
  tarn::EvidenceExporter refused(request());
  EXPECT_FALSE(refused.run());
  EXPECT_THAT(refused.error(), HasSubstr("is not what an interrupted run left"));
  EXPECT_TRUE(exists("/tmp/case.part/video/old.mp4"));
  ASSERT_EQ(shell("touch /tmp/case.part/.unfinished").exitCode, 0);
  tarn::EvidenceExporter exporter(request());
  EXPECT_TRUE(exporter.run()) << exporter.error();
  EXPECT_TRUE(exporter.beganAnew());
  EXPECT_FALSE(exists("/tmp/case/video/old.mp4"));
  EXPECT_FALSE(exists("/tmp/case/.unfinished"));
}

TEST_F(EvidenceExporterTest, OnlyAnEvidenceFolderIsReplacedAndOnlyWhenAsked) {
  ASSERT_EQ(shell("mkdir /tmp/case && echo mine >/tmp/case/mine").exitCode, 0);
  tarn::EvidenceRequest wanted = request();
  wanted.overwrite = true;
  tarn::EvidenceExporter foreign(wanted);
  EXPECT_FALSE(foreign.run());
  EXPECT_THAT(foreign.error(), HasSubstr("is no evidence folder"));
  EXPECT_TRUE(exists("/tmp/case/mine"));
  ASSERT_EQ(shell("rm -r /tmp/case").exitCode, 0);
  make(request());
  ASSERT_EQ(shell("touch /tmp/case/first").exitCode, 0);
  tarn::EvidenceExporter again(request());
  EXPECT_FALSE(again.run());
  EXPECT_STREQ(again.error(), "/tmp/case exists already; --force replaces it");
  make(wanted);
  EXPECT_FALSE(exists("/tmp/case/first"));
  EXPECT_FALSE(exists("/tmp/case.part"));
}

// A destructor has nobody to tell; what stays is what an interrupted run leaves.
TEST_F(EvidenceExporterTest, ARunThatIsStoppedWithoutMemoryIsMadeAnewByTheNext) {
  if (!AllocationFault::supported()) GTEST_SKIP() << "the sanitizer owns the allocator";
  for (int n = 1; n < 30; n += 4) {
    std::optional<AllocationFault> fault;
    tarn::EvidenceExporter exporter(request());
    EXPECT_FALSE(exporter.run([&] {
      if (!fault) fault.emplace(1, n);
      return true;
    }));
    fault.reset();
    EXPECT_FALSE(exists(kDir));
  }
  make(request());
}

TEST(HtmlText, NothingOfATextIsMarkupOrTurnsItsDirection) {
  EXPECT_EQ(tarn::htmlText("a<b>\"c'&d"), "a&lt;b&gt;&quot;c&#39;&amp;d");
  EXPECT_EQ(tarn::htmlText("\xC3\xA4\xE2\x82\xAC"), "\xC3\xA4\xE2\x82\xAC");
  EXPECT_EQ(tarn::htmlText("\xE2\x80\xAE\xC2\x9B\x07\xFF<"),
            "&#xFFFD;&#xFFFD;&#xFFFD;&#xFFFD;&lt;");
}

}  // namespace
}  // namespace tarn_test
