// main() of the test programs where starting a program costs much, as it does under an emulator:
// one process runs all tests, each in a child of its own with a recorder's view of its own, made
// anew inside the view that the program was started in: empty /tmp, a /dev without a card, and
// System V IPC. Needs root there, as in a user namespace.
//   test_FOLDER [--part N/OF] [--not-here FILE] [--gtest_filter=…]
// FILE names tests that cannot run here, "Suite.Test reason" a line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kSkippedStatus = 77;
constexpr unsigned kTestSeconds = 300;
constexpr long kSlowSeconds = 10;  // tests that take longer are named with their time

void need(bool good, const char* what) {
  if (good) return;
  perror(what);
  _exit(126);
}

void bindMount(const std::string& from, const std::string& to) {
  need(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, from.c_str());
}

void newTmpfs(const char* place) {
  need(mkdir(place, 0755) == 0 || errno == EEXIST, place);
  need(mount("tmpfs", place, "tmpfs", 0, nullptr) == 0, place);
}

void newDev() {
  newTmpfs("/tmp/.dev");
  for (const std::string name : {"null", "zero", "full", "random", "urandom", "tty"}) {
    if (access(("/dev/" + name).c_str(), F_OK) != 0) continue;
    close(open(("/tmp/.dev/" + name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    bindMount("/dev/" + name, "/tmp/.dev/" + name);
  }
  need(symlink("/proc/self/fd", "/tmp/.dev/fd") == 0, "/dev/fd");
  need(mkdir("/tmp/.dev/shm", 01777) == 0, "/dev/shm");
  need(mount("/tmp/.dev", "/dev", nullptr, MS_MOVE, nullptr) == 0, "/dev");
  need(rmdir("/tmp/.dev") == 0, "/tmp/.dev");
}

// What the outer view shows below /tmp is a tree that lies there, and stays in sight.
void newTmp() {
  newTmpfs("/tmp/.own");
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    const std::string name = entry.path().filename();
    if (name == ".own") continue;
    need(mkdir(("/tmp/.own/" + name).c_str(), 0755) == 0, name.c_str());
    bindMount("/tmp/" + name, "/tmp/.own/" + name);
  }
  need(mount("/tmp/.own", "/tmp", nullptr, MS_MOVE, nullptr) == 0, "/tmp");
}

void enterOwnView() {
  need(unshare(CLONE_NEWNS | CLONE_NEWIPC) == 0, "unshare");
  need(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "/");
  newDev();
  newTmp();
}

// As on a board, the last gigabyte of the addresses is not the program's. The emulator gives it
// away when the memory in front is used up, but to the address sanitizer there is none: a program
// that gets some stops in the midst of its report. (Not by mmap(), which the sanitizer watches.)
void leaveKernelItsGigabyte() {
#if defined(__arm__)
  // A megabyte more: elsewhere the stack lies there, and the sanitizer relies on that as well.
  constexpr unsigned long kBegin = 0xC0000000 - 0x100000;
  constexpr unsigned long kEnd = 0xFFFF0000;  // where the kernel's helpers for programs lie
  need(syscall(SYS_mmap2, kBegin, kEnd - kBegin, PROT_NONE,
               MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0) != -1,
       "addresses of the kernel");
#endif
}

int runOne(const std::string& name) {
  enterOwnView();
  alarm(kTestSeconds);
  GTEST_FLAG_SET(filter, name);
  const int failed = RUN_ALL_TESTS();
  if (failed != 0) return 1;
  return testing::UnitTest::GetInstance()->skipped_test_count() > 0 ? kSkippedStatus : 0;
}

struct Totals {
  int passed = 0;
  int failed = 0;
  int skipped = 0;
};

std::string textOf(FILE* file) {
  std::string text;
  char piece[4096];
  rewind(file);
  for (size_t got; (got = fread(piece, 1, sizeof piece, file)) > 0;) text.append(piece, got);
  return text;
}

// What the test said when it skipped itself.
std::string skipReason(const std::string& output) {
  const size_t begin = output.find("Skipped\n");
  if (begin == std::string::npos) return "by itself";
  std::string reason = output.substr(begin + 8, output.find("[  SKIPPED ]", begin) - begin - 8);
  for (char& c : reason) c = c == '\n' ? ' ' : c;
  return reason;
}

long secondsNow() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

void runInChild(const std::string& name, Totals* totals) {
  FILE* output = tmpfile();
  fflush(nullptr);
  const long begin = secondsNow();
  const pid_t child = fork();
  if (child == 0) {
    dup2(fileno(output), STDOUT_FILENO);
    dup2(fileno(output), STDERR_FILENO);
    const int result = runOne(name);
    fflush(nullptr);
    _exit(result);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
    ++totals->passed;
  } else if (WIFEXITED(status) && WEXITSTATUS(status) == kSkippedStatus) {
    ++totals->skipped;
    printf("SKIPPED %s: %s\n", name.c_str(), skipReason(textOf(output)).c_str());
  } else {
    ++totals->failed;
    printf("%s\nFAILED %s (status %d)\n", textOf(output).c_str(), name.c_str(), status);
  }
  fclose(output);
  if (const long took = secondsNow() - begin; took >= kSlowSeconds) {
    printf("%ld s: %s\n", took, name.c_str());
  }
}

std::map<std::string, std::string> readList(const char* path) {
  std::map<std::string, std::string> list;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    const size_t blank = line.find(' ');
    if (!line.empty() && line[0] != '#' && blank != std::string::npos) {
      list[line.substr(0, blank)] = line.substr(blank + 1);
    }
  }
  return list;
}

std::vector<std::string> testNames() {
  std::vector<std::string> names;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int s = 0; s < all.total_test_suite_count(); ++s) {
    const testing::TestSuite& suite = *all.GetTestSuite(s);
    for (int t = 0; t < suite.total_test_count(); ++t) {
      names.push_back(std::string(suite.name()) + "." + suite.GetTestInfo(t)->name());
    }
  }
  return names;
}

}  // namespace

int main(int argc, char** argv) {
  leaveKernelItsGigabyte();
  testing::InitGoogleTest(&argc, argv);
  unsigned part = 0;
  unsigned parts = 1;
  std::map<std::string, std::string> notHere;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--part") == 0 && sscanf(argv[i + 1], "%u/%u", &part, &parts) != 2)
      return 2;
    if (strcmp(argv[i], "--not-here") == 0) notHere = readList(argv[i + 1]);
  }
  // A chosen test, or the list for CTest.
  if (argc == 1) return RUN_ALL_TESTS();
  Totals totals;
  unsigned number = 0;
  for (const std::string& name : testNames()) {
    if (number++ % parts != part) continue;
    if (const auto found = notHere.find(name); found != notHere.end()) {
      printf("SKIPPED %s: %s\n", name.c_str(), found->second.c_str());
      ++totals.skipped;
      continue;
    }
    runInChild(name, &totals);
  }
  printf("%d passed, %d failed, %d skipped\n", totals.passed, totals.failed, totals.skipped);
  return totals.failed == 0 ? 0 : 1;
}
