// Looking through a card full of pictures, against reading the same bytes.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "CardContents.h"
#include "Machine.h"
#include "Pair.h"
#include "base/UniqueFd.h"
#include "recorder/check/CardCheck.h"

namespace {

using namespace bench;

constexpr uint32_t kPicture = 32 * kKiB;  // 8 Mbit/s at 30 pictures a second
constexpr size_t kBlock = kMiB;

// Reads as the bare half does it: all bytes of the pictures and of their entries, in order.
class BareReading {
 public:
  BareReading(const Card& card, const std::vector<DB_STREAM>& rows, uint32_t threads)
      : card_(card), rows_(rows), threads_(threads) {}

  void run() {
    std::vector<std::thread> helpers;
    for (uint32_t i = 1; i < threads_; ++i) helpers.emplace_back([this, i] { part(i); });
    part(0);
    for (std::thread& helper : helpers) helper.join();
  }

 private:
  void part(uint32_t first) const {
    const tarn::UniqueFd fd(open(kCardDevice, O_RDONLY | O_CLOEXEC));
    std::vector<uint8_t> block(kBlock);
    for (size_t i = first; i < rows_.size(); i += threads_) {
      const DB_STREAM& row = rows_[i];
      read(fd.get(), &block, tarn::kFilePicture, row.chunkID, row.chunkSize);
      read(fd.get(), &block, tarn::kFileStream, row.chunkID, uint64_t{row.recSize} * kPicture);
    }
  }
  void read(int fd, std::vector<uint8_t>* block, int type, uint32_t chunk, uint64_t size) const {
    const uint64_t start = card_.chunkByte(type, chunk);
    for (uint64_t done = 0; done < size;) {
      const ssize_t got = pread(fd, block->data(), std::min<uint64_t>(kBlock, size - done),
                                static_cast<off_t>(start + done));
      if (got <= 0) give_up("the bare read failed");
      done += static_cast<uint64_t>(got);
    }
  }

  const Card& card_;
  const std::vector<DB_STREAM>& rows_;
  const uint32_t threads_;
};

class CheckRig : public Rig {
 public:
  CheckRig(Medium medium, uint64_t size, uint32_t chunks, uint32_t bareThreads)
      : cold_(medium != Medium::kRam),
        card_(medium, size, smallChunks(16 * kMiB, 64 * kKiB, 0)),
        rows_(fullStreams(card_, kPicture)),
        bare_(card_, rows_, bareThreads) {
    rows_.resize(std::min<size_t>(rows_.size(), chunks));
    bytes_ = writeFull(&card_, rows_, kPicture, true);
    writeStreamJournal(&card_, rows_);
  }

  double ours() override {
    forget();
    tarn::CardCheckOptions options;
    options.threads = 0;
    tarn::CardCheck check;
    std::string error;
    int result = 0;
    const double cpu = cpuSeconds();
    const double seconds =
        timed([&] { result = check.runOn(kCardDevice, rows_, {}, options, &error); });
    cpu_ = cpuSeconds() - cpu;
    if (result != 0) give_up(error);
    if (check.findings().total() != 0) give_up(check.findings().list()[0].text);
    if (check.pictures() * kPicture != bytes_) give_up("not all pictures were looked at");
    return seconds;
  }

  double bare() override {
    forget();
    return timed([this] { bare_.run(); });
  }

  std::map<std::string, double> figures() override {
    const double gib = static_cast<double>(bytes_) / kGiB;
    return {{"GiB", gib}, {"cpu_s_per_GiB", cpu_ / gib}};
  }

 private:
  void forget() {
    if (cold_) card_.dropCache();
  }

  bool cold_;
  Card card_;
  std::vector<DB_STREAM> rows_;
  BareReading bare_;
  uint64_t bytes_ = 0;
  double cpu_ = 0;
};

Pair checkPair(const char* name, const char* group, Medium medium, uint64_t size, uint32_t chunks,
               uint32_t bareThreads, Goal goal, int repeats) {
  return {group,   name,
          goal,    0.9,
          repeats, [=] { return std::make_unique<CheckRig>(medium, size, chunks, bareThreads); }};
}

const bool kRam =
    add(checkPair("check/ram", "check", Medium::kRam, 3 * kGiB, 128, 1, Goal::kSpeed, 9));
const bool kRamBoth =
    add(checkPair("check/ram_both", "check", Medium::kRam, 3 * kGiB, 128, 2, Goal::kNone, 9));
const bool kDisk =
    add(checkPair("check/disk", "check", Medium::kDisk, 2 * kGiB, 64, 1, Goal::kSpeed, 7));
const bool kSlow = add(checkPair("check/slow", "slow", Medium::kSlow, 0, 2, 1, Goal::kSpeed, 3));

}  // namespace
