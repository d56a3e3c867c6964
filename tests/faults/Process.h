#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace faults {

// How a program is started: files for its streams ("" is /dev/null), what it says on descriptor 3
// is added to `promises`, and `plan` names the interposer's orders.
struct Launch {
  std::vector<std::string> arguments;
  std::string input, output, errors, promises, plan, log;
  int readyFd = -1;  // the program's kReadyFd
};

struct Ending {
  bool hung = false;
  bool signalled = false;
  int code = 0;  // exit status, or the signal's number
};

// A process group to put processes into; ended by endGroup().
pid_t newGroup();
// The process, a member of this process's group `group` (0: this process's). It is forked from one
// that was started before with these arguments and orders, and waits in front of main().
pid_t launch(const Launch& how, pid_t group);
// A program that is none of ours.
pid_t launchForeign(const std::vector<std::string>& arguments);
// Waits; what does not end is killed and hangs: when nothing of the view has run for the limit, or
// when it has used the processors for longer.
Ending await(pid_t pid, int limitMs);
// Kills what is left of a group, and reaps it.
void endGroup(pid_t group);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

}  // namespace faults
