#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "base/FolderNames.h"
#include "support/IoFaults.h"

namespace {

// Names that can still be read before the folder is refused; below 0: all.
std::atomic<int> g_readable{-1};

template <typename Entry>
Entry* readNext(DIR* folder, const char* name) {
  static const auto real = reinterpret_cast<Entry* (*)(DIR*)>(dlsym(RTLD_NEXT, name));
  if (g_readable == 0) {
    errno = EIO;
    return nullptr;
  }
  if (g_readable > 0) --g_readable;
  return real(folder);
}

}  // namespace

// The headers may map the one name to the other, so the symbols are spelled here.
extern "C" {
dirent* tarn_test_readdir(DIR* folder) __asm__("readdir");
dirent64* tarn_test_readdir64(DIR* folder) __asm__("readdir64");

dirent* tarn_test_readdir(DIR* folder) { return readNext<dirent>(folder, "readdir"); }
dirent64* tarn_test_readdir64(DIR* folder) { return readNext<dirent64>(folder, "readdir64"); }
}

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class FolderNames : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir("/tmp/f", 0777), 0);
    ASSERT_EQ(mkdir("/tmp/f/in", 0777), 0);
    ASSERT_EQ(mkdir("/tmp/f/in/deeper", 0777), 0);
    ASSERT_EQ(mkdir("/tmp/other", 0777), 0);
    for (const char* name : {"/tmp/f/.a", "/tmp/f/in/deeper/b", "/tmp/other/c"})
      ASSERT_TRUE(std::ofstream(name) << "text");
    ASSERT_EQ(symlink("/tmp/other", "/tmp/f/link"), 0);
    ASSERT_EQ(symlink("/tmp/nothing", "/tmp/f/in/broken"), 0);
  }
  void TearDown() override { g_readable = -1; }

  std::vector<std::string> names;
};

TEST_F(FolderNames, AreThoseOfTheFolderAlone) {
  EXPECT_EQ(tarn::folderNames("/tmp/f", &names), 0);
  EXPECT_THAT(names, UnorderedElementsAre(".a", "in", "link"));
  EXPECT_EQ(tarn::folderNames("/tmp/nothing", &names), ENOENT);
  EXPECT_THAT(names, IsEmpty());
}

TEST_F(FolderNames, PathsBelowComeBehindTheFolderThatHoldsThemAndLinksAreNotFollowed) {
  EXPECT_EQ(tarn::pathsBelow("/tmp/f", &names), 0);
  EXPECT_THAT(names, UnorderedElementsAre(".a", "in", "link", "in/deeper", "in/broken",
                                          "in/deeper/b"));
  std::vector<std::string> folders;
  for (const std::string& name : names) {
    if (name == "in" || name.find("deeper") != std::string::npos) folders.push_back(name);
  }
  EXPECT_THAT(folders, ElementsAre("in", "in/deeper", "in/deeper/b"));
  EXPECT_EQ(tarn::pathsBelow("/tmp/nothing", &names), ENOENT);
  EXPECT_EQ(tarn::pathsBelow("/tmp/f/.a", &names), ENOTDIR);
}

// A list that ends too early would count as all there is.
TEST_F(FolderNames, AFolderThatIsRefusedInTheMidstIsAnErrorHoweverDeep) {
  int readable = 0;
  for (;; ++readable) {
    g_readable = readable;
    const int result = tarn::pathsBelow("/tmp/f", &names);
    g_readable = -1;
    if (result == 0) break;
    ASSERT_EQ(result, EIO) << readable;
  }
  // The names of three folders, "." and ".." of each, and the end of each.
  EXPECT_EQ(readable, 6 + 3 * 3);
}

// The C++ library's own iterator ends the process then.
TEST_F(FolderNames, ThatThereIsNoMemoryForThrow) {
  if (!AllocationFault::supported()) GTEST_SKIP() << "the sanitizer owns the allocator";
  int refused = 0;
  for (bool whole = false; !whole;) {
    int result = 0;
    try {
      const AllocationFault fault(1, refused + 1);
      result = tarn::pathsBelow("/tmp/f", &names);
      whole = result == 0;
    } catch (const std::bad_alloc&) {
      result = ENOMEM;
    }
    ASSERT_EQ(result, whole ? 0 : ENOMEM);
    refused += whole ? 0 : 1;
    ASSERT_LT(refused, 1000);
  }
  EXPECT_GT(refused, 5);
  EXPECT_EQ(names.size(), 6u);
}

}  // namespace
}  // namespace tarn_test
