// The FAT structures, as a PC sees them, against the info file, as the recorder does.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/Endian.h"
#include "fat/FatFormat.h"
#include "recorder/card/CardMap.h"
#include "recorder/card/VolumeFormat.h"
#include "recorder/check/CardContents.h"

namespace tarn {
namespace {

constexpr uint32_t kFirstCluster = 2;
constexpr uint32_t kFreeUnknown = 0xFFFFFFFF;
constexpr uint16_t kSignature = 0xAA55;
// A long name takes a second entry; a PC may have added a few files of its own.
constexpr uint64_t kSpareEntries = 1024;

class VolumeCheck {
 public:
  explicit VolumeCheck(CardContents* contents) : contents_(contents), card_(contents->card) {}

  void run() {
    if (!card_.read(0, sector_, sizeof sector_)) return unreadable("the boot sector");
    boot_ = decodeFatBoot(sector_);
    checkBoot();
    checkFats();
    checkRoot();
    checkFsInfo();
    checkFiles();
    tellState();
  }

 private:
  void add(FindingKind kind, const std::string& text) { contents_->findings.add(kind, text); }
  void fat(const std::string& text) { add(FindingKind::kFat, text); }
  void note(const std::string& text) { contents_->notes.push_back(text); }
  void unreadable(const std::string& what) {
    add(FindingKind::kUnreadable, what + " cannot be read");
  }

  void checkBoot() {
    mounted_ = (sector_[kBootStateOff] & kBootStateMarks) != 0;
    if (getLe16(sector_ + kBootSignatureOff) != kSignature)
      fat("the boot sector lacks its signature");
    if (getLe16(sector_ + kBootSectorBytesOff) != kSectorBytes)
      fat("the boot sector gives a sector size other than 512");
    const uint16_t backup = getLe16(sector_ + kBootBackupOff);
    uint8_t copy[kSectorBytes];
    if (backup == 0 || backup >= boot_.reservedSectors) {
      fat("there is no backup of the boot sector");
    } else if (!card_.read(uint64_t{backup} * kSectorBytes, copy, sizeof copy)) {
      unreadable("the backup of the boot sector");
    } else if (!isSameBoot(copy, sector_)) {
      fat("the backup of the boot sector differs from it");
    }
  }

  uint64_t fatByte(uint32_t number) const {
    return (boot_.reservedSectors + uint64_t{number} * boot_.fat32Size) * kSectorBytes;
  }
  uint64_t fatBytes() const { return uint64_t{boot_.fat32Size} * kSectorBytes; }

  // One pass over both: what differs, and how many clusters are free.
  void checkFats() {
    if (boot_.fatCount != 2) fat("there are " + std::to_string(boot_.fatCount) + " FATs, not 2");
    BlockReader first(card_, fatByte(0), fatBytes());
    BlockReader second(card_, fatByte(1), fatBytes());
    uint32_t different = 0;
    uint32_t missing = 0;
    for (uint64_t at = 0; at < fatBytes(); at += kSectorBytes) {
      const uint8_t* one = first.at(at, kSectorBytes);
      const uint8_t* two = boot_.fatCount > 1 ? second.at(at, kSectorBytes) : one;
      if (one == nullptr || two == nullptr) ++missing;
      const auto cluster = static_cast<uint32_t>(at / 4);
      if (one != nullptr && two != nullptr && differ(one, two, cluster)) ++different;
      if (one != nullptr) countFree(one, cluster);
      if (one != nullptr && at == 0 && (~getLe32(one + 4) & kFatStateMarks) != 0) mounted_ = true;
    }
    if (missing != 0) unreadable(std::to_string(missing) + " sectors of the FATs");
    if (different != 0) fat("the two FATs differ in " + std::to_string(different) + " sectors");
  }

  // Whether two sectors of the FATs, which begin with `first`, differ in what is the recorder's. A
  // PC that was torn off may have written one of them only.
  bool differ(const uint8_t* one, const uint8_t* two, uint32_t first) {
    if (memcmp(one, two, kSectorBytes) == 0) return false;
    for (uint32_t i = 0; i < kSectorBytes / 4; ++i) {
      const uint32_t change = getLe32(one + i * 4) ^ getLe32(two + i * 4);
      if (change == 0) continue;
      const bool mark = first + i == 1 && (change & ~kFatStateMarks) == 0;
      if (!mark &&
          (isOurs(first + i) || !isLink(getLe32(one + i * 4)) || !isLink(getLe32(two + i * 4)))) {
        return true;
      }
      (mark ? mounted_ : foreign_) = true;
    }
    return false;
  }

  // Whether an entry is one that a PC writes: free, a cluster that there is, or an end. Noise is
  // not.
  bool isLink(uint32_t entry) const {
    return entry == 0 || (entry >= kFatChainEndLeast && entry <= kFatEntryMask) ||
           (entry >= kFirstCluster && entry - kFirstCluster < card_.info().clusters());
  }

  // Whether a cluster is the root directory's or a chunk's.
  bool isOurs(uint32_t cluster) const {
    if (cluster < kFirstCluster) return true;
    const uint64_t byte = boot_.dataSector() * kSectorBytes +
                          uint64_t{cluster - kFirstCluster} * card_.info().clusterBytes();
    uint64_t first = UINT64_MAX;
    for (int type = 0; type < kFileTypeCount; ++type) {
      const CardFamily& family = card_.family(type);
      if (byte >= family.startByte() && byte - family.startByte() < family.bytes()) return true;
      first = std::min(first, family.startByte());
    }
    return byte < first;
  }

  // What a PC has done, said once all of it was seen.
  void tellState() {
    if (mounted_) note("a PC had the card mounted and did not let go of it in order");
    if (foreign_) note("a PC was torn off while it wrote files of its own: the FATs differ there");
  }

  void countFree(const uint8_t* entries, uint32_t first) {
    for (uint32_t i = 0; i < kSectorBytes / 4; ++i) {
      const uint32_t cluster = first + i;
      if (cluster < kFirstCluster || cluster - kFirstCluster >= card_.info().clusters()) continue;
      if ((getLe32(entries + i * 4) & kFatEntryMask) == 0) ++free_;
    }
  }

  void checkFsInfo() {
    const uint16_t place = getLe16(sector_ + kBootFsInfoOff);
    uint8_t sector[kSectorBytes];
    if (place == 0 || place >= boot_.reservedSectors) return fat("there is no FSInfo sector");
    if (!card_.read(uint64_t{place} * kSectorBytes, sector, sizeof sector)) {
      return unreadable("the FSInfo sector");
    }
    const FsInfo info = decodeFsInfo(sector);
    if (!info.marked) return fat("the FSInfo sector lacks its signatures");
    if (info.freeClusters == kFreeUnknown || info.freeClusters == free_) return;
    const std::string text = "the FSInfo sector counts " + std::to_string(info.freeClusters) +
                             " free clusters, the FAT has " + std::to_string(free_);
    // A PC counts when it lets go of the card.
    if (mounted_ || foreign_ || !contents_->notes.empty()) return note(text);
    fat(text);
  }

  uint64_t directoryBytes() const {
    uint64_t entries = kSpareEntries;
    for (int type = 0; type < kFileTypeCount; ++type)
      entries += uint64_t{2} * card_.family(type).chunks;
    const uint64_t start = boot_.dataSector() * kSectorBytes;
    const uint64_t all = card_.info().deviceBytes();
    return std::min(entries * kDirEntryBytes, all - std::min(all, start));
  }

  void checkRoot() {
    std::vector<uint8_t> bytes(static_cast<size_t>(directoryBytes()));
    if (!card_.read(boot_.dataSector() * kSectorBytes, bytes.data(), bytes.size())) {
      return unreadable("the root directory");
    }
    const std::vector<std::string> foreign = foreignNames(bytes.data(), bytes.size());
    tellForeign(foreign);
    auto twice = static_cast<uint32_t>(
        foreign.size() - std::set<std::string>(foreign.begin(), foreign.end()).size());
    for (const DirectoryFile& file : decodeRootDirectory(bytes.data(), bytes.size())) {
      int type = 0;
      uint32_t chunk = 0;
      if (!parseChunkFile(file.name, &type, &chunk)) continue;
      if (!files_.emplace(file.name, file).second) ++twice;
    }
    if (twice != 0)
      fat("the root directory has " + std::to_string(twice) + " names more than once");
  }

  void tellForeign(const std::vector<std::string>& names) {
    constexpr size_t kNamed = 5;
    if (names.empty()) return;
    std::string text = "the root directory has what is not the recorder's:";
    for (size_t i = 0; i < std::min(names.size(), kNamed); ++i)
      text += (i == 0 ? " " : ", ") + names[i];
    if (names.size() > kNamed) text += " and " + std::to_string(names.size() - kNamed) + " more";
    note(text);
  }

  // The chain of `clusters` from `first` on is one piece in order: the cluster that breaks it, 0
  // for none.
  uint32_t brokenAt(BlockReader* table, uint32_t first, uint32_t clusters) const {
    for (uint32_t i = 0; i < clusters; ++i) {
      const uint32_t cluster = first + i;
      const uint8_t* entry = table->at(uint64_t{cluster} * 4, 4);
      if (entry == nullptr) return cluster;
      const uint32_t next = getLe32(entry) & kFatEntryMask;
      const bool good = i + 1 < clusters ? next == cluster + 1 : next >= kFatChainEndLeast;
      if (!good) return cluster;
    }
    return 0;
  }

  void checkFiles() {
    BlockReader table(card_, fatByte(0), fatBytes());
    for (int type = 0; type < kFileTypeCount; ++type) {
      for (uint32_t chunk = 0; chunk < card_.family(type).chunks; ++chunk) {
        checkFile(&table, type, chunk);
      }
    }
  }

  void checkFile(BlockReader* table, int type, uint32_t chunk) {
    char name[16];
    snprintf(name, sizeof name, "%s%04" PRIu32, fileTag(type), chunk);
    const auto say = [&](const std::string& text) {
      add(FindingKind::kFile, std::string(name) + ": " + text);
    };
    const CardFamily& family = card_.family(type);
    const auto found = files_.find(name);
    if (found == files_.end()) return say("the root directory does not have this file");
    const DirectoryFile& file = found->second;
    if (file.size != family.chunkSize) {
      return say("the directory gives " + std::to_string(file.size) + " bytes, the info file " +
                 std::to_string(family.chunkSize));
    }
    const uint64_t start = family.startByte() + uint64_t{chunk} * family.chunkSize;
    const uint64_t data = boot_.dataSector() * kSectorBytes;
    const uint32_t clusterBytes = card_.info().clusterBytes();
    if (start < data || (start - data) % clusterBytes != 0 ||
        (start - data) / clusterBytes + kFirstCluster != file.cluster) {
      return say("the directory has it at cluster " + std::to_string(file.cluster) +
                 ", the info file elsewhere");
    }
    const uint32_t clusters = (family.chunkSize + clusterBytes - 1) / clusterBytes;
    const uint32_t broken = brokenAt(table, file.cluster, clusters);
    if (broken != 0)
      say("it is not in one piece: the FAT leads elsewhere at cluster " + std::to_string(broken));
  }

  CardContents* contents_;
  const CardReader& card_;
  uint8_t sector_[kSectorBytes] = {};
  FatBoot boot_;
  uint32_t free_ = 0;
  bool mounted_ = false;  // a PC's mark says so
  bool foreign_ = false;  // the FATs differ in clusters that are nobody's of the recorder
  std::unordered_map<std::string, DirectoryFile> files_;
};

}  // namespace

void checkVolume(CardContents* contents) { VolumeCheck(contents).run(); }

}  // namespace tarn
