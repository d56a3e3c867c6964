#include "capi/ReaderProcess.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "capi/Facts.h"

namespace tarn {
namespace {

constexpr char kCommand[] = "answer";
constexpr char kGone[] = "the process that reads the card has ended";
constexpr char kClosed[] = "the card is closed";
constexpr char kLinePrefix[] = "tarn: ";
constexpr char kWarningPrefix[] = "warning: ";
constexpr useconds_t kLookUs = 2000;
constexpr int kLooksToEnd = 10000;   // 20 s: the last flush of a slow card
constexpr int kLooksToBreak = 2500;  // 5 s

// The tool lies where it was installed together with this library, or where it was built.
std::string toolPath() {
  Dl_info own = {};
  if (dladdr(reinterpret_cast<const void*>(&tarn_error), &own) != 0 && own.dli_fname != nullptr) {
    const std::string path = own.dli_fname;
    const std::string folder = path.substr(0, path.find_last_of('/') + 1);
    // lib, or lib/ARCHITECTURE as Debian has it.
    for (const char* place : {"../bin/tarn", "../../bin/tarn"}) {
      if (access((folder + place).c_str(), X_OK) == 0) return folder + place;
    }
  }
  return TARN_TOOL_PATH;
}

// Of any number but those of the standard streams, which the child is given.
int aboveStreams(int fd) { return fcntl(fd, F_DUPFD_CLOEXEC, 3); }

struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;

  SpawnSetup(int socket, int said) {
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, socket, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, socket, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, said, STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawnattr_init(&attributes);
    // A session of its own: a Ctrl-C is the caller's, and there is no terminal to ask anything on.
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    sigset_t signals;
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
};

std::string withoutPrefix(std::string line) {
  for (const char* prefix : {kLinePrefix, kWarningPrefix}) {
    if (line.compare(0, strlen(prefix), prefix) == 0) line.erase(0, strlen(prefix));
  }
  return line;
}

}  // namespace

std::shared_ptr<ReaderProcess> ReaderProcess::start(std::vector<std::string> before,
                                                    std::vector<std::string> behind,
                                                    std::string* error) {
  std::shared_ptr<ReaderProcess> process(new ReaderProcess);
  std::vector<std::string> words = {toolPath()};
  words.insert(words.end(), before.begin(), before.end());
  words.emplace_back(kCommand);
  words.insert(words.end(), behind.begin(), behind.end());
  if (!process->spawn(words, error) || !process->greet(error)) return nullptr;
  return process;
}

bool ReaderProcess::spawn(const std::vector<std::string>& words, std::string* error) {
  int ends[2] = {-1, -1};
  const bool paired = socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0;
  const UniqueFd first(ends[0]);
  const UniqueFd second(ends[1]);
  const UniqueFd file(memfd_create("tarn-said", MFD_CLOEXEC));
  socket_.reset(aboveStreams(first.get()));
  said_.reset(aboveStreams(file.get()));
  const UniqueFd theirs(aboveStreams(second.get()));
  if (!paired || !socket_.valid() || !said_.valid() || !theirs.valid()) {
    *error = std::string("cannot talk to another process: ") + strerror(errno);
    return false;
  }
  const SpawnSetup setup(theirs.get(), said_.get());
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const int failure = posix_spawn(&pid_, words[0].c_str(), &setup.actions, &setup.attributes,
                                  arguments.data(), environ);
  if (failure == 0) return true;
  pid_ = 0;
  *error = "cannot start " + words[0] + ": " + strerror(failure) +
           (failure == ENOENT ? "; this library needs the tool of its own version" : "");
  return false;
}

bool ReaderProcess::greet(std::string* error) {
  Message message;
  HelloFacts hello;
  error->clear();
  if (!message.receive(socket_.get())) {
    end();  // then all that it has to say is said
    *error = said();
    if (error->empty()) *error = kGone;
  } else if (message.kind != MessageKind::kHello || !message.take(&hello)) {
    *error = "the tool does not understand this library: its version must be " TARN_VERSION;
  } else if (hello.version != TARN_VERSION) {
    *error = "the tool has version " + hello.version + ", and this library needs " TARN_VERSION;
  }
  return error->empty();
}

bool ReaderProcess::ask(const Message& question, const EachAnswer& each, Message* done,
                        std::string* error) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!socket_.valid()) {
    *error = kClosed;
    return false;
  }
  bool good = question.send(socket_.get());
  bool understood = true;
  while (good && (good = done->receive(socket_.get()))) {
    if (done->kind == MessageKind::kDone || done->kind == MessageKind::kFailed) break;
    understood = understood && each(*done);
  }
  FailureFacts failure;
  if (!good) {
    failure.text = kGone;
    const std::string text = said();
    if (!text.empty()) failure.text += ": " + text.substr(text.find_last_of('\n') + 1);
  } else if (done->kind == MessageKind::kFailed && !done->take(&failure)) {
    understood = false;
  }
  if (failure.text.empty() && !understood) failure.text = "an answer makes no sense";
  *error = failure.text;
  return error->empty();
}

// Read by another description than the one that the process writes by.
std::string ReaderProcess::said() const {
  std::ifstream file("/proc/self/fd/" + std::to_string(said_.get()));
  std::string text;
  for (std::string line; std::getline(file, line);)
    text += (text.empty() ? "" : "\n") + withoutPrefix(line);
  return text;
}

// Also of a process that somebody else has waited for, as a program may that ignores SIGCHLD.
bool ReaderProcess::hasEnded() {
  const pid_t ended = waitpid(pid_, nullptr, WNOHANG);
  return ended == pid_ || (ended < 0 && errno == ECHILD);
}

// The end of the socket ends the process in order. shutdown() reaches it even where a child of the
// caller has the socket, too.
void ReaderProcess::end() {
  if (socket_.valid()) shutdown(socket_.get(), SHUT_RDWR);
  socket_.reset();
  for (int looked = 0; pid_ > 0 && !hasEnded(); ++looked) {
    if (looked == kLooksToEnd) kill(pid_, SIGTERM);
    if (looked == kLooksToEnd + kLooksToBreak) kill(pid_, SIGKILL);
    usleep(kLookUs);
  }
  pid_ = 0;
}

void ReaderProcess::close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  end();
}

ReaderProcess::~ReaderProcess() { close(); }

}  // namespace tarn
