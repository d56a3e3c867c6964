#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

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

}  // namespace
}  // namespace tarn_test
