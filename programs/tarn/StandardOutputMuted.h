#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "base/UniqueFd.h"

namespace tarn {

// The library prints notices on standard output, which belongs to the command.
class StandardOutputMuted {
 public:
  StandardOutputMuted() {
    fflush(stdout);
    kept_.reset(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    pointAtNull();
  }
  ~StandardOutputMuted() {
    fflush(stdout);
    if (kept_.valid()) dup2(kept_.get(), STDOUT_FILENO);
  }
  StandardOutputMuted(const StandardOutputMuted&) = delete;
  StandardOutputMuted& operator=(const StandardOutputMuted&) = delete;

  static void pointAtNull() {
    const UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null.valid()) dup2(null.get(), STDOUT_FILENO);
  }

 private:
  UniqueFd kept_;
};

}  // namespace tarn
