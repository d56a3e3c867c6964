#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace faults {

// How a program is started: files for its streams ("" is /dev/null), what it says on descriptor 3
// is added to `promises`, and `plan` names the interposer's orders ("": runs without it).
struct Launch {
  std::vector<std::string> arguments;
  std::string input, output, errors, promises, plan, log;
  int readyFd = -1;  // inherited as it is
};

struct Ending {
  bool hung = false;
  bool signalled = false;
  int code = 0;  // exit status, or the signal's number
};

// A process group to put processes into; ended by endGroup().
pid_t newGroup();
// The process, a member of this process's group `group` (0: this process's).
pid_t launch(const Launch& how, pid_t group);
// Waits; what does not end is killed and hangs: when nothing of the view has run for the limit, or
// when it has used the processors for longer.
Ending await(pid_t pid, int limitMs);
// Kills what is left of a group that launch() made, and reaps every child of this process.
void endGroup(pid_t group);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

}  // namespace faults
