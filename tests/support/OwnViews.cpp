// main() of the test programs: one process runs many tests, each in a child of its own with a
// recorder's view of its own, made anew inside the view that the program was started in: its own
// processes, empty /tmp, a /dev without a card, /usr/local/bin as it was, and System V IPC.
// Starting a program for each test would cost more than most tests do, most of all under an
// emulator. Needs root there, as in a user namespace.
//   test_FOLDER --own-views [--file FooTest.cpp] [--not-here FILE] [--beside N] [--warm-up yes]
//               [--gtest_filter=…]
// Takes the tests that the file defines, or all, N of them at a time. FILE names tests that cannot
// run here, a pattern and the reason a line. To warm up is to run the first test of each source
// before them, in the process that forks them; the tests end early then, too (both are for an
// emulator). Without --own-views it is an ordinary test program, for the debugger.
#include <fcntl.h>
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/Shortcuts.h"

namespace {

constexpr int kSkippedStatus = 77;
constexpr int kNotEndedStatus = 78;  // of a test whose process ended before it
constexpr unsigned kTestSeconds = 300;

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
  for (const std::string name : {"null", "zero", "full", "random", "urandom", "tty", "fuse"}) {
    if (access(("/dev/" + name).c_str(), F_OK) != 0) continue;
    close(open(("/tmp/.dev/" + name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    bindMount("/dev/" + name, "/tmp/.dev/" + name);
  }
  need(symlink("/proc/self/fd", "/tmp/.dev/fd") == 0, "/dev/fd");
  need(mkdir("/tmp/.dev/pts", 0755) == 0, "/dev/pts");
  if (access("/dev/pts/ptmx", F_OK) == 0) bindMount("/dev/pts", "/tmp/.dev/pts");
  need(symlink("pts/ptmx", "/tmp/.dev/ptmx") == 0, "/dev/ptmx");
  need(mkdir("/tmp/.dev/shm", 01777) == 0, "/dev/shm");
  // The folder stays: tests beside this one have theirs mounted on it.
  need(mount("/tmp/.dev", "/dev", nullptr, MS_MOVE, nullptr) == 0, "/dev");
}

// A new folder in an old one's place, with what the outer view shows there: a tree that lies below
// /tmp, programs in /usr/local/bin.
void renew(const std::string& place) {
  const std::string fresh = place + "/.own";
  newTmpfs(fresh.c_str());
  for (const auto& entry : std::filesystem::directory_iterator(place)) {
    const std::string name = entry.path().filename();
    if (name == ".own" || name == ".dev") continue;
    const std::string end = fresh + "/" + name;
    if (entry.is_directory()) {
      need(mkdir(end.c_str(), 0755) == 0, end.c_str());
    } else {
      close(open(end.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0755));
    }
    bindMount(entry.path(), end);
  }
  need(mount(fresh.c_str(), place.c_str(), nullptr, MS_MOVE, nullptr) == 0, place.c_str());
}

void enterOwnView() {
  need(unshare(CLONE_NEWNS | CLONE_NEWIPC) == 0, "unshare");
  need(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "/");
  need(mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0, "/proc");
  newDev();
  renew("/tmp");
  if (access("/usr/local/bin/dbsetup", F_OK) == 0) renew("/usr/local/bin");
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

// What a shell makes of a process's end.
int statusOf(int waited) {
  return WIFEXITED(waited) ? WEXITSTATUS(waited) : 128 + WTERMSIG(waited);
}

double seconds(const struct timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Of the processor, the kernel's work for the process included.
double seconds(const struct rusage& used) {
  return seconds(used.ru_utime) + seconds(used.ru_stime);
}

// How a test ended, as its processes hand it on.
struct Result {
  int status;        // exit status
  double processor;  // seconds of it that the test and what it waited for took
};

// Writing end of the pipe that takes a test's result.
int resultEnd = -1;

// Whether the test came to its end: in memory that a test's processes share.
bool* cameToItsEnd = nullptr;

// Says how the test ended, and waits to be ended with all its processes by who reads that.
[[noreturn]] void leave(int status) {
  if ((status == 0 || status == kSkippedStatus) && !*cameToItsEnd) {
    dprintf(STDERR_FILENO, "The process ended with %d in the midst of the test.\n", status);
    status = kNotEndedStatus;
  }
  struct rusage own = {};
  struct rusage waitedFor = {};
  need(getrusage(RUSAGE_SELF, &own) == 0 && getrusage(RUSAGE_CHILDREN, &waitedFor) == 0,
       "getrusage");
  const Result result = {status, seconds(own) + seconds(waitedFor)};
  need(write(resultEnd, &result, sizeof result) == sizeof result, "result of a test");
  for (;;) pause();
}

// The test's process where it leaves before GoogleTest's own end, or -1.
pid_t leavesEarly = -1;

// To take apart what GoogleTest knows of all other tests is code that no test has run before: an
// emulator translates it anew in each, and throws away at each process's end, one by one, what it
// translated, together a third of a short test's time. What the test and the product made while it
// ran has ended here. Static objects of the shared libraries have not: ours give back a lock and
// descriptors then, which the kernel does as well. A child that a test has forked ends as ever.
void endBeforeGoogleTest(int status, void*) {
  if (getpid() != leavesEarly) return;
  fflush(nullptr);
  leave(status);
}

// What is made first ends last: this is made right behind what GoogleTest knows of the tests.
__attribute__((constructor(101))) void prepareEarlyEnd() {
  testing::UnitTest::GetInstance();
  need(on_exit(endBeforeGoogleTest, nullptr) == 0, "on_exit");
}

// The test's own process. It ends by exit(), which is when leaks are looked for.
[[noreturn]] void runOne(const std::string& name, bool early) {
  alarm(kTestSeconds);
  if (early) leavesEarly = getpid();
  GTEST_FLAG_SET(filter, name);
  const int failed = RUN_ALL_TESTS();
  const bool skipped = testing::UnitTest::GetInstance()->skipped_test_count() > 0;
  *cameToItsEnd = true;
  exit(failed != 0 ? 1 : skipped ? kSkippedStatus : 0);
}

// The first of a test's processes, with whose end all others are ended, however the test ended.
[[noreturn]] void keepView(const std::string& name, bool early) {
  enterOwnView();
  void* const shared = mmap(nullptr, sizeof *cameToItsEnd, PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  need(shared != MAP_FAILED, "mmap");
  cameToItsEnd = static_cast<bool*>(shared);
  const pid_t test = fork();
  if (test == 0) runOne(name, early);
  int status = 0;
  for (pid_t ended = 0; ended != test;) ended = wait(&status);
  leave(statusOf(status));
}

// A fork whose child is the first process of a world of its own.
pid_t forkApart() {
  const int ownWorld = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
  need(ownWorld >= 0 && unshare(CLONE_NEWPID) == 0, "unshare of processes");
  const pid_t child = fork();
  if (child != 0) need(setns(ownWorld, CLONE_NEWPID) == 0, "setns");
  close(ownWorld);
  return child;
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

// What became of a test, with the seconds it took and the processor's among them.
void report(const std::string& name, const std::string& output, int status, Totals* totals) {
  if (status == 0) {
    ++totals->passed;
    printf("passed %s", name.c_str());
  } else if (status == kSkippedStatus) {
    ++totals->skipped;
    printf("SKIPPED %s: %s", name.c_str(), skipReason(output).c_str());
  } else {
    ++totals->failed;
    printf("%s\nFAILED %s (status %d)", output.c_str(), name.c_str(), status);
  }
}

// A test that runs, with what it says, and the reading end of the pipe that takes its result.
struct Running {
  std::string name;
  pid_t first;
  FILE* output;
  int result;
  std::chrono::steady_clock::time_point begin;
};
using Tests = std::vector<Running>;

void begin(const std::string& name, bool early, Tests* tests) {
  int result[2];
  need(pipe2(result, O_CLOEXEC) == 0, "pipe");
  Running test = {name, -1, tmpfile(), result[0], std::chrono::steady_clock::now()};
  need(test.output != nullptr, "output of a test");
  fflush(nullptr);
  test.first = forkApart();
  if (test.first == 0) {
    dup2(fileno(test.output), STDOUT_FILENO);
    dup2(fileno(test.output), STDERR_FILENO);
    close(result[0]);
    resultEnd = result[1];
    keepView(name, early);
  }
  need(test.first > 0, "fork");
  close(result[1]);
  tests->push_back(test);
}

// The first of them that has said its result, or whose processes are all gone.
Tests::iterator firstEnded(Tests* tests) {
  std::vector<struct pollfd> results;
  for (const Running& test : *tests) results.push_back({test.result, POLLIN, 0});
  int ready = -1;
  do {
    ready = poll(results.data(), results.size(), -1);
  } while (ready < 0 && errno == EINTR);
  need(ready > 0, "poll");
  const auto ended = std::find_if(results.begin(), results.end(),
                                  [](const struct pollfd& result) { return result.revents != 0; });
  return tests->begin() + (ended - results.begin());
}

// Waits for one of them, and ends all its processes.
void end(Tests* tests, Totals* totals) {
  const auto ended = firstEnded(tests);
  const Running test = *ended;
  tests->erase(ended);
  Result result = {};
  const bool said = read(test.result, &result, sizeof result) == sizeof result;
  kill(test.first, SIGKILL);
  int status = 0;
  struct rusage used = {};
  need(wait4(test.first, &status, 0, &used) == test.first, "wait4");
  if (!said) result = {statusOf(status), seconds(used)};
  report(test.name, textOf(test.output), result.status, totals);
  fclose(test.output);
  close(test.result);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - test.begin;
  printf(" (%.2f s, processor %.2f s)\n", took.count(), result.processor);
}

// Patterns of names, each with a reason.
using Reasons = std::vector<std::pair<std::string, std::string>>;

Reasons readReasons(const char* path) {
  Reasons reasons;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    const size_t blank = line.find(' ');
    if (!line.empty() && line[0] != '#' && blank != std::string::npos) {
      reasons.emplace_back(line.substr(0, blank), line.substr(blank + 1));
    }
  }
  return reasons;
}

const std::string* reasonFor(const std::string& name, const Reasons& reasons) {
  for (const auto& [pattern, reason] : reasons) {
    if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) return &reason;
  }
  return nullptr;
}

bool matchesOneOf(const std::string& name, const std::string& patterns) {
  for (size_t begin = 0, end; begin <= patterns.size(); begin = end + 1) {
    end = std::min(patterns.find(':', begin), patterns.size());
    if (fnmatch(patterns.substr(begin, end - begin).c_str(), name.c_str(), 0) == 0) return true;
  }
  return false;
}

// As GoogleTest reads its filter: patterns to take, and behind a "-" those to leave out.
bool isAskedFor(const std::string& name, const std::string& filter) {
  const size_t dash = filter.find('-');
  const std::string take = filter.substr(0, dash);
  return (take.empty() || matchesOneOf(name, take)) &&
         (dash == std::string::npos || !matchesOneOf(name, filter.substr(dash + 1)));
}

std::string fileName(const char* path) { return std::filesystem::path(path).filename(); }

// A test that a header defines would belong to no file that is asked for.
void needSourceOf(const testing::TestInfo& test) {
  const std::string file = fileName(test.file());
  if (file.size() > 8 && file.compare(file.size() - 8, 8, "Test.cpp") == 0) return;
  printf("%s is defined in %s, not in a …Test.cpp\n", test.name(), file.c_str());
  exit(1);
}

// Those of the file, or all for an empty one.
std::vector<std::string> testNames(const std::string& file) {
  std::vector<std::string> names;
  const std::string filter = GTEST_FLAG_GET(filter);
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int s = 0; s < all.total_test_suite_count(); ++s) {
    const testing::TestSuite& suite = *all.GetTestSuite(s);
    for (int t = 0; t < suite.total_test_count(); ++t) {
      const testing::TestInfo& test = *suite.GetTestInfo(t);
      needSourceOf(test);
      const std::string name = std::string(suite.name()) + "." + test.name();
      if (!file.empty() && fileName(test.file()) != file) continue;
      if (isAskedFor(name, filter)) names.push_back(name);
    }
  }
  return names;
}

// The first test of each source, but none that cannot run here: a filter for GoogleTest.
std::string firstOfEach(const Reasons& notHere) {
  std::string tests;
  std::set<std::string> files;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int s = 0; s < all.total_test_suite_count(); ++s) {
    const testing::TestInfo& test = *all.GetTestSuite(s)->GetTestInfo(0);
    const std::string name = std::string(test.test_suite_name()) + "." + test.name();
    if (reasonFor(name, notHere) == nullptr && files.insert(test.file()).second)
      tests += ":" + name;
  }
  return tests;
}

// A file system's view is only changed by a process that has it for itself. A thread that was
// waited for may still be on its way out, with its share of it.
bool setnsAlone(int view, int kind) {
  constexpr int kTries = 10000;  // of a millisecond
  for (int tries = 0; tries < kTries; ++tries) {
    if (setns(view, kind) == 0) return true;
    if (errno != EINVAL) return false;
    usleep(1000);
  }
  return false;
}

// An emulator keeps the code that it has translated, and hands it on to the children: half of a
// short test's time is translation. The first thread makes it forget all of it once. What the tests
// say does not count, they have their turn in views of their own later.
void warmUp(const std::string& tests) {
  std::thread([] {}).join();
  const int outside = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
  const int sameIpc = open("/proc/self/ns/ipc", O_RDONLY | O_CLOEXEC);
  enterOwnView();
  const int output = dup(STDOUT_FILENO);
  const int none = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(none, STDOUT_FILENO);
  const std::string filter = GTEST_FLAG_GET(filter);
  GTEST_FLAG_SET(filter, tests);
  alarm(kTestSeconds);
  [[maybe_unused]] const int failed = RUN_ALL_TESTS();
  alarm(0);
  GTEST_FLAG_SET(filter, filter);
  fflush(stdout);
  dup2(output, STDOUT_FILENO);
  need(setnsAlone(outside, CLONE_NEWNS) && setns(sameIpc, CLONE_NEWIPC) == 0, "setns back");
  for (const int fd : {outside, sameIpc, output, none}) close(fd);
}

// What a run of the program is to do.
struct Wish {
  std::string file;
  Reasons notHere;
  size_t beside = 1;
  bool warm = false;
};

int runAll(const Wish& wish) {
  if (tarn_test::prepareShortcuts != nullptr) tarn_test::prepareShortcuts();
  if (wish.warm) warmUp(firstOfEach(wish.notHere));
  Totals totals;
  Tests running;
  for (const std::string& name : testNames(wish.file)) {
    if (const std::string* reason = reasonFor(name, wish.notHere); reason != nullptr) {
      printf("SKIPPED %s: %s\n", name.c_str(), reason->c_str());
      ++totals.skipped;
      continue;
    }
    while (running.size() >= wish.beside) end(&running, &totals);
    begin(name, wish.warm, &running);
  }
  while (!running.empty()) end(&running, &totals);
  printf("%d passed, %d failed, %d skipped\n", totals.passed, totals.failed, totals.skipped);
  return totals.failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  leaveKernelItsGigabyte();
  testing::InitGoogleTest(&argc, argv);
  if (argc < 2 || strcmp(argv[1], "--own-views") != 0) return RUN_ALL_TESTS();
  Wish wish;
  for (int i = 2; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--file") == 0) wish.file = argv[i + 1];
    if (strcmp(argv[i], "--not-here") == 0) wish.notHere = readReasons(argv[i + 1]);
    if (strcmp(argv[i], "--beside") == 0) wish.beside = std::max(1, atoi(argv[i + 1]));
    if (strcmp(argv[i], "--warm-up") == 0) wish.warm = true;
  }
  return runAll(wish);
}
