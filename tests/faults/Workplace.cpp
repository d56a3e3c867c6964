#include "Workplace.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "ForkServer.h"

namespace faults {
namespace {

Plan* mapPlan(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, sizeof(Plan)) != 0) abort();
  void* memory = mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory == MAP_FAILED) abort();
  return static_cast<Plan*>(memory);
}

// Lines without their numbers, which differ from run to run.
std::set<std::string> kindsOfLines(const std::string& text) {
  std::set<std::string> kinds;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::string kind;
    for (const char c : line) {
      const bool digit = c >= '0' && c <= '9' && !kind.empty() && kind[0] == '<' && kind.size() > 2;
      if (digit && kind.back() == '#') continue;
      kind += digit ? '#' : c;
    }
    kinds.insert(kind);
  }
  return kinds;
}

}  // namespace

Workplace::Workplace(const std::string& binDir) : bin_(binDir), work_(kWork) {
  mkdir(kWork, 0700);
  // What a program leaves behind becomes ours, and is reaped.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  plan_ = mapPlan(path("plan"));
  plain_ = mapPlan(path("plain"));
  // Where this is not allowed the other one takes its time.
  mount((bin_ + kSetup).c_str(), "/usr/local/bin/dbsetup", nullptr, MS_BIND, nullptr);
  // Times of the command line are local ones.
  setenv("TZ", "UTC0", 1);
}

Workplace::~Workplace() { endGroup(); }

std::string Workplace::path(const std::string& name) const { return work_ + "/" + name; }

void Workplace::clear(const std::string& promises) {
  for (const char* name : {"output", "errors", "findings", "log", "other-output", "other-errors",
                           "other-log", "verdict"})
    writeFile(path(name), "");
  writeFile(path("promises"), promises);
}

void Workplace::addPromises(const std::string& lines) {
  writeFile(path("promises"), readFile(path("promises")) + lines);
}

void Workplace::order(const Case& fault, uint32_t speed) {
  memset(static_cast<void*>(plan_), 0, sizeof *plan_);
  memset(static_cast<void*>(plain_), 0, sizeof *plain_);
  plan_->op = fault.op;
  plan_->mode = fault.mode;
  plan_->number = fault.number;
  plan_->speed = plain_->speed = speed;
}

void Workplace::endGroup() {
  faults::endGroup(group_);
  group_ = 0;
}

Launch Workplace::with(const std::vector<std::string>& arguments, bool faulty) const {
  Launch how;
  how.arguments = arguments;
  how.promises = path("promises");
  how.output = path(faulty ? "output" : "other-output");
  how.errors = path(faulty ? "errors" : "other-errors");
  how.log = path(faulty ? "log" : "other-log");
  how.plan = path(faulty ? "plan" : "plain");
  return how;
}

std::string Workplace::must(const std::vector<std::string>& arguments) const {
  const Ending ending = await(launch(with(arguments, false), group_), kLimitMs);
  if (!ending.hung && !ending.signalled && ending.code == 0) return "";
  return arguments[0] + " " + arguments[1] +
         " fails without a fault: " + readFile(path("other-errors")) + readFile(path("other-log"));
}

pid_t Workplace::startServer(bool faulty, bool* ready) const {
  int ends[2];
  *ready = false;
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  Launch how = with({bin_ + kServer, "--ready-fd", std::to_string(kReadyFd)}, faulty);
  how.promises = "";
  how.readyFd = ends[1];
  const pid_t server = launch(how, group_);
  close(ends[1]);
  pollfd entry = {ends[0], POLLIN, 0};
  char mark = 0;
  *ready = poll(&entry, 1, kLimitMs) > 0 && ::read(ends[0], &mark, 1) == 1;
  close(ends[0]);
  return server;
}

Ending Workplace::stop(pid_t server) const {
  kill(server, SIGTERM);
  return await(server, limitMs_);
}

void Workplace::takeLogAsUsual() {
  for (const char* name : {"log", "other-log"})
    usualLines_.merge(kindsOfLines(readFile(path(name))));
}

std::string Workplace::complaints() const {
  // What a check finds it says on its standard output.
  std::string text = readFile(path("errors")) + readFile(path("findings"));
  for (const std::string& line :
       kindsOfLines(readFile(path("log")) + readFile(path("other-log")))) {
    if (usualLines_.count(line) == 0) text += line + "\n";
  }
  return text;
}

void Workplace::print(const char* what) const {
  printf("== %s\n", what);
  for (const char* name : {"output", "errors", "log", "other-errors", "other-log", "verdict"})
    printf("-- %s\n%s", name, readFile(path(name)).c_str());
  fflush(stdout);
}

}  // namespace faults
