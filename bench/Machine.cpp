#include "Machine.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Pair.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/rows/DatabaseSetup.h"

namespace bench {
namespace {

constexpr char kSlowDevice[] = "/dev/slow";
constexpr char kFastDevice[] = "/dev/card";

const char* setting(const char* name) {
  const char* value = getenv(name);
  return value != nullptr ? value : "";
}

// The library opens the one fixed name; a link makes any file or device the card.
void putInPlace(const std::string& path) {
  unlink(kCardDevice);
  if (symlink(path.c_str(), kCardDevice) != 0) {
    give_up(std::string("no link at ") + kCardDevice + ": " + strerror(errno));
  }
}

}  // namespace

std::string diskFile(const char* name) {
  const std::string directory = setting("TARN_BENCH_DISK");
  if (directory.empty()) give_up("no place on a disk");
  return directory + "/" + name;
}

std::string cardPath(Medium medium) {
  if (medium == Medium::kRam) return "/tmp/card.img";
  if (medium == Medium::kDisk) return diskFile("card.img");
  const char* device = medium == Medium::kSlow ? kSlowDevice : kFastDevice;
  if (access(device, W_OK) != 0)
    give_up(std::string("no slow device: ") + setting("TARN_BENCH_NO_SLOW"));
  return device;
}

pid_t slowDeviceServer() {
  const pid_t pid = atoi(setting("TARN_BENCH_SLOW_PID"));
  if (pid <= 1) give_up("nobody stands behind the slow device");
  return pid;
}

Card::Card(Medium medium, uint64_t sizeBytes, const tarn::CardRequest& request)
    : path_(cardPath(medium)), isFile_(medium != Medium::kSlow && medium != Medium::kCard) {
  format(isFile_ ? sizeBytes : 0, request);
}

Card::Card(const std::string& path, uint64_t sizeBytes, const tarn::CardRequest& request)
    : path_(path), isFile_(true) {
  format(sizeBytes, request);
}

Card::~Card() {
  unlink(kCardDevice);
  if (isFile_) unlink(path_.c_str());
}

void Card::format(uint64_t sizeBytes, const tarn::CardRequest& request) {
  if (isFile_) unlink(path_.c_str());
  tarn::CardRequest sized = request;
  sized.sizeBytes = sizeBytes;
  tarn::FormatOptions options;
  options.force = true;
  tarn::CardFormatter formatter;
  std::string error;
  if (formatter.format(path_, sized, options, &error) != 0) give_up(error);
  layout_ = formatter.layout();
  fd_.reset(open(path_.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd_.valid()) give_up("cannot open " + path_);
  putInPlace(path_);
}

void Card::fillChunk(int type, uint32_t chunk) {
  const std::vector<uint8_t> block(kMiB, 0x55);
  const uint64_t start = chunkByte(type, chunk);
  const uint64_t size = layout_.family(type).chunkSize;
  for (uint64_t done = 0; done < size; done += block.size()) {
    write(start + done, block.data(), std::min<uint64_t>(block.size(), size - done));
  }
}

void Card::write(uint64_t offset, const void* data, size_t length) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  while (length > 0) {
    const ssize_t put = pwrite(fd_.get(), bytes, length, static_cast<off_t>(offset));
    if (put <= 0) give_up("cannot write to " + path_ + ": " + strerror(errno));
    bytes += put;
    offset += static_cast<uint64_t>(put);
    length -= static_cast<size_t>(put);
  }
}

void Card::sync() { fsync(fd_.get()); }

void Card::dropCache() {
  sync();
  posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_DONTNEED);
}

tarn::CardRequest smallChunks(uint64_t streamChunk, uint64_t pictureChunk, uint64_t chunks) {
  tarn::CardRequest request;
  request.families[tarn::kFileStream] = {streamChunk, chunks};
  request.families[tarn::kFilePicture] = {pictureChunk, 0};
  return request;
}

ServerProcess::ServerProcess() {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) give_up("no pipe");
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int fd = dup(ready[1]);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    const std::string number = std::to_string(fd);
    const std::string program = programPath("tarn-server");
    execl(program.c_str(), "tarn-server", "--ready-fd", number.c_str(), nullptr);
    _exit(127);
  }
  close(ready[1]);
  char line = 0;
  const bool answered = read(ready[0], &line, 1) == 1;
  close(ready[0]);
  if (!answered) give_up("the management server does not start");
}

ServerProcess::~ServerProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

OneProcessor::OneProcessor(bool wanted) : wanted_(wanted) {
  if (!wanted_) return;
  if (sched_getaffinity(0, sizeof before_, &before_) != 0) give_up("no processors");
  int first = 0;
  while (!CPU_ISSET(first, &before_)) ++first;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(first, &one);
  if (sched_setaffinity(0, sizeof one, &one) != 0) give_up("cannot stay on one processor");
}

OneProcessor::~OneProcessor() {
  if (wanted_) sched_setaffinity(0, sizeof before_, &before_);
}

int runProgram(const std::vector<std::string>& command, std::string* output) {
  std::vector<char*> argv;
  for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) give_up("no pipe");
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(output != nullptr ? out[1] : null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  char buffer[4096];
  ssize_t got;
  while ((got = read(out[0], buffer, sizeof buffer)) > 0) {
    if (output != nullptr) output->append(buffer, static_cast<size_t>(got));
  }
  close(out[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string programPath(const char* name) { return std::string(TARN_BIN_DIR "/") + name; }

void makeEmptyDatabase() {
  std::string error;
  if (!tarn::DatabaseSetup::createEmpty(kDatabase, &error)) give_up(error);
}

}  // namespace bench
