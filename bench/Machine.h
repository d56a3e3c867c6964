#pragma once

#include <sched.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "recorder/card/CardLayout.h"

// What benchmarks need around them: cards on media of different speed, the database, the server.
namespace bench {

inline constexpr uint64_t kKiB = 1024;
inline constexpr uint64_t kMiB = 1024 * kKiB;
inline constexpr uint64_t kGiB = 1024 * kMiB;
inline constexpr char kCardDevice[] = "/dev/sdblk0p1";
inline constexpr char kDatabase[] = "/tmp/DB.dat";

enum class Medium {
  kRam,   // a file in /tmp, which is memory here
  kDisk,  // a file on the machine's disk
  kSlow,  // a block device of 10 MB/s
  kCard,  // one of 90 MB/s, as fast as a good card; of a group that asks for it
};

// Path of the medium's card; gives up when bench/run could not provide it.
std::string cardPath(Medium medium);
// A file beside the disk's card.
std::string diskFile(const char* name);
// Process that stands behind the slow device.
pid_t slowDeviceServer();

// A freshly formatted card, in place as /dev/sdblk0p1. An image file is removed with the object.
class Card {
 public:
  // The size of a device is its own.
  Card(Medium medium, uint64_t sizeBytes, const tarn::CardRequest& request = {});
  Card(const std::string& path, uint64_t sizeBytes, const tarn::CardRequest& request = {});
  ~Card();
  Card(const Card&) = delete;
  Card& operator=(const Card&) = delete;

  const std::string& path() const { return path_; }
  const tarn::CardLayout& layout() const { return layout_; }
  uint64_t chunkByte(int type, uint32_t chunk) const { return layout_.chunkByte(type, chunk); }
  // Gives every byte of a chunk a block, so that no later write has to find one.
  void fillChunk(int type, uint32_t chunk);
  void write(uint64_t offset, const void* data, size_t length);
  void sync();
  // Forgets what the machine's memory holds of the card.
  void dropCache();

 private:
  void format(uint64_t sizeBytes, const tarn::CardRequest& request);

  std::string path_;
  bool isFile_;
  tarn::CardLayout layout_;
  tarn::UniqueFd fd_;
};

// Small chunks, so that a card of 256 MiB has some of each.
tarn::CardRequest smallChunks(uint64_t streamChunk, uint64_t pictureChunk, uint64_t chunks);

// The management server, in a process of its own until the object goes.
class ServerProcess {
 public:
  ServerProcess();
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// While it lives, this thread and what it starts run on one processor, as on a recorder's board
// that has no other. A message to another process then waits for no processor to wake up.
class OneProcessor {
 public:
  explicit OneProcessor(bool wanted);
  ~OneProcessor();
  OneProcessor(const OneProcessor&) = delete;
  OneProcessor& operator=(const OneProcessor&) = delete;

 private:
  bool wanted_;
  cpu_set_t before_;
};

// Runs a program to its end and returns its exit status; its output goes to /dev/null unless
// `output` is given.
int runProgram(const std::vector<std::string>& command, std::string* output = nullptr);
// Path of a program of this build.
std::string programPath(const char* name);

void makeEmptyDatabase();

}  // namespace bench
