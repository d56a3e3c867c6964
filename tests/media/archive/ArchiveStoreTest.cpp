#include <gmock/gmock.h>

#include <map>
#include <vector>

#include "media/archive/ArchiveStore.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

constexpr char kMd5OfAbc[] = "900150983cd24fb0d6963f7d28e17f72";
constexpr char kSha256OfAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

// A storage in memory that does what it is told to do wrong.
class FaultyStore : public tarn::ArchiveStore {
 public:
  std::map<std::string, std::string> objects;
  size_t takes = SIZE_MAX;  // bytes, then it refuses
  size_t keeps = SIZE_MAX;  // bytes; the rest is lost without a word
  bool turnsBits = false;
  bool tellsSize = true;
  std::string md5;  // that it says its objects have
  bool renames = true;
  int spoilsOnTheWay = 0;          // of the next reads
  size_t cutsOnTheWay = SIZE_MAX;  // bytes of an object that arrive

  bool list(const std::string& folder, std::vector<Object>* out) override {
    for (const auto& one : objects) {
      if (one.first.rfind(folder, 0) == 0) out->push_back({one.first, -1, {}});
    }
    return true;
  }
  bool get(const std::string& name, const tarn::ByteSink& take) override {
    std::string held = objects[name];
    ++reads;
    if (spoilsOnTheWay > 0 && spoilsOnTheWay-- > 0) held[0] = static_cast<char>(held[0] ^ 1);
    held.resize(std::min(held.size(), cutsOnTheWay));
    return take(reinterpret_cast<const uint8_t*>(held.data()), held.size());
  }
  bool look(const std::string& name, Object* object) override {
    *object = {name, tellsSize ? static_cast<int64_t>(objects[name].size()) : -1, {md5, "", ""}};
    return true;
  }

  bool holds(const std::string& name, bool* there) override {
    *there = objects.count(name) != 0;
    return true;
  }

  int reads = 0;

 private:
  bool begin(const std::string& name) override {
    sending_ = name;
    objects[name].clear();
    return true;
  }
  bool add(const uint8_t* data, size_t size) override {
    std::string& held = objects[sending_];
    if (held.size() + size > takes) return fail("no room");
    held.append(reinterpret_cast<const char*>(data), size);
    if (held.size() > keeps) held.resize(keeps);
    if (turnsBits) held.back() = static_cast<char>(held.back() ^ 1);
    return true;
  }
  bool finish() override { return true; }
  void abandon() override {}
  bool rename(const std::string& from, const std::string& to) override {
    if (!renames) return fail("no such name");
    objects[to] = objects[from];
    objects.erase(from);
    return true;
  }
  bool remove(const std::string& name) override {
    objects.erase(name);
    return true;
  }
  bool readsBack() const override { return false; }

  std::string sending_;
};

class ArchiveStoreTest : public testing::Test {
 protected:
  bool put() {
    return store.put(
        "a/b.mp4",
        [](const tarn::ByteSink& sink) { return sink(reinterpret_cast<const uint8_t*>("abc"), 3); },
        &stored);
  }
  void expectRefused(const std::string& text) {
    EXPECT_FALSE(put());
    EXPECT_THAT(store.error(), HasSubstr(text));
    EXPECT_THAT(store.objects, IsEmpty()) << "nothing half is to be seen, or left";
  }

  FaultyStore store;
  tarn::ArchiveStore::Stored stored;
};

TEST_F(ArchiveStoreTest, ObjectIsProvenByTheHashThatItsStorageTells) {
  store.md5 = kMd5OfAbc;
  ASSERT_TRUE(put()) << store.error();
  EXPECT_THAT(store.objects, ElementsAre(Pair("a/b.mp4", "abc")));
  EXPECT_EQ(stored.proof, tarn::ArchiveStore::Proof::kHash);
  EXPECT_EQ(stored.bytes, 3u);
  EXPECT_EQ(stored.hashes.md5, kMd5OfAbc);
  EXPECT_EQ(stored.hashes.sha256, kSha256OfAbc);
  EXPECT_EQ(store.reads, 0);
}

TEST_F(ArchiveStoreTest, WithoutAHashItsSizeIsEnoughWhereThatIsAskedFor) {
  store.trustSize(true);
  ASSERT_TRUE(put()) << store.error();
  EXPECT_EQ(stored.proof, tarn::ArchiveStore::Proof::kSize);
  EXPECT_EQ(store.reads, 0);
}

TEST_F(ArchiveStoreTest, WithoutAHashItIsReadBack) {
  ASSERT_TRUE(put()) << store.error();
  EXPECT_EQ(stored.proof, tarn::ArchiveStore::Proof::kReadBack);
  EXPECT_EQ(store.reads, 1);
}

TEST_F(ArchiveStoreTest, WithoutHashAndSizeItIsReadBackWhateverIsAskedFor) {
  store.tellsSize = false;
  store.trustSize(true);
  ASSERT_TRUE(put()) << store.error();
  EXPECT_EQ(stored.proof, tarn::ArchiveStore::Proof::kReadBack);
  EXPECT_EQ(store.reads, 1);
}

TEST_F(ArchiveStoreTest, WrongHashGetsNoName) {
  store.md5 = "00000000000000000000000000000000";
  expectRefused("has another hash than what was sent");
}

TEST_F(ArchiveStoreTest, ShortObjectGetsNoName) {
  store.keeps = 2;
  expectRefused("has 2 bytes, of 3 that were sent");
}

TEST_F(ArchiveStoreTest, ObjectThatReadsOtherwiseGetsNoName) {
  store.tellsSize = false;
  store.turnsBits = true;
  expectRefused("does not hold the bytes that were sent");
}

TEST_F(ArchiveStoreTest, FullStorageIsItsOwnErrorAndLeavesNothing) {
  store.takes = 2;
  expectRefused("no room");
}

TEST_F(ArchiveStoreTest, NameThatCannotBeGivenLeavesWhatWasThere) {
  ASSERT_TRUE(put());
  store.renames = false;
  EXPECT_FALSE(put());
  EXPECT_EQ(store.error(), "no such name");
  EXPECT_EQ(store.objects.at("a/b.mp4"), "abc");
}

TEST_F(ArchiveStoreTest, SourceThatFailsIsNoErrorOfTheStorage) {
  EXPECT_FALSE(store.put(
      "a/b.mp4", [](const tarn::ByteSink&) { return false; }, &stored));
  EXPECT_EQ(store.error(), "");
  EXPECT_THAT(store.objects, IsEmpty());
}

TEST_F(ArchiveStoreTest, ComparingForGoodReadsWhatHasNoHash) {
  ASSERT_TRUE(put());
  store.objects["a/b.mp4"] = "abd";
  EXPECT_EQ(store.compare("a/b.mp4", true, &stored), tarn::ArchiveStore::Answer::kSame);
  EXPECT_EQ(store.compare("a/b.mp4", false, &stored), tarn::ArchiveStore::Answer::kDiffers);
}

TEST_F(ArchiveStoreTest, WhatTheWayChangesIsNotCalledDamaged) {
  ASSERT_TRUE(put());
  store.spoilsOnTheWay = 1;
  EXPECT_EQ(store.compare("a/b.mp4", false, &stored), tarn::ArchiveStore::Answer::kFailed);
  EXPECT_EQ(store.error(), "a/b.mp4: the bytes that came are not those that the archive has");
  store.cutsOnTheWay = 2;
  EXPECT_EQ(store.compare("a/b.mp4", false, &stored), tarn::ArchiveStore::Answer::kFailed);
  EXPECT_EQ(store.error(), "a/b.mp4: 2 of its 3 bytes came");
}

TEST_F(ArchiveStoreTest, ColonInFrontOfTheFirstSlashMakesARemote) {
  EXPECT_TRUE(tarn::ArchiveStore::isRemote("s3:bucket/a"));
  EXPECT_TRUE(tarn::ArchiveStore::isRemote(":webdav,url='http://127.0.0.1':a"));
  EXPECT_FALSE(tarn::ArchiveStore::isRemote("/mnt/a:b"));
  EXPECT_FALSE(tarn::ArchiveStore::isRemote("./a:b"));
  EXPECT_FALSE(tarn::ArchiveStore::isRemote("archive"));
}

}  // namespace
}  // namespace tarn_test
