#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace tarn {

// A program that this one has started. Waits are for the thread that started it.
class ChildProcess {
 public:
  ChildProcess() = default;
  // Does not stop the child.
  ~ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts arguments[0], looked up in PATH. `prepare` runs in the child before the program, after
  // signals have been reset to what they do by themselves. False when no process could be made; a
  // program that cannot be run shows as exit code 127 (not found) or 126.
  bool start(const std::vector<std::string>& arguments, const std::function<void()>& prepare);
  // Goes on in two processes, of which only the other one sees true in *inChild: it has the signal
  // handlers of this one, and is stopped when this one dies. False when no process could be made.
  bool split(bool* inChild);
  // Waits for the end; stop requests of this program go on to the child, SIGINT only where it did
  // not come from the terminal, which gives it to both. A `target` that gives a process gets a
  // SIGTERM for each instead. Returns the exit code, 128 + signal number for a child that a signal
  // ended.
  int wait(const std::function<pid_t()>& target = nullptr);
  // Waits at most that long. True when the child has ended.
  bool waitFor(int milliseconds, int* exitCode);
  // True while a signal (SIGSTOP) keeps the child from going on; a tracer's stops do not count.
  bool stopped() const;
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = 0;
};

}  // namespace tarn
