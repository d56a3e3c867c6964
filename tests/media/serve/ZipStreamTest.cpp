#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "media/serve/FileStream.h"
#include "media/serve/ZipStream.h"

namespace tarn_test {
namespace {

using tarn::ZipStream;

constexpr char kFolder[] = "/tmp/zipped";
constexpr char kZip[] = "/tmp/zipped.zip";
constexpr int64_t kTime = 1772368496;  // 2026-03-01 12:34:56 in Greenwich
// More than the server reads at a time, and no text that repeats itself within a block.
constexpr size_t kLarge = 300001;

class ZipStreamTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    std::filesystem::create_directories(std::string(kFolder) + "/of");
    std::string large;
    for (size_t i = 0; large.size() < kLarge; ++i) large += std::to_string(i);
    large.resize(kLarge);
    add("a", "");
    add("of/b", "some text");
    add("of/c", large);
  }
  void TearDown() override {
    std::filesystem::remove_all(kFolder);
    unlink(kZip);
    unsetenv("TZ");
    tzset();
  }
  void add(const std::string& name, const std::string& text) {
    const std::string path = std::string(kFolder) + "/" + name;
    std::ofstream(path) << text;
    files_.push_back({path, name, text.size(), kTime});
  }
  static std::pair<std::string, ssize_t> all(tarn::BodyStream* stream, size_t room) {
    std::string text;
    std::string block(room, '\0');
    ssize_t got = 0;
    while ((got = stream->read(block.data(), room)) > 0)
      text.append(block, 0, static_cast<size_t>(got));
    return {text, got};
  }

  std::vector<ZipStream::File> files_;
};

int64_t lengthOf(const std::vector<ZipStream::File>& files) {
  return ZipStream::lengthOf(files, [] { return false; });
}

TEST_F(ZipStreamTest, AnotherProgramFindsWhatWasPacked) {
  const int64_t length = lengthOf(files_);
  ZipStream stream(files_, nullptr);
  const auto [zip, end] = all(&stream, 65536);
  EXPECT_EQ(end, -1);
  EXPECT_EQ(static_cast<int64_t>(zip.size()), length);
  std::ofstream(kZip) << zip;
  FILE* told = popen(
      "cd /tmp && python3 -c \"import zipfile; z = zipfile.ZipFile('zipped.zip');"
      "print(z.testzip(), *((i.filename, i.file_size, i.compress_type, i.date_time[3:5],"
      "z.read(i) == open('zipped/' + i.filename, 'rb').read()) for i in z.infolist()))\"",
      "r");
  ASSERT_NE(told, nullptr);
  std::string text(1000, '\0');
  text.resize(fread(text.data(), 1, text.size(), told));
  EXPECT_EQ(pclose(told), 0);
  EXPECT_EQ(text,
            "None ('a', 0, 0, (12, 34), True) ('of/b', 9, 0, (12, 34), True) "
            "('of/c', 300001, 0, (12, 34), True)\n");
}

TEST_F(ZipStreamTest, TheSameFilesMakeTheSameBytesHoweverTheyAreTaken) {
  ZipStream first(files_, nullptr), second(files_, nullptr);
  EXPECT_EQ(all(&first, 65536), all(&second, 7));
}

TEST_F(ZipStreamTest, AFileThatBecameShorterBreaksItOff) {
  files_[1].size = 10;
  EXPECT_EQ(lengthOf(files_), -1);
  ZipStream stream(files_, nullptr);
  EXPECT_EQ(all(&stream, 100).second, -2);
  EXPECT_EQ(stream.read(nullptr, 0), -2) << "and it stays so";
}

TEST_F(ZipStreamTest, AFileThatGrewIsPackedAsItWas) {
  const int64_t length = lengthOf(files_);
  std::ofstream(files_[1].path, std::ios::app) << " and more";
  EXPECT_EQ(lengthOf(files_), length);
}

TEST_F(ZipStreamTest, MeasuringEndsWhenItIsAsked) {
  EXPECT_EQ(ZipStream::lengthOf(files_, [] { return true; }), -1);
}

TEST_F(ZipStreamTest, AFileByItselfIsBrokenOffWhereItBecameShorter) {
  const auto read = [&](uint64_t size) {
    tarn::FileStream stream(files_[1].path, size, nullptr);
    return all(&stream, 2);
  };
  EXPECT_EQ(read(9), std::make_pair(std::string("some text"), ssize_t{-1}));
  EXPECT_EQ(read(3), std::make_pair(std::string("som"), ssize_t{-1}));
  EXPECT_EQ(read(10), std::make_pair(std::string("some text"), ssize_t{-2}));
}

}  // namespace
}  // namespace tarn_test
