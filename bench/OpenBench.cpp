// Opening a chunk, against the same reads of the same bytes.
#include <fcntl.h>
#include <unistd.h>

#include "Machine.h"
#include "Pair.h"
#include "fat/CFATAccess.h"
#include "fat/FatFormat.h"

namespace {

using namespace bench;

constexpr uint32_t kInfoHead = 4096;  // one read of the info file

class OpenRig : public Rig {
 public:
  OpenRig(Medium medium, bool cold, int opens, const char* chunk, int flags)
      : card_(medium, 256 * kMiB),
        cold_(cold),
        opens_(opens),
        name_(std::string(kCardDevice) + ":" + chunk),
        flags_(flags) {}

  double ours() override {
    return repeated([this] { return fat_.open(name_.c_str(), flags_); },
                    [this](int handle) { fat_.close(handle); });
  }

  double bare() override {
    const auto root = static_cast<off_t>(card_.layout().dataByte());
    const auto info = static_cast<off_t>(card_.chunkByte(tarn::kFileInfo, 0));
    const auto readAll = [&] {
      uint8_t boot[tarn::kBootReadBytes];
      uint8_t entries[tarn::kDirEntriesSearched * tarn::kDirEntryBytes];
      uint8_t head[kInfoHead];
      const int fd = open(kCardDevice, flags_);
      if (read(fd, boot, sizeof boot) != sizeof boot ||
          pread(fd, entries, sizeof entries, root) <= 0 ||
          pread(fd, head, sizeof head, info) <= 0) {
        give_up("the bare open failed");
      }
      return fd;
    };
    return repeated(readAll, [](int fd) { close(fd); });
  }

 private:
  // Closing is not timed: a buffered handle flushes the card then.
  template <typename Open, typename Close>
  double repeated(Open open, Close close) {
    double seconds = 0;
    for (int i = 0; i < opens_; ++i) {
      if (cold_) card_.dropCache();
      const double begin = now();
      const int handle = open();
      seconds += now() - begin;
      if (handle == -1) give_up("cannot open " + name_);
      close(handle);
    }
    return seconds;
  }

  Card card_;
  bool cold_;
  int opens_;
  std::string name_;
  int flags_;
  CFATAccess fat_;  // keeps its worker from open to open
};

Pair openPair(const char* name, Medium medium, bool cold, int opens, const char* chunk, int flags,
              double limit = 1.1) {
  return {
      "open", name, Goal::kCost,
      limit,  11,   [=] { return std::make_unique<OpenRig>(medium, cold, opens, chunk, flags); }};
}

const bool kJournal =
    add(openPair("open/ram_journal", Medium::kRam, false, 2000, "CKDL0000", O_RDWR));
const bool kPicture =
    add(openPair("open/ram_picture", Medium::kRam, false, 2000, "CKPC0000", O_RDONLY));
const bool kStream =
    add(openPair("open/ram_stream", Medium::kRam, false, 2000, "CKST0000", O_RDWR, 1.3));
const bool kCold = add(openPair("open/disk_cold", Medium::kDisk, true, 40, "CKST0000", O_RDWR));

}  // namespace
