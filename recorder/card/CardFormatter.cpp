#include "recorder/card/CardFormatter.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <vector>

#include "base/FileSync.h"
#include "fat/FatFormat.h"
#include "manager/ManageFormat.h"
#include "recorder/card/CardLock.h"
#include "recorder/card/CardReadme.h"
#include "recorder/card/CardText.h"
#include "recorder/card/DeviceIo.h"
#include "recorder/card/FamilyRules.h"
#include "recorder/card/FormerContent.h"
#include "recorder/card/NoThrow.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {
namespace {

constexpr size_t kBlockBytes = 1024 * 1024;
constexpr uint32_t kInvariantVolumeId = 0x5441524E;

size_t blockPart(uint64_t length) {
  return static_cast<size_t>(std::min<uint64_t>(length, kBlockBytes));
}

bool fail(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

uint32_t randomVolumeId() {
  uint32_t id = 0;
  if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) {
    id = static_cast<uint32_t>(time(nullptr));
  }
  return id;
}

// Writes one card, in the order that keeps it refused until it is whole.
class Writer {
 public:
  Writer(int fd, const CardLayout& layout, const FormatOptions& options, uint32_t volumeId,
         uint64_t oldBytes, bool isBlockDevice)
      : fd_(fd),
        layout_(layout),
        options_(options),
        volumeId_(volumeId),
        oldBytes_(oldBytes),
        isBlockDevice_(isBlockDevice),
        readme_(placeOfReadme(layout)),
        block_(kBlockBytes) {}

  // On failure error() says why.
  bool run() {
    total_ = countBytes();
    return invalidate() && resize() && clearOldContent() && writeFats() && writeRoot() &&
           writeReadme() && writeManagement() && writeRings() && writeImage() && clearPictures() &&
           writeReserved() && writeInfoTail() && flush() && writeBoot() && flush() &&
           writeInfoHead() && flush();
  }
  const std::string& error() const { return error_; }

 private:
  bool stopWith(const std::string& text) {
    error_ = text;
    return false;
  }

  bool advance(uint64_t bytes) {
    done_ = std::min(done_ + bytes, total_);
    if (!options_.progress || options_.progress(done_, total_)) return true;
    return stopWith("stopped before the card was finished; format it again");
  }

  bool write(uint64_t offset, const void* data, size_t length) {
    uint64_t failedByte = 0;
    if (!writeFully(fd_, offset, data, length, &failedByte)) {
      return stopWith(
          errnoText("writing to the card failed at byte " + std::to_string(failedByte), errno));
    }
    return advance(length);
  }

  bool fill(uint64_t offset, uint64_t length, uint8_t byte) {
    memset(block_.data(), byte, blockPart(length));
    while (length > 0) {
      const size_t piece = blockPart(length);
      if (!write(offset, block_.data(), piece)) return false;
      offset += piece;
      length -= piece;
    }
    return true;
  }

  // Makes a range read as zeros, at no cost where it does so already or the system can do it.
  bool zero(uint64_t offset, uint64_t length) {
    const uint64_t old = isBlockDevice_ ? offset + length : oldBytes_;
    const uint64_t stale = offset < old ? std::min(length, old - offset) : 0;
    if (stale == 0 || zeroBySystem(offset, stale)) return advance(length);
    return fill(offset, stale, 0) && advance(length - stale);
  }

  bool zeroBySystem(uint64_t offset, uint64_t length) {
    const auto at = static_cast<off_t>(offset);
    const auto size = static_cast<off_t>(length);
    return fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at, size) == 0 ||
           fallocate(fd_, FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE, at, size) == 0;
  }

  bool flush() {
    if (syncFile(fd_) == 0) return true;
    return stopWith(errnoText("flushing the card failed", errno));
  }

  uint64_t countBytes() const {
    uint64_t bytes = (uint64_t{layout_.reservedSectors()} + 2) * kSectorBytes +
                     2 * uint64_t{layout_.fatSectors()} * kSectorBytes + layout_.rootBytes() +
                     readmeBytes();
    for (int type : {kFileInfo, kFileJournalManage, kFileJournal, kFileSyslogManage, kFileSyslog,
                     kFileStreamManage, kFilePicture}) {
      bytes += layout_.family(type).bytes();
    }
    bytes += uint64_t{layout_.family(kFileDbImage).chunks} * kSectorBytes;
    return bytes + (options_.invariant ? layout_.sizeBytes() - kSectorBytes : 0);
  }

  // First of all, and on the medium before anything else changes: no open accepts the card now.
  bool invalidate() {
    uint8_t sector[kSectorBytes];
    encodeUnfinishedSector(sector);
    return write(0, sector, sizeof sector) && flush();
  }

  bool resize() {
    if (isBlockDevice_ || oldBytes_ == layout_.sizeBytes()) return true;
    if (ftruncate(fd_, static_cast<off_t>(layout_.sizeBytes())) == 0) return true;
    return stopWith(errnoText("the image file cannot be made that large", errno));
  }

  bool clearOldContent() {
    if (!options_.invariant) return true;
    return zero(kSectorBytes, layout_.sizeBytes() - kSectorBytes);
  }

  bool writeFats() {
    constexpr uint32_t kPerBlock = kBlockBytes / 4;
    const uint64_t fatBytes = uint64_t{layout_.fatSectors()} * kSectorBytes;
    const uint64_t start = uint64_t{layout_.reservedSectors()} * kSectorBytes;
    const uint32_t used =
        layout_.clusterOfByte(std::max(layout_.endByte(), readme_.byte + readmeBytes()));
    for (uint32_t first = 0; first < used; first += kPerBlock) {
      const auto count = static_cast<uint32_t>(std::min<uint64_t>(kPerBlock, fatBytes / 4 - first));
      encodeFat(layout_, first, count, block_.data());
      linkReadme(layout_, first, count, block_.data());
      for (uint64_t fat : {start, start + fatBytes}) {
        if (!write(fat + uint64_t{first} * 4, block_.data(), size_t{count} * 4)) return false;
      }
    }
    // Behind the last chunk everything is free.
    const uint64_t blocks = (uint64_t{used} + kPerBlock - 1) / kPerBlock;
    const uint64_t written = std::min(fatBytes, blocks * kBlockBytes);
    return written == fatBytes || (zero(start + written, fatBytes - written) &&
                                   zero(start + fatBytes + written, fatBytes - written));
  }

  bool writeRoot() {
    std::vector<uint8_t> root(static_cast<size_t>(layout_.rootBytes()));
    const time_t when = options_.invariant ? 0 : time(nullptr);
    encodeRootDirectory(layout_, when, root.data());
    enterReadme(layout_, when, root.data());
    return write(layout_.dataByte(), root.data(), root.size());
  }

  size_t readmeBytes() const { return size_t{readme_.clusters} * layout_.clusterBytes(); }

  bool writeReadme() {
    std::string text = readmeText();
    text.resize(readmeBytes());
    return readme_.byte == 0 || write(readme_.byte, text.data(), text.size());
  }

  // Both copies of a kind's records, all of the same type byte.
  bool writeManagement(int manageType, int8_t type) {
    const uint32_t chunks = layout_.family(managedBy(manageType)).chunks;
    std::vector<uint8_t> file(layout_.family(manageType).chunkSize);
    for (uint32_t chunk = 0; chunk < chunks; ++chunk) {
      CHUNK_MANAGE record = {};
      record.chType = type;
      encodeManageRecord(record, file.data() + size_t{chunk} * kManageRecordSize);
    }
    sealManageData(file.data(), chunks);
    return write(layout_.chunkByte(manageType, kManageMainCopy), file.data(), file.size()) &&
           write(layout_.chunkByte(manageType, kManageBackupCopy), file.data(), file.size());
  }

  // Journal chunks have no type. Syslog chunk 0 says which one is being written: chunk 0.
  bool writeManagement() {
    return writeManagement(kFileJournalManage, 0) && writeManagement(kFileSyslogManage, 0) &&
           writeManagement(kFileStreamManage, kChannelUnused);
  }

  // Erased bytes end a journal; in the system log they keep lines of an earlier life from being
  // taken for new ones.
  bool writeRings() {
    for (int type : {kFileJournal, kFileSyslog}) {
      if (!fill(layout_.family(type).startByte(), layout_.family(type).bytes(), 0xFF)) return false;
    }
    return true;
  }

  bool writeImage() {
    static constexpr uint8_t kNoImage[kSectorBytes] = {};
    const CardFamily& family = layout_.family(kFileDbImage);
    for (uint32_t chunk = 0; chunk < family.chunks; ++chunk) {
      if (!write(layout_.chunkByte(kFileDbImage, chunk), kNoImage, sizeof kNoImage)) return false;
    }
    return true;
  }

  // An entry of an earlier life could continue the numbers of a recording that is being repaired.
  bool clearPictures() {
    if (options_.invariant) return advance(layout_.family(kFilePicture).bytes());
    const CardFamily& family = layout_.family(kFilePicture);
    return zero(family.startByte(), family.bytes());
  }

  // Everything in front of the FATs but the boot sector itself, with the info file's second copy.
  bool writeReserved() {
    std::vector<uint8_t> sectors(size_t{layout_.reservedSectors()} * kSectorBytes);
    for (uint32_t start : {0u, kBackupSector}) {
      encodeBootSector(layout_, volumeId_, sectors.data() + start * kSectorBytes);
      encodeFsInfo(layout_, readme_.clusters,
                   sectors.data() + (start + kFsInfoSector) * kSectorBytes);
    }
    encodeInfoFile(layout_, sectors.data() + kInfoCopySector * kSectorBytes);
    return write(kSectorBytes, sectors.data() + kSectorBytes, sectors.size() - kSectorBytes);
  }

  // The info file without its first sector, so that the last write of all is one sector, which is
  // written whole or not at all. Until then its length is 0, which every open refuses.
  bool writeInfoTail() {
    std::vector<uint8_t> file(layout_.family(kFileInfo).chunkSize);
    encodeInfoFile(layout_, file.data());
    memset(file.data(), 0, kSectorBytes);
    return write(layout_.chunkByte(kFileInfo, 0), file.data(), file.size());
  }

  bool writeBoot() {
    uint8_t sector[kSectorBytes];
    encodeBootSector(layout_, volumeId_, sector);
    return write(0, sector, sizeof sector);
  }

  bool writeInfoHead() {
    uint8_t file[kInfoSealedBytes];
    encodeInfoFile(layout_, file);
    return write(layout_.chunkByte(kFileInfo, 0), file, kSectorBytes);
  }

  const int fd_;
  const CardLayout& layout_;
  const FormatOptions& options_;
  const uint32_t volumeId_;
  const uint64_t oldBytes_;  // of the file: what lies behind reads as zeros by itself
  const bool isBlockDevice_;
  const ReadmePlace readme_;
  std::vector<uint8_t> block_;
  uint64_t done_ = 0;
  uint64_t total_ = 0;
  std::string error_;
};

// Whether nothing is lost that anybody may still want.
bool mayBeOverwritten(const std::string& path, const CardLock& card, uint64_t sizeBytes,
                      const FormatOptions& options, std::string* error) {
  if (options.force) return true;
  const FormerContent before = whatIsOn(card.fd());
  if (before == FormerContent::kUnreadable)
    return fail(error, errnoText("cannot read " + path, errno));
  if (before == FormerContent::kForeign) {
    return fail(error, path +
                           " holds something that is not a card of the recorder; force the format "
                           "to overwrite it");
  }
  const uint64_t present = deviceSize(card.fd());
  if (!card.isBlockDevice() && sizeBytes < present) {
    return fail(error, path + " has " + sizeText(present) + ", more than the " +
                           sizeText(sizeBytes) + " asked for; force the format to cut it short");
  }
  if (before != FormerContent::kCard) return true;
  const CardHoldings holdings =
      options.look ? options.look(path)
                   : CardHoldings{true, "nobody looked whether " + path + " holds recordings"};
  if (!holdings.any) return true;
  if (!options.confirm) return fail(error, holdings.text + "; force the format to overwrite it");
  return options.confirm(holdings.text) || fail(error, path + " was left as it is");
}

// The size to lay out, from what was asked for and what is there.
bool chooseSize(const std::string& path, const CardLock& card, uint64_t* sizeBytes,
                std::string* error) {
  const uint64_t present = deviceSize(card.fd());
  if (*sizeBytes == 0) *sizeBytes = present;
  if (*sizeBytes == 0) return fail(error, path + " has no size yet: give one");
  if (card.isBlockDevice() && *sizeBytes > present) {
    return fail(error, path + " has " + sizeText(present) + ", less than the size asked for");
  }
  return true;
}

// An image file that was made for a format, and goes with it when that fails.
class NewFile {
 public:
  explicit NewFile(std::string path) : path_(std::move(path)) {}
  ~NewFile() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  void keep() { path_.clear(); }

 private:
  std::string path_;
};

}  // namespace

int CardFormatter::format(const std::string& path, const CardRequest& request,
                          const FormatOptions& options, std::string* error) {
  return orNoMemory(
      "CardFormatter",
      [&]() -> int {
        CardRequest sized = request;
        // A request that cannot work must not leave a new file behind.
        const bool exists = access(path.c_str(), F_OK) == 0;
        if (!exists && sized.sizeBytes == 0) {
          *error = path + " does not exist: give a size to create it as an image file";
          return -1;
        }
        if (sized.sizeBytes != 0 && layout_.plan(sized, error) != 0) return -1;

        CardLock card;
        if (card.acquire(path, true, error) != 0) return -1;
        NewFile made(exists ? "" : path);
        if (!chooseSize(path, card, &sized.sizeBytes, error)) return -1;
        if (layout_.plan(sized, error) != 0) return -1;
        if (exists && !mayBeOverwritten(path, card, sized.sizeBytes, options, error)) return -1;
        volumeId_ = options.invariant ? kInvariantVolumeId : randomVolumeId();
        Writer writer(card.fd(), layout_, options, volumeId_, deviceSize(card.fd()),
                      card.isBlockDevice());
        const bool written = writer.run();
        if (written) made.keep();
        if (!written) *error = writer.error();
        return written ? 0 : -1;
      },
      [&]() -> int { return memoryOut(error); });
}

}  // namespace tarn
