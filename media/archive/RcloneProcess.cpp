#include "media/archive/RcloneProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace tarn {
namespace {

constexpr int kNotFound = 127;
constexpr uint32_t kAttempts = 3;  // of rclone's, at one request
constexpr uint32_t kConnectSeconds = 60;
constexpr char kErrNotInstalled[] =
    "rclone is missing, and without it no remote is reached (Debian: apt-get install rclone)";
constexpr char kErrRemoteFull[] = "the remote is full";
constexpr char kErrCredentials[] = "the remote does not accept the credentials that rclone has";
constexpr char kErrNoRemote[] = "rclone knows no such remote; \"rclone config\" makes one";
constexpr char kErrNotReached[] = "the remote cannot be reached";
constexpr char kErrNoAnswer[] =
    "the remote moved nothing for too long and was given up (--timeout)";
constexpr char kErrClock[] = "the remote does not accept the time that this machine's clock has";

struct Meaning {
  const char* said;  // in small letters
  const char* text;
};
constexpr Meaning kMeanings[] = {
    {"didn't find section in config file", kErrNoRemote},
    {"no space left", kErrRemoteFull},
    {"insufficient storage", kErrRemoteFull},
    {"quota", kErrRemoteFull},
    {"toolargeskew", kErrClock},
    {"tooskewed", kErrClock},
    {"expiredtoken", kErrCredentials},
    {"token has expired", kErrCredentials},
    {"unauthorized", kErrCredentials},
    {"access denied", kErrCredentials},
    {"accessdenied", kErrCredentials},
    {"forbidden", kErrCredentials},
    {"invalid credentials", kErrCredentials},
    {"unable to authenticate", kErrCredentials},
    {"token expired", kErrCredentials},
    {"connection refused", kErrNotReached},
    {"no such host", kErrNotReached},
    {"no route to host", kErrNotReached},
    {"network is unreachable", kErrNotReached},
    {"i/o timeout", kErrNoAnswer},
    {"timeout awaiting response", kErrNoAnswer},
    {"handshake timeout", kErrNoAnswer},
    {"deadline exceeded", kErrNoAnswer},
};

std::string meaningOf(const std::string& said) {
  std::string small(said);
  std::transform(small.begin(), small.end(), small.begin(),
                 [](char c) { return static_cast<char>(tolower(static_cast<unsigned char>(c))); });
  for (const Meaning& meaning : kMeanings) {
    if (small.find(meaning.said) != std::string::npos) return std::string(meaning.text) + ": ";
  }
  return "";
}

// The last line, which tells the most, without its date.
std::string lastLine(std::string text) {
  while (!text.empty() && isspace(static_cast<unsigned char>(text.back())) != 0) text.pop_back();
  const size_t line = text.rfind('\n');
  if (line != std::string::npos) text.erase(0, line + 1);
  constexpr size_t kDate = 20;  // 2026/03/01 08:19:29 and a blank
  if (text.size() > kDate && text[4] == '/' && text[13] == ':') text.erase(0, kDate);
  return text;
}

[[noreturn]] void runProgram(char* const* words, pid_t parent, int in, int out, int errors) {
  // One that goes on would write into what the next run sends.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kNotFound - 1);
  if (dup2(in, STDIN_FILENO) >= 0 && dup2(out, STDOUT_FILENO) >= 0 &&
      dup2(errors, STDERR_FILENO) >= 0)
    execvp(words[0], words);
  _exit(errno == ENOENT ? kNotFound : kNotFound - 1);
}

// Ten times ten attempts of five minutes each are what it makes by itself. What is smaller than the
// last of these it sends as a whole, so that a remote can tell a hash of it.
std::vector<std::string> boundsFor(uint32_t patienceSeconds) {
  const std::string limit = std::to_string(patienceSeconds) + "s";
  const std::string toConnect = std::to_string(std::min(patienceSeconds, kConnectSeconds)) + "s";
  return {"--timeout",
          limit,
          "--contimeout",
          toConnect,
          "--retries",
          "1",
          "--low-level-retries",
          std::to_string(kAttempts),
          "--streaming-upload-cutoff",
          "8M"};
}

}  // namespace

bool RcloneProcess::start(const std::vector<std::string>& arguments, bool feed) {
  std::vector<std::string> all = {"rclone", "--ask-password=false", "--log-level", "ERROR"};
  const std::vector<std::string> bounds = boundsFor(patienceSeconds_);
  all.insert(all.end(), arguments.begin(), arguments.end());
  all.insert(all.end(), bounds.begin(), bounds.end());
  std::vector<char*> words;
  words.reserve(all.size() + 1);
  for (std::string& word : all) words.push_back(word.data());
  words.push_back(nullptr);
  int ends[2];
  errors_.reset(memfd_create("rclone", MFD_CLOEXEC));
  const UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!errors_.valid() || !null.valid() ||
      socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    complaint_ = std::string("cannot start rclone: ") + strerror(errno);
    return false;
  }
  data_.reset(ends[0]);
  const UniqueFd theirs(ends[1]);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0)
    runProgram(words.data(), parent, feed ? theirs.get() : null.get(),
               feed ? null.get() : theirs.get(), errors_.get());
  if (pid_ < 0) complaint_ = std::string("cannot start rclone: ") + strerror(errno);
  return pid_ > 0;
}

// All its attempts may pass before it has something to give, or takes more.
bool RcloneProcess::isReady(short events) {
  pollfd data = {data_.get(), events, 0};
  const uint64_t limitMs = uint64_t{patienceSeconds_} * (kAttempts + 1) * 1000;
  const auto ready = TEMP_FAILURE_RETRY(poll(&data, 1, static_cast<int>(limitMs)));
  if (ready != 0) return ready > 0;
  wasStuck_ = true;
  kill(pid_, SIGKILL);
  return false;
}

bool RcloneProcess::write(const uint8_t* data, size_t size) {
  while (size > 0) {
    if (!isReady(POLLOUT)) return false;
    const ssize_t sent = send(data_.get(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (sent < 0) return false;
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

bool RcloneProcess::read(const ByteSink& take) {
  std::array<uint8_t, 64 * 1024> piece;
  for (;;) {
    if (!isReady(POLLIN)) return false;
    const ssize_t got = TEMP_FAILURE_RETRY(recv(data_.get(), piece.data(), piece.size(), 0));
    if (got <= 0) return got == 0;
    if (!take(piece.data(), static_cast<size_t>(got))) return false;
  }
}

int RcloneProcess::wait() {
  data_.reset();
  int status = 0;
  if (pid_ <= 0) return kNotFound - 1;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = 0;
  const int exitCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  takeComplaint(exitCode);
  return exitCode;
}

void RcloneProcess::stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  wait();
}

void RcloneProcess::takeComplaint(int exitCode) {
  constexpr off_t kMost = 4096;
  const off_t size = std::max<off_t>(lseek(errors_.get(), 0, SEEK_END), 0);
  std::string said(static_cast<size_t>(std::min(size, kMost)), '\0');
  lseek(errors_.get(), size - static_cast<off_t>(said.size()), SEEK_SET);
  const ssize_t got = ::read(errors_.get(), said.data(), said.size());
  said.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
  if (exitCode == kNotFound) {
    complaint_ = kErrNotInstalled;
    return;
  }
  if (wasStuck_) {
    complaint_ = kErrNoAnswer;
    return;
  }
  const std::string line = lastLine(said);
  complaint_ =
      meaningOf(said) + (line.empty() ? "rclone ended with code " + std::to_string(exitCode)
                                      : "rclone says: " + line);
}

}  // namespace tarn
