// Formatting a sparse image of 64 GiB, against writing the bytes that must differ from nothing.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "Machine.h"
#include "Pair.h"
#include "recorder/card/CardFormatter.h"

namespace {

using namespace bench;

constexpr uint64_t kSize = 64 * kGiB;
constexpr size_t kBlock = kMiB;

struct Range {
  uint64_t offset;
  uint64_t length;
};

// Whatever of a formatted image is data and not a hole.
std::vector<Range> dataOf(const std::string& path) {
  const tarn::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<Range> ranges;
  for (off_t at = 0; (at = lseek(fd.get(), at, SEEK_DATA)) >= 0;) {
    const off_t end = lseek(fd.get(), at, SEEK_HOLE);
    ranges.push_back({static_cast<uint64_t>(at), static_cast<uint64_t>(end - at)});
    at = end;
  }
  return ranges;
}

class FormatRig : public Rig {
 public:
  explicit FormatRig(std::string path) : path_(std::move(path)), block_(kBlock, 0x5A) {
    ours();
    ranges_ = dataOf(path_);
    for (const Range& range : ranges_) bytes_ += range.length;
  }
  ~FormatRig() override { unlink(path_.c_str()); }

  double ours() override {
    unlink(path_.c_str());
    return timed([this] {
      tarn::CardFormatter formatter;
      tarn::CardRequest request;
      request.sizeBytes = kSize;
      std::string error;
      if (formatter.format(path_, request, {}, &error) != 0) give_up(error);
    });
  }

  // The three flushes keep an unfinished card from being taken for a good one.
  double bare() override {
    unlink(path_.c_str());
    return timed([this] {
      const tarn::UniqueFd fd(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
      if (ftruncate(fd.get(), kSize) != 0) give_up("no image");
      for (const Range& range : ranges_) writeRange(fd.get(), range);
      for (int i = 0; i < 3; ++i) {
        if (pwrite(fd.get(), block_.data(), 512, 0) != 512 || fsync(fd.get()) != 0) {
          give_up("the bare write failed");
        }
      }
    });
  }

  std::map<std::string, double> figures() override {
    return {{"MiB", static_cast<double>(bytes_) / kMiB}};
  }

 private:
  void writeRange(int fd, Range range) {
    while (range.length > 0) {
      const size_t piece = std::min<uint64_t>(range.length, kBlock);
      if (pwrite(fd, block_.data(), piece, static_cast<off_t>(range.offset)) !=
          static_cast<ssize_t>(piece)) {
        give_up(std::string("the bare write failed: ") + strerror(errno));
      }
      range.offset += piece;
      range.length -= piece;
    }
  }

  std::string path_;
  std::vector<uint8_t> block_;
  std::vector<Range> ranges_;
  uint64_t bytes_ = 0;
};

const bool kRam = add({"format", "format/ram", Goal::kCost, 1.1, 9,
                       [] { return std::make_unique<FormatRig>("/tmp/format.img"); }});
const bool kDisk = add({"format", "format/disk", Goal::kCost, 1.1, 7,
                        [] { return std::make_unique<FormatRig>(diskFile("format.img")); }});

}  // namespace
