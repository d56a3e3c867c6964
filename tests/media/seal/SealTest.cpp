// What a seal proves, and that nothing of a sealed file can be changed without being seen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "media/MoviePieces.h"
#include "media/seal/FileSealer.h"
#include "media/seal/FileVerifier.h"
#include "media/seal/SealKeys.h"
#include "media/seal/SealedOutput.h"
#include "support/IoFaults.h"

namespace tarn_test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Chain = tarn::SealProof::Chain;

constexpr char kFile[] = "/tmp/sealed.mp4";
constexpr char kCopy[] = "/tmp/copy.mp4";

std::string read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void write(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Boxes of the uppermost level: where each begins and ends.
struct Place {
  std::string type;
  size_t begin;
  size_t end;
};
std::vector<Place> boxesOf(const std::string& bytes) {
  std::vector<Place> boxes;
  for (size_t at = 0; at + 8 <= bytes.size();) {
    size_t size = 0;
    for (size_t i = 0; i < 4; ++i) size = size << 8 | static_cast<uint8_t>(bytes[at + i]);
    boxes.push_back({bytes.substr(at + 4, 4), at, at + size});
    at += size;
  }
  return boxes;
}

// To make an RSA key takes longer than most of these tests.
const SealKey& authority() {
  static const SealKey key("authority", nullptr, 0);
  return key;
}
const SealKey& unit() {
  static const SealKey key("unit", &authority());
  return key;
}
const SealKey& other() {
  static const SealKey key("other");
  return key;
}

class SealTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(seal(kFile), ""); }

  // Two pictures, an hour of nothing, two pictures.
  static std::string seal(const std::string& path, bool overwrite = false) {
    tarn::SealingKey key;
    if (!key.load(unit().request())) return key.error();
    tarn::ExportStatement statement;
    statement.unitName = "recorder-7";
    statement.time = static_cast<uint64_t>(1700000000 + tarn::kSecondsFrom1904);
    statement.operatorName = "Ann Onymous";
    statement.sources.resize(1);
    statement.sources[0].name = "channel 3, pictures";
    statement.sources[0].line = "3";
    std::string error;
    const auto output = tarn::SealedOutput::create(
        path, overwrite, &key, statement, tarn::sealWords(unit().request("case 12"), time(nullptr)),
        &error);
    if (output == nullptr) return error;
    const tarn::OutputPicture first = pictureAt(0, true);
    bool good = output->describe(0, first);
    for (const int64_t begin : {int64_t{0}, int64_t{3600} * 1000000}) {
      good = good && output->write(pictureAt(begin, true), 0) &&
             output->write(pictureAt(begin + 40000, false), 0);
    }
    return good && output->finish() ? "" : output->error();
  }
  static tarn::FileProof verify(const std::string& path) {
    return tarn::FileVerifier().verify(path);
  }
  static bool provenWith(const std::string& bytes) {
    write(kCopy, bytes);
    return verify(kCopy).proven();
  }
  // The places where one byte was changed and nobody noticed.
  static std::vector<size_t> unnoticed(const std::string& bytes) {
    write(kCopy, bytes);
    std::vector<size_t> places;
    std::fstream file(kCopy, std::ios::binary | std::ios::in | std::ios::out);
    for (size_t i = 0; i < bytes.size(); ++i) {
      const auto at = static_cast<std::streamoff>(i);
      file.seekp(at).put(static_cast<char>(bytes[i] ^ 1 << i % 8)).flush();
      if (verify(kCopy).proven()) places.push_back(i);
      file.seekp(at).put(bytes[i]).flush();
    }
    EXPECT_TRUE(verify(kCopy).proven()) << "with every byte back";
    return places;
  }
};

TEST_F(SealTest, TellsWhoSealedWhatAndThatItIsUnchanged) {
  const tarn::FileProof proof = verify(kFile);
  EXPECT_TRUE(proof.proven()) << proof.error;
  EXPECT_EQ(proof.unit, "recorder-7");
  EXPECT_EQ(proof.exported, "2023-11-14T22:13:20Z");
  EXPECT_EQ(proof.operatorName, "Ann Onymous");
  ASSERT_EQ(proof.sources.size(), 1u);
  EXPECT_EQ(proof.sources[0].name, "channel 3, pictures");
  EXPECT_EQ(proof.sources[0].line, "3");
  EXPECT_EQ(proof.sources[0].startUs, kWall);
  ASSERT_EQ(proof.seals.size(), 1u);
  EXPECT_EQ(proof.seals[0].holder, "CN=unit");
  EXPECT_EQ(proof.seals[0].issuer, "CN=authority");
  EXPECT_EQ(proof.seals[0].note, "case 12");
  EXPECT_EQ(proof.seals[0].fingerprint.size(), 64u);
  EXPECT_EQ(proof.seals[0].chain, Chain::kNotAsked);
  EXPECT_NE(access("/tmp/sealed.mp4.part", F_OK), 0);
}

TEST_F(SealTest, EveryChangedByteIsFound) {
  EXPECT_EQ(unnoticed(read(kFile)), std::vector<size_t>());
}

TEST_F(SealTest, EveryChangedByteIsFoundUnderTwoSeals) {
  std::string error;
  ASSERT_TRUE(tarn::sealFile(kFile, other().request("received"), &error)) << error;
  EXPECT_EQ(unnoticed(read(kFile)), std::vector<size_t>());
}

TEST_F(SealTest, EveryCutEndAndWhatIsAddedIsFound) {
  const std::string whole = read(kFile);
  for (size_t size = 0; size < whole.size(); ++size) {
    ASSERT_EQ(truncate(kFile, static_cast<off_t>(whole.size() - size - 1)), 0);
    ASSERT_FALSE(verify(kFile).proven()) << "cut to " << whole.size() - size - 1;
  }
  EXPECT_FALSE(provenWith(whole + '\0'));
  EXPECT_FALSE(provenWith(whole + std::string("\0\0\0\x08"
                                              "free",
                                              8)));
}

TEST_F(SealTest, AFragmentThatIsTakenOutOrMovedIsFound) {
  const std::string whole = read(kFile);
  const std::vector<Place> boxes = boxesOf(whole);
  ASSERT_EQ(boxes.size(), 7u);
  EXPECT_EQ(boxes[2].type, "meta");
  EXPECT_EQ(boxes[3].type, "moof");
  const std::string first = whole.substr(boxes[3].begin, boxes[4].end - boxes[3].begin);
  const std::string second = whole.substr(boxes[5].begin);
  const std::string head = whole.substr(0, boxes[3].begin);
  EXPECT_TRUE(provenWith(head + first + second)) << "as it was";
  EXPECT_FALSE(provenWith(head + first));
  EXPECT_FALSE(provenWith(head + second));
  EXPECT_FALSE(provenWith(head + second + first));
}

TEST_F(SealTest, ASwappedCertificateIsFound) {
  ASSERT_EQ(seal("/tmp/twin.mp4"), "");
  SealKey twin("twin", &authority());
  for (int i = 0; i < 1000 && twin.certificateSize() != unit().certificateSize(); ++i)
    twin.certify(authority());
  std::string error;
  ASSERT_TRUE(tarn::sealFile("/tmp/twin.mp4", twin.request(), &error)) << error;
  std::string mine = read(kFile);
  const std::string his = read("/tmp/twin.mp4");
  const size_t at = mine.find("cert") + 4;
  // His name is as long as mine.
  const size_t from = his.rfind("cert") + 4;
  const size_t length = mine.find("auib") - 4 - at;
  ASSERT_EQ(his.rfind("auib") - 4 - from, length);
  mine.replace(at, length, his, from, length);
  write(kCopy, mine);
  const tarn::FileProof proof = verify(kCopy);
  ASSERT_EQ(proof.seals.size(), 1u);
  EXPECT_EQ(proof.seals[0].holder, "CN=twin");
  EXPECT_EQ(proof.seals[0].reason, "it was changed since it was sealed");
}

TEST_F(SealTest, AnotherSealGoesOnTopAndLeavesTheFirstAsItIs) {
  const std::string once = read(kFile);
  std::string error;
  ASSERT_TRUE(tarn::sealFile(kFile, other().request("received"), &error)) << error;
  const tarn::FileProof proof = verify(kFile);
  EXPECT_TRUE(proof.proven());
  ASSERT_EQ(proof.seals.size(), 2u);
  EXPECT_EQ(proof.seals[0].holder, "CN=unit");
  EXPECT_EQ(proof.seals[1].holder, "CN=other");
  EXPECT_EQ(proof.seals[1].note, "received");
  EXPECT_EQ(proof.sources.at(0).startUs, kWall);
  EXPECT_EQ(read(kFile).substr(read(kFile).size() - 200), once.substr(once.size() - 200));
}

TEST_F(SealTest, TellsHowFarItIs) {
  std::vector<uint64_t> told;
  uint64_t all = 0;
  const tarn::FileProgress note = [&](uint64_t done, uint64_t of) {
    told.push_back(done);
    all = of;
  };
  tarn::FileVerifier().verify(kFile, note);
  const uint64_t size = read(kFile).size();
  EXPECT_EQ(all, size);
  ASSERT_FALSE(told.empty());
  EXPECT_EQ(told.back(), size);
  told.clear();
  std::string error;
  ASSERT_TRUE(tarn::sealFile(kFile, other().request("received"), &error, note)) << error;
  EXPECT_EQ(all, 2 * size) << "it is read twice";
  EXPECT_EQ(told.back(), all);
  EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
}

TEST_F(SealTest, AChangedFileGetsNoOtherSealAndStaysAsItIs) {
  std::string bytes = read(kFile);
  bytes[bytes.size() - 3] ^= 1;
  write(kFile, bytes);
  std::string error;
  EXPECT_FALSE(tarn::sealFile(kFile, other().request(), &error));
  EXPECT_EQ(error, "/tmp/sealed.mp4: it was changed since it was sealed, and gets no other seal");
  EXPECT_TRUE(read(kFile) == bytes);
  EXPECT_NE(access("/tmp/sealed.mp4.part", F_OK), 0);
}

TEST_F(SealTest, OnlyAnAuthorityThatIsBelievedVouches) {
  std::string error;
  tarn::FileVerifier right;
  ASSERT_TRUE(right.trust(authority().path(), &error)) << error;
  EXPECT_EQ(right.verify(kFile).seals.at(0).chain, Chain::kTrusted);
  EXPECT_TRUE(right.verify(kFile).proven());
  tarn::FileVerifier wrong;
  ASSERT_TRUE(wrong.trust(other().path(), &error)) << error;
  const tarn::FileProof proof = wrong.verify(kFile);
  EXPECT_TRUE(proof.seals.at(0).unchanged);
  EXPECT_EQ(proof.seals.at(0).chain, Chain::kNotTrusted);
  EXPECT_FALSE(proof.proven());
  tarn::FileVerifier none;
  EXPECT_FALSE(none.trust("/tmp/sealed.mp4", &error));
  EXPECT_THAT(error, StartsWith("/tmp/sealed.mp4: no certificates can be read from it: "));
}

TEST_F(SealTest, WhatHasNoSealIsToldApart) {
  EXPECT_EQ(verify("/tmp/nothing.mp4").error, "cannot be read: No such file or directory");
  EXPECT_EQ(verify("/tmp").error, "is no file");
  const std::string whole = read(kFile);
  const std::vector<Place> boxes = boxesOf(whole);
  write(kCopy, whole.substr(0, boxes[2].begin) + whole.substr(boxes[2].end));
  EXPECT_EQ(verify(kCopy).error, "is not sealed");
  write(kCopy, "a text that is no movie");
  EXPECT_EQ(verify(kCopy).error, "is cut off, or no movie");
  EXPECT_FALSE(verify(kCopy).readable);
  std::string error;
  EXPECT_FALSE(tarn::sealFile(kCopy, other().request(), &error));
}

TEST_F(SealTest, KeysThatProveNothingAreRefused) {
  const auto refusal = [](const std::string& key, const std::string& certificate) {
    tarn::SealingKey sealing;
    return sealing.load({key, certificate, "", ""}) ? "" : sealing.error();
  };
  EXPECT_EQ(refusal(other().keyPath(), unit().path()),
            "the certificate does not belong to the key");
  const SealKey weak("weak", nullptr, 1024);
  EXPECT_EQ(refusal(weak.keyPath(), weak.path()),
            "the key /tmp/weak.key is no RSA key of at least 2048 bits");
  const SealKey curve("curve", nullptr, 0);
  EXPECT_EQ(refusal(curve.keyPath(), curve.path()),
            "the key /tmp/curve.key is no RSA key of at least 2048 bits");
  EXPECT_EQ(refusal("/tmp/no.key", unit().path()),
            "cannot read the key /tmp/no.key: No such file or directory");
  EXPECT_THAT(refusal(unit().path(), unit().path()),
              StartsWith("/tmp/unit.pem holds no private key"));
  EXPECT_EQ(refusal(unit().keyPath(), unit().keyPath()), "/tmp/unit.key holds no certificate");
  EXPECT_EQ(refusal(unit().keyPath(), "/tmp/no.pem"),
            "cannot read the certificate /tmp/no.pem: No such file or directory");
  EXPECT_THAT(refusal("pkcs11:token=none;object=none", unit().path()),
              StartsWith("the key pkcs11:token=none;object=none cannot be had from a token: "));
}

TEST_F(SealTest, AFlushThatASignalInterruptsIsMadeAgain) {
  IoFaults faults(std::string(kFile) + ".part");
  faults.fail(Call::Fsync, 1, EINTR, 2);
  EXPECT_EQ(seal(kFile, true), "");
  EXPECT_GE(faults.count(Call::Fsync), 3u);
}

TEST_F(SealTest, AFileAppearsOnlyWhenItIsSealed) {
  EXPECT_EQ(seal(kFile), "/tmp/sealed.mp4 exists; --force replaces it");
  EXPECT_EQ(seal(kFile, true), "");
  EXPECT_EQ(seal("/tmp/bare.h264"), "/tmp/bare.h264: only an .mp4 or .mov can be sealed");
  EXPECT_THAT(seal("/tmp/none/x.mp4"),
              HasSubstr("cannot write /tmp/none/x.mp4.part: No such file"));
}

}  // namespace
}  // namespace tarn_test
