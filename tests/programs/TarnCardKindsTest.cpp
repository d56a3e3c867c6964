// What counts as a card, and what is said of what is none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "recorder/RecoveryRig.h"
#include "recorder/card/CardText.h"
#include "support/Shell.h"

#ifdef TARN_WITH_EWF
#include <libewf.h>
#endif

namespace tarn_test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr size_t kSector = 512;

ShellResult tarn(const std::string& arguments) {
  return shell("timeout 120 " TARN_BIN_DIR "/tarn " + arguments);
}

void writeFile(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

void put(Bytes* bytes, size_t offset, const std::string& text) {
  std::copy(text.begin(), text.end(), bytes->begin() + static_cast<std::ptrdiff_t>(offset));
}

// A whole device: its first MiB, then these volumes one behind the other.
struct Device {
  explicit Device(const std::vector<Bytes>& volumes) : bytes(1 * kMiB) {
    for (const Bytes& volume : volumes) {
      firsts.push_back(static_cast<uint32_t>(bytes.size() / kSector));
      bytes.insert(bytes.end(), volume.begin(), volume.end());
      bytes.resize((bytes.size() + kSector - 1) / kSector * kSector);
      ends.push_back(static_cast<uint32_t>(bytes.size() / kSector));
    }
  }
  Device& mbr() {
    for (size_t i = 0; i < firsts.size(); ++i) {
      uint8_t* entry = bytes.data() + 446 + 16 * i;
      entry[4] = 0x0C;
      tarn::putLe32(entry + 8, firsts[i]);
      tarn::putLe32(entry + 12, ends[i] - firsts[i]);
    }
    tarn::putLe16(bytes.data() + 510, 0xAA55);
    return *this;
  }
  Device& gpt() {
    bytes[446 + 4] = 0xEE;
    tarn::putLe32(bytes.data() + 446 + 8, 1);
    tarn::putLe32(bytes.data() + 446 + 12, 0xFFFFFFFF);
    tarn::putLe16(bytes.data() + 510, 0xAA55);
    uint8_t* header = bytes.data() + kSector;
    memcpy(header, "EFI PART", 8);
    tarn::putLe32(header + 72, 2);
    tarn::putLe32(header + 80, 128);
    tarn::putLe32(header + 84, 128);
    for (size_t i = 0; i < firsts.size(); ++i) {
      uint8_t* entry = bytes.data() + 2 * kSector + 128 * i;
      memset(entry, 0x11, 32);
      tarn::putLe32(entry + 32, firsts[i]);
      tarn::putLe32(entry + 40, ends[i] - 1);
    }
    return *this;
  }

  Bytes bytes;
  std::vector<uint32_t> firsts;
  std::vector<uint32_t> ends;
};

Bytes ntfs() {
  Bytes volume(64 * kKiB, 0xF6);
  put(&volume, 3, "NTFS    ");
  return volume;
}

// A card with a recording, and whatever it comes as.
class TarnCardKinds : public ::testing::Test {
 protected:
  void SetUp() override {
    if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
    rig.record(0, 40);
    chunk = static_cast<int>(allStreams()[0].chunkID);
    rig.powerOff();
    card = rig.cardBytes();
    writeFile("/tmp/card", card);
    ASSERT_EQ(shell("rm /dev/sdblk0p1").exitCode, 0);
    const ShellResult works = tarn("--card /tmp/card recover --dry-run");
    if (works.exitCode != 0 && works.output.find("FUSE") != std::string::npos) {
      GTEST_SKIP() << works.output;
    }
  }

  // The one recording is listed, and not a byte changes.
  static void expectListed(const std::string& path) {
    const std::string sum = "find " + path + " -type f | sort | xargs sha256sum";
    const std::string before = shell(sum).output;
    const ShellResult rows = tarn("--card " + path + " list --json 2>/tmp/said");
    EXPECT_EQ(json::parse(rows.output, nullptr, false)["streams"].size(), 1u)
        << rows.output << shell("cat /tmp/said").output;
    EXPECT_EQ(shell(sum).output, before);
  }
  // A check finds what it finds on the plain card.
  static void expectSameCheck(const std::string& path) {
    std::string expected = tarn("check /tmp/card").output;
    for (size_t at; (at = expected.find("/tmp/card:")) != std::string::npos;) {
      expected.replace(at, strlen("/tmp/card"), path);
    }
    EXPECT_EQ(tarn("check " + path + " 2>/dev/null").output, expected);
  }
  // The warnings beside a list in JSON, in words.
  static std::string said() {
    return shell(R"x(sed 's/^{"warning":"\(.*\)"}$/tarn: \1/' /tmp/said)x").output;
  }

  // The chunk files, named as some PCs do.
  void copyFiles(const std::string& folder) const {
    std::filesystem::create_directory(folder);
    for (int type = 0; type < tarn::kFileTypeCount; ++type) {
      for (uint32_t n = 0; n < rig.card.family(type).count; ++n) {
        char name[32];
        snprintf(name, sizeof name, "%s%04u", tarn::fileTag(type), n);
        if (type % 2 == 0) {
          for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        }
        writeFile(folder + "/" + name, rig.card.readChunk(type, static_cast<int>(n), 0,
                                                          rig.card.family(type).chunkSize));
      }
    }
  }

  RecoveryRig rig;
  SyslogCapture log;
  Bytes card;
  int chunk = 0;  // of the recording
};

TEST_F(TarnCardKinds, AnImageOfADeviceWithAnMbr) {
  const Device device = Device({ntfs(), card}).mbr();
  writeFile("/tmp/disk", device.bytes);
  expectListed("/tmp/disk");
  EXPECT_EQ(said(),
            "tarn: /tmp/disk is only read, and stays as it is: it is an image of a whole "
            "device\ntarn: /tmp/disk: partition 2 (" +
                tarn::sizeText(card.size()) + " from byte " +
                std::to_string(uint64_t{device.firsts[1]} * kSector) + " on) holds the card\n");
  EXPECT_THAT(tarn("--card /tmp/disk --partition 1 list").output,
              HasSubstr("partition 1 (64 KiB from byte 1048576 on) holds an NTFS volume"));
  EXPECT_EQ(tarn("--card /tmp/disk --partition 2 list 2>/dev/null").exitCode, 0);
  EXPECT_THAT(tarn("--card /tmp/disk --partition 3 list").output,
              StartsWith("tarn: /tmp/disk has no partition 3: partition 1 ("));
  const ShellResult refused = tarn("--card /tmp/disk recover");
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.output,
            "tarn: recover changes a card, and /tmp/disk is only read: it is an image of a whole "
            "device\n");
}

TEST_F(TarnCardKinds, AnImageOfADeviceWithAGpt) {
  writeFile("/tmp/disk", Device({card, ntfs()}).gpt().bytes);
  expectListed("/tmp/disk");
  EXPECT_THAT(said(), HasSubstr("/tmp/disk: partition 1 ("));
  EXPECT_THAT(tarn("info /tmp/disk").output, HasSubstr("\n/tmp/disk\n  volume "));
  expectSameCheck("/tmp/disk");
}

TEST_F(TarnCardKinds, SeveralCardsOnADeviceAreAskedFor) {
  writeFile("/tmp/disk", Device({card, card}).mbr().bytes);
  const ShellResult result = tarn("--card /tmp/disk list");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output,
              HasSubstr("holds several cards, and --partition N chooses one: partition 1 ("));
  EXPECT_EQ(tarn("--card /tmp/disk --partition 2 list 2>/dev/null").exitCode, 0);
}

TEST_F(TarnCardKinds, AFolderOfItsFilesWhateverTheCaseOfTheirNames) {
  copyFiles("/tmp/files");
  expectListed("/tmp/files");
  EXPECT_EQ(said(), "tarn: /tmp/files is only read, and stays as it is: it is a folder\n");
  ASSERT_EQ(shell("mv /tmp/files/CKST0002 /tmp/elsewhere").exitCode, 0);
  expectListed("/tmp/files");
  EXPECT_THAT(said(), HasSubstr("/tmp/files: 1 of 23 files are missing or too short (CKST0002): "
                                "what they held is not known"));
  ASSERT_EQ(shell("rm /tmp/files/taif0000").exitCode, 0);
  EXPECT_EQ(
      tarn("--card /tmp/files list").output,
      "tarn: /tmp/files is no folder of a card's files: it has no TAIF0000, but 21 other files "
      "of a card\n");
}

TEST_F(TarnCardKinds, TheVolumeAroundCopiedFilesIsOneForAPcToo) {
  ASSERT_EQ(tarn("format /tmp/large --size 34M").exitCode, 0);
  ASSERT_EQ(shell("mkdir /tmp/files && mcopy -n -i /tmp/large '::/*' /tmp/files").exitCode, 0);
  const ShellResult fsck = tarn("--card /tmp/files --read-only run -- fsck.fat -n /dev/sdblk0p1");
  EXPECT_EQ(fsck.exitCode, 0) << fsck.output;
  EXPECT_THAT(tarn("check /tmp/files").output, HasSubstr("/tmp/files: clean"));
}

TEST_F(TarnCardKinds, WhatIsNoCardIsNamed) {
  const auto of = [](const std::string& path) {
    const ShellResult result = tarn("--card " + path + " --read-only list");
    EXPECT_EQ(result.exitCode, 1);
    return result.output;
  };
  const auto with = [&](size_t offset, const std::string& text) {
    Bytes bytes(128 * kKiB, 0xF6);
    put(&bytes, offset, text);
    writeFile("/tmp/x", bytes);
    return of("/tmp/x");
  };
  const std::string begin = "tarn: /tmp/x is no card of the recorder: it holds ";
  EXPECT_EQ(with(3, "NTFS    "), begin + "an NTFS volume\n");
  EXPECT_EQ(with(3, "EXFAT   "), begin + "an exFAT volume\n");
  EXPECT_EQ(with(1080, "\x53\xEF"), begin + "an ext2, ext3 or ext4 volume\n");
  EXPECT_EQ(with(82, "FAT32   "), begin + "a FAT32 volume without the files of a recorder\n");
  EXPECT_THAT(tarn("--card /tmp/x list").output, HasSubstr("; nothing was written; "))
      << "it may be a damaged card: what leads to its files is looked at";
  EXPECT_EQ(with(0, "PK\x03\x04"), begin + "a zip archive\n");
  EXPECT_EQ(with(0, "\x89PNG"), begin + "a PNG picture\n");
  EXPECT_EQ(tarn("--card /tmp/x list").output, begin + "a PNG picture\n") << "without asking, too";
  EXPECT_EQ(with(0, "\x01\x02"),
            begin + "nothing that is known; it begins with 01 02 F6 F6 F6 F6 F6 F6\n");
  // Where it may have been a card that is not sure, and is looked at all the same; with the same
  // words then.
  EXPECT_THAT(tarn("--card /tmp/x list").output,
              HasSubstr("; it holds nothing that is known; it begins with 01 02 F6"));
  writeFile("/tmp/x", Bytes(256 * kKiB));
  EXPECT_THAT(tarn("list /tmp/x").output, HasSubstr("; it holds nothing but zeros where a volume"));
  writeFile("/tmp/x", Bytes(256 * kKiB, 0xFF));
  EXPECT_EQ(of("/tmp/x"), begin + "nothing but bytes of FF where a volume begins\n");
  writeFile("/tmp/x", {});
  EXPECT_EQ(of("/tmp/x"), begin + "nothing: it is empty\n");
  EXPECT_EQ(of("/etc/passwd"), "tarn: /etc/passwd is no card of the recorder: it holds text\n");
  EXPECT_EQ(of("/dev/null"),
            "tarn: /dev/null is neither a block device nor an image file nor a folder\n");
  EXPECT_EQ(of("/nowhere"), "tarn: cannot open /nowhere: No such file or directory\n");
  EXPECT_EQ(of("/usr/include/linux").substr(0, 56),
            "tarn: /usr/include/linux is no folder of a card's files:");
  EXPECT_EQ(tarn("--card /tmp/card --partition 1 list").output,
            "tarn: /tmp/card has no partitions: it holds a card of the recorder\n");
}

// Nor do those that need no recorder; and a check that could not run corrected nothing.
TEST_F(TarnCardKinds, WhatIsNoCardIsNamedByCheckAndInfoToo) {
  const std::string text = "/etc/passwd is no card of the recorder: it holds text";
  for (const std::string words :
       {"info /etc/passwd", "check /etc/passwd", "check --repair /etc/passwd"}) {
    const ShellResult result = tarn(words);
    EXPECT_EQ(result.output, "tarn: " + text + "\n") << words;
    EXPECT_EQ(result.exitCode, words[0] == 'i' ? 1 : 8) << words;
  }
  EXPECT_EQ(tarn("check --json /etc/passwd").output, "{\"error\":\"" + text + "\"}\n");
  ASSERT_EQ(shell("mkdir /tmp/empty").exitCode, 0);
  EXPECT_EQ(tarn("check /tmp/empty").exitCode, 8);
  EXPECT_EQ(tarn("info /tmp/empty").exitCode, 1);
  // What makes a card needs none.
  ASSERT_EQ(shell("yes text | head -c 40000000 >/tmp/text").exitCode, 0);
  EXPECT_THAT(tarn("format /tmp/text").output, HasSubstr("force the format to overwrite it"));
}

#ifdef TARN_WITH_EWF
void writeEwf(const std::string& base, const Bytes& media, bool compressed, size_t segmentBytes) {
  libewf_handle_t* handle = nullptr;
  ASSERT_EQ(libewf_handle_initialize(&handle, nullptr), 1);
  std::string name = base;
  char* names[] = {name.data()};
  ASSERT_EQ(libewf_handle_open(handle, names, 1, LIBEWF_OPEN_WRITE, nullptr), 1);
  ASSERT_EQ(libewf_handle_set_media_size(handle, media.size(), nullptr), 1);
  if (segmentBytes != 0) {
    ASSERT_EQ(libewf_handle_set_maximum_segment_size(handle, segmentBytes, nullptr), 1);
  }
  if (compressed) {
    ASSERT_EQ(libewf_handle_set_compression_values(handle, LIBEWF_COMPRESSION_FAST, 0, nullptr), 1);
  }
  ASSERT_EQ(libewf_handle_write_buffer(handle, media.data(), media.size(), nullptr),
            static_cast<ssize_t>(media.size()));
  libewf_handle_write_finalize(handle, nullptr);
  libewf_handle_close(handle, nullptr);
  libewf_handle_free(&handle, nullptr);
}
#endif

TEST_F(TarnCardKinds, AnExpertWitnessImageOfAVolumeOrADevice) {
#ifdef TARN_WITH_EWF
  writeEwf("/tmp/volume", card, false, 1 * kMiB);
  expectListed("/tmp/volume.E01");
  EXPECT_EQ(said(),
            "tarn: /tmp/volume.E01 is only read, and stays as it is: it is an Expert "
            "Witness image\n");
  ASSERT_EQ(shell("rm /tmp/volume.E02").exitCode, 0);
  const ShellResult cut = tarn("--card /tmp/volume.E01 list");
  EXPECT_EQ(cut.exitCode, 1) << "what a segment held that is missing is refused, not zeros";
  EXPECT_THAT(cut.output, HasSubstr(" cannot be read"));
  EXPECT_THAT(cut.output,
              HasSubstr("tarn: /tmp/volume.E01: segments of the image are missing or cut short: "
                        "what they held is not known\n"));
  writeEwf("/tmp/device", Device({card}).mbr().bytes, true, 0);
  expectListed("/tmp/device.E01");
  EXPECT_THAT(said(), HasSubstr("/tmp/device.E01: partition 1 ("));
#else
  GTEST_SKIP() << "built without libewf";
#endif
}

TEST_F(TarnCardKinds, WhatIsDamagedInAnExpertWitnessImageIsRefused) {
#ifdef TARN_WITH_EWF
  writeEwf("/tmp/volume", card, false, 0);
  // The pictures' first bytes, found by what lies there.
  const Bytes data = rig.card.readChunk(tarn::kFileStream, chunk, 0, 64);
  std::ifstream in("/tmp/volume.E01", std::ios::binary);
  Bytes image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto at = std::search(image.begin(), image.end(), data.begin(), data.end());
  ASSERT_NE(at, image.end());
  *at ^= 0x01;
  writeFile("/tmp/volume.E01", image);
  const std::string place = std::to_string(rig.card.chunkStart(tarn::kFileStream, chunk) / kSector);
  EXPECT_THAT(
      tarn("--card /tmp/volume.E01 --read-only run -- dd if=/dev/sdblk0p1 of=/dev/null bs=512 "
           "count=1 skip=" +
           place)
          .output,
      HasSubstr("Input/output error"));
  EXPECT_EQ(tarn("--card /tmp/volume.E01 list 2>/dev/null").exitCode, 0);
#else
  GTEST_SKIP() << "built without libewf";
#endif
}

}  // namespace
}  // namespace tarn_test
