#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace tarn_fuzz {

// Some diagnostics of the library go to standard output; the fuzzer itself talks on standard error.
inline void muteStandardOutput() {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  close(null);
}

}  // namespace tarn_fuzz
