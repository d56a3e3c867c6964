// Stream chunks written in pieces of 20 KiB, against writes of 1 MiB with a flush each.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Machine.h"
#include "Pair.h"
#include "chunk/CTARNStreamChunk.h"
#include "manager/CTARNStreamManager.h"

namespace {

using namespace bench;

constexpr size_t kPiece = 20 * kKiB;
constexpr size_t kBuffer = kMiB;
constexpr uint32_t kChunks = 4;

// In memory a turn is over so soon that what it has once shows: the first buffer that must be full
// before any is written, the last one behind which nothing is filled, a message to the server. So
// chunks are larger there, as on a card.
uint32_t chunkSize(Medium medium) { return medium == Medium::kRam ? 256 * kMiB : 64 * kMiB; }
uint64_t cardSize(Medium medium) { return uint64_t{8} * chunkSize(medium); }

uint8_t* onPage(std::vector<uint8_t>& memory) {
  const auto address = reinterpret_cast<uintptr_t>(memory.data());
  return memory.data() + (4096 - address % 4096) % 4096;
}

// A card with its server, and stream chunks open for writing.
class Streams {
 public:
  Streams(Medium medium, int chunks)
      : card_(medium, cardSize(medium), smallChunks(chunkSize(medium), kMiB, 0)), manager_(51) {
    if (card_.layout().family(tarn::kFileStream).chunks < kChunks)
      give_up("the card has too few chunks");
    if (manager_.openManageData() != 0) give_up("no management data");
    for (int i = 0; i < chunks; ++i) {
      if (medium != Medium::kSlow) card_.fillChunk(tarn::kFileStream, static_cast<uint32_t>(i));
      chunks_.push_back(std::make_unique<CTARNStreamChunk>(1));
      if (chunks_.back()->openChunkFile(&manager_, static_cast<unsigned short>(i)) != 0) {
        give_up("cannot open a stream chunk");
      }
    }
    card_.sync();
  }
  ~Streams() {
    chunks_.clear();
    manager_.closeManageData();
  }

  // Empties the chunks; what follows begins at their start.
  void restart() {
    for (auto& chunk : chunks_) {
      chunk->setUseAddr(0);
      chunk->setFreeAddr(0);
    }
  }
  void write(size_t chunk, const uint8_t* data, size_t size) {
    const auto length = static_cast<long>(size);
    if (chunks_[chunk]->write(const_cast<uint8_t*>(data), length) != length) {
      give_up("a stream chunk refuses data");
    }
  }
  void flush() {
    for (auto& chunk : chunks_) chunk->fSync();
  }
  size_t count() const { return chunks_.size(); }
  Card& card() { return card_; }

 private:
  Card card_;
  ServerProcess server_;
  CTARNStreamManager manager_;
  std::vector<std::unique_ptr<CTARNStreamChunk>> chunks_;
};

// Two buffers and a thread that writes the full one, in the plainest way: what a recorder must have
// whose data comes in pieces and may not wait for the device.
class TwoBuffers {
 public:
  TwoBuffers(int fd, uint64_t start)
      : fd_(fd), start_(start), at_(start), front_(kBuffer), back_(kBuffer), thread_([this] {
          run();
        }) {}
  ~TwoBuffers() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      end_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  void write(const uint8_t* data, size_t size) {
    while (size > 0) {
      const size_t part = std::min(size, kBuffer - fill_);
      memcpy(front_.data() + fill_, data, part);
      fill_ += part;
      data += part;
      size -= part;
      if (fill_ == kBuffer) handOver();
    }
  }
  // What comes next begins at the start again.
  void flush() {
    if (fill_ > 0) handOver();
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return pending_ == 0; });
    at_ = start_;
  }

 private:
  void handOver() {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [this] { return pending_ == 0; });
      std::swap(front_, back_);
      pending_ = std::exchange(fill_, 0);
    }
    changed_.notify_all();
  }
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return pending_ > 0 || end_; });
      if (pending_ == 0) return;
      lock.unlock();
      if (pwrite(fd_, back_.data(), pending_, static_cast<off_t>(at_)) < 0 || fsync(fd_) != 0) {
        std::abort();
      }
      lock.lock();
      at_ += std::exchange(pending_, 0);
      changed_.notify_all();
    }
  }

  int fd_;
  uint64_t start_, at_;
  std::vector<uint8_t> front_, back_;
  size_t fill_ = 0;
  size_t pending_ = 0;
  bool end_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

// `total` bytes over all chunks.
class StreamRig : public Rig {
 public:
  StreamRig(Medium medium, int chunks, uint64_t total)
      : streams_(medium, chunks),
        total_(total),
        data_(total + 4096, 0xA5),
        fd_(open(kCardDevice, O_RDWR | O_CLOEXEC)) {}

  double ours() override {
    streams_.restart();
    const double cpu = cpuSeconds();
    const double seconds = timed([this] {
      for (uint64_t done = 0; done < each(); done += kPiece) {
        for (size_t chunk = 0; chunk < streams_.count(); ++chunk) {
          streams_.write(chunk, source(chunk) + done, kPiece);
        }
      }
      streams_.flush();
    });
    cpu_ = cpuSeconds() - cpu;
    return seconds;
  }

  double bare() override {
    return timed([&] {
      for (uint64_t done = 0; done < each(); done += kBuffer) {
        const size_t size = std::min<uint64_t>(kBuffer, each() - done);
        for (uint32_t chunk = 0; chunk < streams_.count(); ++chunk) {
          const uint64_t at = streams_.card().chunkByte(tarn::kFileStream, chunk) + done;
          if (pwrite(fd_.get(), source(chunk) + done, size, static_cast<off_t>(at)) !=
                  static_cast<ssize_t>(size) ||
              fsync(fd_.get()) != 0) {
            give_up("the bare write failed");
          }
        }
      }
    });
  }

  Streams& streams() { return streams_; }
  uint64_t each() const { return total_ / streams_.count(); }  // bytes of a chunk
  // New data all the time, as from an encoder, and each chunk's own: as many bytes as it gets.
  const uint8_t* source(size_t chunk) { return onPage(data_) + chunk * each(); }
  int device() const { return fd_.get(); }

  std::map<std::string, double> figures() override {
    return {{"cpu_us_per_MiB", cpu_ * 1e6 / (static_cast<double>(total_) / kMiB)},
            {"MiB", static_cast<double>(total_) / kMiB}};
  }

 private:
  Streams streams_;
  uint64_t total_;
  std::vector<uint8_t> data_;
  tarn::UniqueFd fd_;
  double cpu_ = 0;
};

// Against two buffers and a thread for each chunk in place of the bare loop.
class BufferedRig : public StreamRig {
 public:
  BufferedRig(Medium medium, int chunks, uint64_t total) : StreamRig(medium, chunks, total) {
    for (uint32_t i = 0; i < static_cast<uint32_t>(chunks); ++i) {
      const uint64_t start = streams().card().chunkByte(tarn::kFileStream, i);
      buffers_.push_back(std::make_unique<TwoBuffers>(device(), start));
    }
  }

  double bare() override {
    return timed([this] {
      for (uint64_t done = 0; done < each(); done += kPiece) {
        for (size_t i = 0; i < buffers_.size(); ++i) buffers_[i]->write(source(i) + done, kPiece);
      }
      for (auto& buffer : buffers_) buffer->flush();
    });
  }

 private:
  std::vector<std::unique_ptr<TwoBuffers>> buffers_;
};

template <class Kind>
Pair streamPair(const char* name, const char* group, Medium medium, int chunks, uint64_t total,
                double limit, int repeats) {
  return {group, name, Goal::kSpeed, limit, repeats, [=] {
            // Whole pieces on every chunk.
            const uint64_t round = kPiece * static_cast<uint64_t>(chunks);
            return std::make_unique<Kind>(medium, chunks, total / round * round);
          }};
}

const bool kRam1 =
    add(streamPair<StreamRig>("stream/ram_1", "stream", Medium::kRam, 1, 240 * kMiB, 0.95, 15));
const bool kRam4 =
    add(streamPair<StreamRig>("stream/ram_4", "stream", Medium::kRam, 4, 480 * kMiB, 0.95, 15));
const bool kDisk1 =
    add(streamPair<StreamRig>("stream/disk_1", "stream", Medium::kDisk, 1, 60 * kMiB, 0.90, 9));
const bool kDisk4 =
    add(streamPair<StreamRig>("stream/disk_4", "stream", Medium::kDisk, 4, 160 * kMiB, 0.90, 9));
const bool kSlow1 =
    add(streamPair<StreamRig>("stream/slow_1", "slow", Medium::kSlow, 1, 16 * kMiB, 0.99, 5));
const bool kSlow4 =
    add(streamPair<StreamRig>("stream/slow_4", "slow", Medium::kSlow, 4, 16 * kMiB, 0.99, 5));

const bool kBuffered1 = add(streamPair<BufferedRig>("stream/ram_1_buffered", "stream", Medium::kRam,
                                                    1, 240 * kMiB, 0.95, 15));
const bool kBuffered4 = add(streamPair<BufferedRig>("stream/ram_4_buffered", "stream", Medium::kRam,
                                                    4, 480 * kMiB, 0.95, 15));
const bool kBufferedDisk = add(streamPair<BufferedRig>("stream/disk_1_buffered", "stream",
                                                       Medium::kDisk, 1, 60 * kMiB, 0.95, 9));

double median(std::vector<double>& values) {
  std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

// The median writing call, against copying the same bytes through buffers of the same size.
class CallRig : public Rig {
 public:
  CallRig() : streams_(Medium::kRam, 1), data_(kPiece + 4096, 0x5A), ring_(2 * kBuffer) {}

  double ours() override {
    streams_.restart();
    std::vector<double> calls(kCalls);
    for (double& call : calls) {
      const double begin = now();
      streams_.write(0, data_.data(), kPiece);
      call = now() - begin;
    }
    streams_.flush();
    return median(calls);
  }

  double bare() override {
    std::vector<double> calls(kCalls);
    size_t at = 0;
    for (double& call : calls) {
      const double begin = now();
      memcpy(ring_.data() + at, data_.data(), kPiece);
      asm volatile("" : : "r"(ring_.data()) : "memory");
      call = now() - begin;
      at = at + 2 * kPiece > ring_.size() ? 0 : at + kPiece;
    }
    return median(calls);
  }

 private:
  static constexpr size_t kCalls = 3000;

  Streams streams_;
  std::vector<uint8_t> data_;
  std::vector<uint8_t> ring_;
};

const bool kCall =
    add({"stream", "stream/call", Goal::kCost, 2, 15, [] { return std::make_unique<CallRig>(); }});

// A recording at a constant rate into the slow device, which stands still once for a while: the
// longest call, against what two buffers force. The worst moment for the device to stop is when a
// full buffer has just been handed over: then the other one takes data until it is full as well,
// and the call that finds it full waits for the rest of the pause and for the buffer in front.
class StallRig : public Rig {
 public:
  explicit StallRig(double bytesPerSecond)
      : rate_(bytesPerSecond), streams_(Medium::kSlow, 1), data_(kPiece, 0x33) {}

  double ours() override {
    streams_.restart();
    const size_t pieces = static_cast<size_t>(kSeconds * rate_ / kPiece);
    const double begin = now();
    std::thread stall([&] { stop(begin + 0.8 + 0.13 * turn_++); });
    double longest = 0;
    for (size_t i = 0; i < pieces; ++i) {
      const double due = begin + static_cast<double>(i) * kPiece / rate_;
      if (const double early = due - now(); early > 0) usleep(static_cast<useconds_t>(early * 1e6));
      const double call = now();
      streams_.write(0, data_.data(), kPiece);
      longest = std::max(longest, now() - call);
    }
    stall.join();
    streams_.flush();
    longest_ = std::max(longest_, longest);
    return longest;
  }

  double bare() override {
    const double fill = kBuffer / rate_;
    const double drain = kBuffer / kDeviceRate;
    return std::max(kCallSeconds, stall_ + drain - fill);
  }

  std::map<std::string, double> figures() override {
    return {{"longest_ms", longest_ * 1e3}, {"stall_ms", stall_ * 1e3}};
  }

 private:
  static constexpr double kSeconds = 2.5;
  static constexpr double kDeviceRate = 10e6;
  static constexpr double kCallSeconds = 0.01;  // what a call may take where nothing forces it

  void stop(double when) {
    const pid_t device = slowDeviceServer();
    while (now() < when) usleep(1000);
    const double begin = now();
    kill(device, SIGSTOP);
    usleep(250000);
    kill(device, SIGCONT);
    stall_ = now() - begin;
  }

  double rate_;
  Streams streams_;
  std::vector<uint8_t> data_;
  int turn_ = 0;
  double stall_ = 0;
  double longest_ = 0;
};

const bool kStall2 = add({"slow", "stream/stall_2MBps", Goal::kCost, 1, 5,
                          [] { return std::make_unique<StallRig>(2e6); }});
const bool kStall8 = add({"slow", "stream/stall_8MBps", Goal::kCost, 1, 5,
                          [] { return std::make_unique<StallRig>(8e6); }});

}  // namespace
