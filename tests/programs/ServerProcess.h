#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/UniqueFd.h"

namespace tarn_test {

inline std::string readAll(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t got;
  while ((got = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(got));
  return text;
}

// Fills the pipe up whose reading end this is; nobody empties it.
inline void fillPipe(int readingEnd) {
  fcntl(readingEnd, F_SETPIPE_SZ, 4096);
  const std::string path = "/proc/self/fd/" + std::to_string(readingEnd);
  const tarn::UniqueFd end(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  EXPECT_TRUE(end.valid());
  const std::string block(512, 'f');
  while (write(end.get(), block.data(), block.size()) > 0) {
  }
}

// A real tarn-server. Killed when the object goes.
class ServerProcess {
 public:
  // Runs the program with these arguments and, with `ready`, a pipe for --ready-fd. With
  // `cannotWrite` every write to a file, the card included, fails.
  explicit ServerProcess(std::vector<std::string> args, bool ready = false,
                         bool cannotWrite = false) {
    int readyPipe[2], outPipe[2], errPipe[2];
    EXPECT_EQ(pipe2(readyPipe, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(outPipe, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(errPipe, O_CLOEXEC), 0);
    if (ready) {
      args.push_back("--ready-fd");
      args.push_back("9");
    }
    std::vector<char*> argv = {const_cast<char*>("tarn-server")};
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(outPipe[1], STDOUT_FILENO);
      dup2(errPipe[1], STDERR_FILENO);
      if (ready) {
        dup2(readyPipe[1], 9);
        fcntl(9, F_SETFD, 0);  // the pipe may have been 9 already
      }
      if (cannotWrite) {
        const rlimit none{0, 0};
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &none);
      }
      execv(TARN_BIN_DIR "/tarn-server", argv.data());
      _exit(127);
    }
    for (int fd : {readyPipe[1], outPipe[1], errPipe[1]}) close(fd);
    ready_.reset(readyPipe[0]);
    out_.reset(outPipe[0]);
    err_.reset(errPipe[0]);
  }
  ~ServerProcess() {
    if (pid_ > 0) end(SIGKILL);
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // What came through --ready-fd until its end.
  std::string readiness() { return readAll(ready_.get()); }
  // Exit status, or minus the signal that ended it.
  int wait() {
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }
  int end(int signal) {
    kill(pid_, signal);
    return wait();
  }
  std::string out() { return readAll(out_.get()); }
  std::string err() { return readAll(err_.get()); }
  pid_t pid() const { return pid_; }
  // The reading ends of its standard output and error.
  int outFd() const { return out_.get(); }
  int errFd() const { return err_.get(); }

 private:
  pid_t pid_ = -1;
  tarn::UniqueFd ready_, out_, err_;
};

}  // namespace tarn_test
