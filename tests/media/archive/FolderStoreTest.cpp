#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <new>

#include "media/archive/ArchiveStore.h"
#include "support/IoFaults.h"

namespace tarn_test {
namespace {

constexpr char kFolder[] = "/tmp/archive";
constexpr char kBytes[] = "what is archived";

// A directory of the network, whose calls a signal interrupts.
class FolderStoreTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir(kFolder, 0777), 0);
    store = tarn::ArchiveStore::open(kFolder, &error);
    ASSERT_NE(store, nullptr) << error;
  }
  bool put() {
    return store->put(
        "a",
        [](const tarn::ByteSink& sink) {
          return sink(reinterpret_cast<const uint8_t*>(kBytes), sizeof kBytes);
        },
        &stored);
  }
  void expectTwiceAsGood(Call call, const char* path) {
    IoFaults faults(path);
    faults.fail(call, 1, EINTR, 3);
    EXPECT_TRUE(put()) << store->error();
    EXPECT_GE(faults.count(call), 4u) << "what was interrupted is done again";
    EXPECT_EQ(stored.proof, tarn::ArchiveStore::Proof::kReadBack);
  }

  std::unique_ptr<tarn::ArchiveStore> store;
  tarn::ArchiveStore::Stored stored;
  std::string error;
};

TEST_F(FolderStoreTest, InterruptedReadingGoesOn) {
  expectTwiceAsGood(Call::Read, "/tmp/archive/a.part");
}

TEST_F(FolderStoreTest, InterruptedWritingGoesOn) {
  expectTwiceAsGood(Call::Write, "/tmp/archive/a.part");
}

TEST_F(FolderStoreTest, InterruptedFlushIsMadeAgain) {
  expectTwiceAsGood(Call::Fsync, "/tmp/archive/a.part");
  expectTwiceAsGood(Call::Fsync, "/tmp/archive");
}

TEST_F(FolderStoreTest, InterruptedOpeningIsMadeAgain) {
  expectTwiceAsGood(Call::Open, "/tmp/archive/a.part");
}

TEST_F(FolderStoreTest, WhatCannotBeReadIsAnErrorThatNamesIt) {
  ASSERT_TRUE(put());
  IoFaults faults("/tmp/archive/a");
  faults.fail(Call::Read, 1, EIO);
  EXPECT_FALSE(store->get("a", [](const uint8_t*, size_t) { return true; }));
  EXPECT_EQ(store->error(), "cannot read /tmp/archive/a: Input/output error");
}

// What a store does not tell of would be sent again.
TEST_F(FolderStoreTest, AListThatThereIsNoMemoryForIsNoShortList) {
  if (!AllocationFault::supported()) GTEST_SKIP() << "the sanitizer owns the allocator";
  ASSERT_EQ(mkdir("/tmp/archive/in", 0777), 0);
  for (const char* name : {"/tmp/archive/a", "/tmp/archive/in/b"})
    ASSERT_TRUE(std::ofstream(name) << kBytes);
  ASSERT_EQ(symlink("/tmp/archive/a", "/tmp/archive/link"), 0);
  std::vector<tarn::ArchiveStore::Object> objects;
  int refused = 0;
  for (bool whole = false; !whole && refused < 1000; refused += whole ? 0 : 1) {
    objects.clear();
    try {
      const AllocationFault fault(1, refused + 1);
      whole = store->list("", &objects);
    } catch (const std::bad_alloc&) {
    }
  }
  EXPECT_GT(refused, 5);
  ASSERT_EQ(objects.size(), 2u);
  std::sort(objects.begin(), objects.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  EXPECT_EQ(objects[0].name, "a");
  EXPECT_EQ(objects[1].name, "in/b");
  EXPECT_EQ(objects[1].bytes, static_cast<int64_t>(sizeof kBytes - 1));
  objects.clear();
  EXPECT_TRUE(store->list("in", &objects));
  ASSERT_EQ(objects.size(), 1u);
  EXPECT_EQ(objects[0].name, "in/b");
  EXPECT_TRUE(store->list("none", &objects)) << "nothing was sent yet";
}

}  // namespace
}  // namespace tarn_test
