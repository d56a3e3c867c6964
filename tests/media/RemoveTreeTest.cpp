#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "media/RemoveTree.h"
#include "support/IoFaults.h"

namespace tarn_test {
namespace {

constexpr char kTree[] = "/tmp/tree";

void makeTree() {
  std::filesystem::create_directories(std::string(kTree) + "/deep/deeper");
  std::ofstream(std::string(kTree) + "/deep/deeper/file") << "text";
  std::ofstream(std::string(kTree) + "/file") << "text";
}

bool isThere() { return access(kTree, F_OK) == 0; }

// The C++ library's own function ends the process then.
TEST(RemoveTree, WhatThereIsNoMemoryForStaysAndIsTold) {
  if (!AllocationFault::supported()) GTEST_SKIP() << "the sanitizer owns the allocator";
  int refused = 0;
  int result = -1;
  for (int n = 1; n < 100 && result != 0; ++n) {
    makeTree();
    const std::string path = kTree;
    {
      const AllocationFault fault(1, n);
      result = tarn::tryRemoveTree(path);
    }
    EXPECT_EQ(result, isThere() ? ENOMEM : 0) << n;
    refused += result == ENOMEM ? 1 : 0;
  }
  EXPECT_EQ(result, 0);
  EXPECT_GT(refused, 0);
}

TEST(RemoveTree, NothingIsRemovedWithoutAWordAndALinkIsNotFollowed) {
  EXPECT_EQ(tarn::tryRemoveTree("/tmp/none"), 0);
  makeTree();
  ASSERT_EQ(symlink(kTree, "/tmp/link"), 0);
  EXPECT_EQ(tarn::tryRemoveTree("/tmp/link"), 0);
  EXPECT_NE(access("/tmp/link", F_OK), 0);
  EXPECT_TRUE(isThere());
  EXPECT_EQ(tarn::tryRemoveTree(kTree), 0);
  EXPECT_FALSE(isThere());
  EXPECT_NE(tarn::tryRemoveTree("/proc/version"), 0) << "nobody may";
}

}  // namespace
}  // namespace tarn_test
