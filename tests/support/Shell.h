#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace tarn_test {

struct ShellResult {
  int exitCode;        // of the shell; 128 + signal number as shells count
  std::string output;  // standard output, and standard error unless the command sends it elsewhere
};

// Runs a command line with /bin/sh and waits for it.
inline ShellResult shell(const std::string& command) {
  FILE* pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "r");
  std::string output;
  char piece[4096];
  for (size_t got; (got = fread(piece, 1, sizeof piece, pipe)) > 0;) output.append(piece, got);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), output};
}

}  // namespace tarn_test
