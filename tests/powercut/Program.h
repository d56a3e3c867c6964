#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

// What the programs have in common that try one state of a card after the other.
namespace powercut {

// The library talks on standard output, which goes nowhere from here on; the report goes where that
// was.
inline FILE* muteStandardOutput() {
  const int report = dup(STDOUT_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (report < 0 || nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0)
    throw std::runtime_error("dup");
  ::close(nowhere);
  return fdopen(report, "w");
}

// Threads that hand work to each other all the time do it faster on one processor.
inline void stayOnProcessor(unsigned long slot) {
  cpu_set_t mine;
  if (sched_getaffinity(0, sizeof mine, &mine) != 0) return;
  unsigned long skip = slot % static_cast<unsigned long>(CPU_COUNT(&mine));
  for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (!CPU_ISSET(processor, &mine) || skip-- > 0) continue;
    CPU_ZERO(&mine);
    CPU_SET(processor, &mine);
    sched_setaffinity(0, sizeof mine, &mine);
    return;
  }
}

}  // namespace powercut
