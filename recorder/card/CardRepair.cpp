#include "recorder/card/CardRepair.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <new>

#include "base/Endian.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/CardLock.h"
#include "recorder/card/CardMap.h"
#include "recorder/card/CardText.h"
#include "recorder/card/DeviceIo.h"
#include "recorder/card/DirectoryRepair.h"
#include "recorder/card/FatTables.h"
#include "recorder/card/NoThrow.h"
#include "recorder/card/RootDirectory.h"
#include "recorder/card/UndoFile.h"

namespace tarn {
namespace {

using Bytes = std::vector<uint8_t>;
using Steps = std::vector<CardRepair::Step>;

constexpr uint16_t kBootSignature = 0xAA55;
constexpr uint8_t kMediaByte = 0xF8;
constexpr uint32_t kMediaEntry = 0x0FFFFFF8;
constexpr uint32_t kUnknown = 0xFFFFFFFE;  // an entry of the FAT of which nothing can be said
constexpr uint64_t kInfoCopyByte = uint64_t{kInfoCopySector} * kSectorBytes;
constexpr uint64_t kBackupByte = uint64_t{kBackupSector} * kSectorBytes;

// Where a repair takes the info file from, in this order.
enum class InfoFrom { kItself, kCopy, kDirectory };

// What a PC needs of a boot sector beside what readers use.
bool isWholeBoot(const uint8_t* sector) {
  return getLe16(sector + kBootSignatureOff) == kBootSignature &&
         getLe16(sector + kBootSectorBytesOff) == kSectorBytes &&
         getLe16(sector + kBootFsInfoOff) == kFsInfoSector &&
         getLe16(sector + kBootBackupOff) == kBackupSector && sector[kBootMediaOff] == kMediaByte &&
         memcmp(sector + kBootSystemOff, "FAT32   ", 8) == 0;
}

// Clusters of files of one size, back to back.
struct Chains {
  uint64_t first = 0;
  uint64_t last = 0;  // behind the last one
  uint64_t perFile = 1;
};

// Tries what the card has twice against what it has once, until all of it agrees.
class Planner {
 public:
  Planner(CardBytes* card, const std::string& path) : card_(card), path_(path) {}

  int run(std::string* error) {
    const GeometryReport found = CardGeometry::verify(*card_, path_, GeometryDepth::kWhole);
    *error = found.text;
    if (found.verdict == Delivery::kRefused || !readBoots(error)) return -1;
    if (isUnfinishedSector(boot_)) return -1;
    for (const bool fromBackup : {false, true}) {
      if (startFrom(fromBackup) && tryAll()) {
        mendBootTwin();
        return 0;
      }
    }
    if (isBootUsable(decodeFatBoot(boot_), card_->size()) || hasBackup_) {
      *error += "; it is damaged in more places than its second copies can mend";
    }
    return -1;
  }

  Steps takeSteps() { return std::move(steps_); }

 private:
  // Where an attempt begins, and what it goes back to.
  struct Mark {
    CardBytes::Changes changes;
    size_t steps = 0;
  };
  Mark mark() const { return {card_->changes(), steps_.size()}; }
  void backTo(const Mark& mark) {
    card_->setChanges(mark.changes);
    steps_.resize(mark.steps);
  }

  void step(const std::string& text, CardRepair::Changes changes) {
    for (const auto& [offset, bytes] : changes) card_->plan(offset, bytes);
    steps_.push_back({text, std::move(changes)});
  }

  bool readBoots(std::string* error) {
    if (!card_->read(0, boot_, sizeof boot_)) {
      *error = path_ + " cannot be read: the boot sector";
      return false;
    }
    hasBackup_ = card_->read(kBackupByte, backup_, sizeof backup_) &&
                 isBootUsable(decodeFatBoot(backup_), card_->size());
    return true;
  }

  bool startFrom(bool fromBackup) {
    backTo(Mark());
    if (!fromBackup) {
      map_.boot = decodeFatBoot(boot_);
      return isBootUsable(map_.boot, card_->size());
    }
    if (!hasBackup_ || memcmp(boot_, backup_, sizeof boot_) == 0) return false;
    map_.boot = decodeFatBoot(backup_);
    step("the boot sector is restored from its backup",
         {{0, Bytes(backup_, backup_ + sizeof backup_)}});
    return true;
  }

  // A good seal goes before the directory's word, and that before an info file without a seal.
  bool tryAll() {
    FatTables fat(*card_, map_.boot);
    root_ = RootDirectory();
    if (root_.read(*card_, map_.boot, &fat) == Delivery::kRefused || root_.entries() == 0) {
      return false;
    }
    return attempt([this] { return info(InfoFrom::kItself); }) ||
           attempt([this] { return sealedItself() && mendDirectory(); }) ||
           attempt([this] { return info(InfoFrom::kCopy); }) ||
           attempt([this] { return info(InfoFrom::kCopy) && mendDirectory(); }) ||
           attempt([this] { return info(InfoFrom::kDirectory); }) ||
           attempt([this] { return info(InfoFrom::kItself) && mendDirectory(); }) ||
           attempt([this] { return infoBehindRoot() && mendDirectory(); }) ||
           attempt([this] { return info(InfoFrom::kCopy) && remakeDirectory(); }) ||
           attempt([this] { return infoBehindRoot() && remakeDirectory(); });
  }

  bool attempt(const std::function<bool()>& prepare) {
    const Mark before = mark();
    if (prepare() && writeInfo() && mendFats() &&
        CardGeometry::verify(*card_, path_, GeometryDepth::kWhole).ok()) {
      mendInfoCopy();
      return true;
    }
    backTo(before);
    return false;
  }

  // ---- the info file ----

  bool info(InfoFrom from) {
    from_ = from;
    file_.assign(kInfoSealedBytes, 0);
    if (from == InfoFrom::kCopy) return infoFromCopy();
    const FatBoot boot = map_.boot;
    map_ = CardMap();
    map_.boot = boot;
    if (findInfoFile(*card_, &map_) != Delivery::kGood) return false;
    if (from == InfoFrom::kDirectory) return infoFromDirectory();
    return takeFileAt(static_cast<uint64_t>(map_.infoByte)) && map_.seal != InfoSeal::kBad;
  }

  bool sealedItself() { return info(InfoFrom::kItself) && map_.seal == InfoSeal::kGood; }

  bool takeFileAt(uint64_t byte) {
    if (!card_->read(byte, file_.data(), file_.size())) return false;
    decodeInfoFile(file_.data(), &map_);
    return map_.infoLength >= kInfoLengthMin && map_.infoLength <= kInfoLengthMax;
  }

  bool infoFromCopy() {
    if (!hasRoomForInfoCopy(map_.boot.reservedSectors) || !takeFileAt(kInfoCopyByte)) return false;
    map_.infoByte = static_cast<int64_t>(map_.families[kFileInfo].startByte());
    return map_.seal == InfoSeal::kGood;
  }

  // Where our formatter puts it; for an entry that leads elsewhere on a card without a copy.
  bool infoBehindRoot() {
    from_ = InfoFrom::kItself;
    constexpr uint64_t kAlign = CardLayout::kAlignBytes;
    const uint64_t behind = map_.dataByte() + root_.leadingBytes();
    map_.infoByte = static_cast<int64_t>((behind + kAlign - 1) / kAlign * kAlign);
    return takeFileAt(static_cast<uint64_t>(map_.infoByte)) && map_.seal != InfoSeal::kBad;
  }

  bool infoFromDirectory() {
    std::vector<const DirectoryFile*> files[kFileTypeCount];
    for (const DirectoryFile& file : root_.files()) {
      int type = 0;
      uint32_t chunk = 0;
      if (!parseChunkFile(file.name, &type, &chunk)) continue;
      if (files[type].size() <= chunk) files[type].resize(chunk + 1, nullptr);
      if (files[type][chunk] != nullptr) return false;
      files[type][chunk] = &file;
    }
    putLe32(file_.data(), kInfoLengthMin);
    for (int type = 0; type < kFileTypeCount; ++type) {
      if (!familyFromFiles(type, files[type])) return false;
    }
    sealInfoFile(file_.data());
    decodeInfoFile(file_.data(), &map_);
    return true;
  }

  // All numbers from 0 on, of one size, back to back.
  bool familyFromFiles(int type, const std::vector<const DirectoryFile*>& files) {
    if (files.empty() || files[0] == nullptr) return false;
    const uint32_t size = files[0]->size;
    const int64_t start = map_.byteOfCluster(files[0]->cluster);
    if (size == 0 || start < 0) return false;
    for (size_t chunk = 0; chunk < files.size(); ++chunk) {
      if (files[chunk] == nullptr || files[chunk]->size != size) return false;
      const int64_t place = start + static_cast<int64_t>(uint64_t{size} * chunk);
      if (map_.byteOfCluster(files[chunk]->cluster) != place) return false;
    }
    uint8_t* record =
        file_.data() + kInfoLengthBytes + static_cast<uint32_t>(type) * kInfoRecordBytes;
    memcpy(record, chunkFileTitle(type, 0).c_str(), kDirNameBytes);
    encodeInfoRecord({size, static_cast<uint32_t>(files.size()),
                      static_cast<uint32_t>(static_cast<uint64_t>(start) / kSectorBytes)},
                     record);
    return true;
  }

  // The info file where it belongs, unless it was taken from there.
  bool writeInfo() {
    if (from_ == InfoFrom::kItself) return true;
    const auto place = static_cast<uint64_t>(map_.infoByte);
    Bytes present(kInfoSealedBytes);
    if (map_.infoByte < 0 || !card_->read(place, present.data(), present.size())) return false;
    if (present == file_) return true;
    step(from_ == InfoFrom::kCopy
             ? "the info file TAIF0000 is restored from its second copy"
             : "the info file TAIF0000 is made anew from the root directory and the FATs",
         {{place, file_}});
    return true;
  }

  // Only for a sealed info file, and only over a copy or nothing.
  void mendInfoCopy() {
    Bytes present(kInfoSealedBytes);
    if (judgeInfoSeal(file_.data()) != InfoSeal::kGood ||
        !hasRoomForInfoCopy(map_.boot.reservedSectors) ||
        !card_->read(kInfoCopyByte, present.data(), present.size()) || present == file_) {
      return;
    }
    const bool empty =
        std::all_of(present.begin(), present.end(), [](uint8_t byte) { return byte == 0; });
    if (!empty && judgeInfoSeal(present.data()) == InfoSeal::kNone) return;
    step("the info file's second copy is made the same as the first", {{kInfoCopyByte, file_}});
  }

  // ---- the root directory ----

  uint32_t clusterOf(uint64_t byte) const {
    return static_cast<uint32_t>((byte - map_.dataByte()) / map_.clusterBytes()) +
           map_.boot.rootCluster;
  }

  // Each chunk file that the info file has gets its entry: the one with its name, else the one that
  // has its place and size under a name that is none of ours.
  bool mendDirectory() {
    for (int type = 0; type < kFileTypeCount; ++type) {
      const CardFamily& family = map_.families[static_cast<size_t>(type)];
      if (family.chunks > CardLayout::kMaxChunks || family.chunkSize == 0) return false;
      const uint32_t chunks = type == kFileInfo ? 1 : family.chunks;
      for (uint32_t chunk = 0; chunk < chunks; ++chunk) {
        const uint64_t byte =
            type == kFileInfo ? static_cast<uint64_t>(map_.infoByte) : map_.chunkByte(type, chunk);
        if (byte < map_.dataByte() ||
            !mendEntry(chunkFileTitle(type, chunk), clusterOf(byte), family.chunkSize)) {
          return false;
        }
      }
    }
    return true;
  }

  // Whole sectors of which nothing is left; what belongs there follows from the info file.
  bool remakeDirectory() {
    CardRepair::Changes sectors = lostDirectorySectors(*card_, map_);
    if (sectors.empty()) return false;
    const size_t count = sectors.size();
    step("the root directory gets " + std::to_string(count) +
             (count == 1 ? " sector" : " sectors") + " of entries anew, from the info file",
         std::move(sectors));
    return true;
  }

  bool mendEntry(const std::string& name, uint32_t cluster, uint32_t size) {
    const DirectoryFile* named = nullptr;
    const bool isInfo = name == kInfoFileName;
    for (const DirectoryFile& file : root_.files()) {
      if (file.name != name) continue;
      // Nobody asks for the info file's size.
      if (file.cluster == cluster && (file.size == size || isInfo)) return true;
      named = &file;
    }
    if (named != nullptr) {
      return changeEntry(named->entry, name, cluster, size, false);
    }
    return name.size() == kDirNameBytes && renameEntry(name, cluster, size);
  }

  bool renameEntry(const std::string& name, uint32_t cluster, uint32_t size) {
    for (uint32_t i = 0; i < root_.entries(); ++i) {
      const uint8_t* entry = root_.bytes().data() + size_t{i} * kDirEntryBytes;
      const uint32_t found = (uint32_t{getLe16(entry + kDirClusterHighOff)} << 16) |
                             getLe16(entry + kDirClusterLowOff);
      if (found == cluster && getLe32(entry + kDirSizeOff) == size) {
        return changeEntry(i, name, cluster, size, true);
      }
    }
    return false;
  }

  bool changeEntry(uint32_t index, const std::string& name, uint32_t cluster, uint32_t size,
                   bool rename) {
    const uint8_t* entry = root_.bytes().data() + size_t{index} * kDirEntryBytes;
    Bytes changed(entry, entry + kDirEntryBytes);
    if (rename) {
      memcpy(changed.data(), name.data(), kDirNameBytes);
      changed[kDirAttributeOff] = kDirArchive;
    }
    encodeFirstCluster(cluster, changed.data());
    putLe32(changed.data() + kDirSizeOff, size);
    step("the directory entry of " + name + " is set to what the info file says",
         {{root_.entryByte(index), changed}});
    return true;
  }

  // ---- the FATs ----

  // What follows a cluster, if that is known.
  uint32_t expected(uint64_t cluster) const {
    if (cluster == 0) return kMediaEntry;
    auto chains =
        std::upper_bound(chains_.begin(), chains_.end(), cluster,
                         [](uint64_t wanted, const Chains& one) { return wanted < one.first; });
    if (chains == chains_.begin() || cluster >= (--chains)->last) return kUnknown;
    const uint64_t inFile = (cluster - chains->first) % chains->perFile;
    return inFile + 1 == chains->perFile ? FatTables::kEnd : static_cast<uint32_t>(cluster + 1);
  }

  void listChains() {
    chains_.clear();
    const uint64_t clusterBytes = map_.clusterBytes();
    for (int type = 0; type < kFileTypeCount; ++type) {
      const CardFamily& family = map_.families[static_cast<size_t>(type)];
      const bool odd =
          type == kFileInfo && static_cast<int64_t>(family.startByte()) != map_.infoByte;
      if (odd || family.startByte() < map_.dataByte() || family.chunkSize == 0) continue;
      const uint64_t perFile = (family.chunkSize + clusterBytes - 1) / clusterBytes;
      const uint64_t first = clusterOf(family.startByte());
      chains_.push_back({first, first + perFile * family.chunks, perFile});
    }
    std::sort(chains_.begin(), chains_.end(),
              [](const Chains& a, const Chains& b) { return a.first < b.first; });
  }

  // Entries that are wrong in one table and right in the other. Where both are wrong the chain may
  // well lead elsewhere: the look at the whole says so.
  bool mendFats() {
    listChains();
    if (map_.boot.fatCount < 2) return true;
    const uint64_t fatBytes = uint64_t{map_.boot.fat32Size} * kSectorBytes;
    const uint64_t start = uint64_t{map_.boot.reservedSectors} * kSectorBytes;
    CardRepair::Changes changes[2];
    Bytes blocks[2];
    constexpr uint64_t kBlockBytes = 64 * 1024;
    for (uint64_t at = 0; at < fatBytes; at += kBlockBytes) {
      const auto length = static_cast<size_t>(std::min(kBlockBytes, fatBytes - at));
      bool given = true;
      for (const uint32_t table : {0u, 1u}) {
        blocks[table].resize(length);
        given = given && card_->read(start + table * fatBytes + at, blocks[table].data(), length);
      }
      // What is refused is left alone.
      if (!given || blocks[0] == blocks[1]) continue;
      for (size_t sector = 0; sector < length; sector += kSectorBytes) {
        uint8_t* one = blocks[0].data() + sector;
        const uint8_t* other = blocks[1].data() + sector;
        mendSectors(static_cast<uint32_t>((at + sector) / 4), one, other, start + at + sector,
                    fatBytes, changes);
      }
    }
    for (int table : {0, 1}) {
      if (changes[table].empty()) continue;
      const size_t sectors = changes[table].size();
      step("FAT " + std::to_string(table + 1) + " gets " + std::to_string(sectors) +
               (sectors == 1 ? " sector" : " sectors") + " from its twin",
           std::move(changes[table]));
    }
    return true;
  }

  static bool means(uint32_t entry, uint32_t wanted) {
    entry &= kFatEntryMask;
    return wanted == FatTables::kEnd ? entry >= kFatChainEndLeast : entry == wanted;
  }

  void mendSectors(uint32_t first, uint8_t* one, const uint8_t* other, uint64_t byte,
                   uint64_t fatBytes, CardRepair::Changes* changes) const {
    bool wrong[2] = {false, false};
    for (uint32_t i = 0; i < kSectorBytes / 4; ++i) {
      const uint32_t a = getLe32(one + i * 4);
      const uint32_t b = getLe32(other + i * 4);
      if (a == b) continue;
      const uint32_t wanted = expected(uint64_t{first} + i);
      if (wanted == kUnknown || means(a, wanted) == means(b, wanted)) continue;
      wrong[means(a, wanted) ? 1 : 0] = true;
    }
    // Of the rest of a damaged sector nothing is known but that its twin is good.
    if (wrong[0] && !wrong[1]) changes[0][byte] = Bytes(other, other + kSectorBytes);
    if (wrong[1] && !wrong[0]) changes[1][byte + fatBytes] = Bytes(one, one + kSectorBytes);
    if (!wrong[0] || !wrong[1]) return;
    mixSectors(first, one, other);
    changes[0][byte] = Bytes(one, one + kSectorBytes);
    changes[1][byte + fatBytes] = Bytes(one, one + kSectorBytes);
  }

  // Both are damaged, in different entries: `one` gets the good ones of each.
  void mixSectors(uint32_t first, uint8_t* one, const uint8_t* other) const {
    for (uint32_t i = 0; i < kSectorBytes / 4; ++i) {
      const uint32_t wanted = expected(uint64_t{first} + i);
      if (wanted == kUnknown || means(getLe32(one + i * 4), wanted)) continue;
      memcpy(one + i * 4, other + i * 4, 4);
    }
  }

  // ---- the boot sector's twin, when all the rest agrees ----

  void mendBootTwin() {
    uint8_t now[kSectorBytes];
    uint8_t copy[kSectorBytes];
    if (!card_->read(0, now, sizeof now) || !card_->read(kBackupByte, copy, sizeof copy) ||
        memcmp(now, copy, sizeof now) == 0) {
      return;
    }
    const Mark before = mark();
    if (isWholeBoot(now)) {
      step("the backup of the boot sector is made the same as the boot sector",
           {{kBackupByte, Bytes(now, now + sizeof now)}});
    } else if (isWholeBoot(copy)) {
      step("the boot sector is restored from its backup", {{0, Bytes(copy, copy + sizeof copy)}});
      if (!CardGeometry::verify(*card_, path_, GeometryDepth::kWhole).ok()) backTo(before);
    }
  }

  CardBytes* card_;
  const std::string& path_;
  uint8_t boot_[kSectorBytes] = {};
  uint8_t backup_[kSectorBytes] = {};
  bool hasBackup_ = false;
  CardMap map_;
  RootDirectory root_;
  InfoFrom from_ = InfoFrom::kItself;
  Bytes file_;  // the info file that is tried
  std::vector<Chains> chains_;
  Steps steps_;
};

bool writeAll(int fd, uint64_t offset, const Bytes& all, std::string* error) {
  uint64_t failedByte = 0;
  if (writeFully(fd, offset, all.data(), all.size(), &failedByte)) return true;
  *error = errnoText("writing to the card failed at byte " + std::to_string(failedByte), errno);
  return false;
}

bool flushCard(int fd, std::string* error) {
  if (fsync(fd) == 0) return true;
  *error = errnoText("flushing the card failed", errno);
  return false;
}

uint64_t sizeOfCard(const std::string& path) {
  CardBytes card;
  std::string ignored;
  return card.open(path, &ignored) == 0 ? card.size() : 0;
}

template <typename Work>
int guarded(std::string* error, Work work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    *error = "no memory left";
    return -1;
  }
}

}  // namespace

int CardRepair::plan(const std::string& path, std::string* error) {
  return orNoMemory(
      "CardRepair",
      [&]() -> int {
        return guarded(error, [&] {
          path_ = path;
          steps_.clear();
          CardBytes card;
          if (card.open(path, error) != 0) return -1;
          Planner planner(&card, path_);
          const int result = planner.run(error);
          if (result == 0) {
            steps_ = planner.takeSteps();
            error->clear();
          }
          return result;
        });
      },
      [&]() -> int { return memoryOut(error); });
}

int CardRepair::apply(const std::string& undoFile, std::string* error) {
  return orNoMemory(
      "CardRepair",
      [&]() -> int {
        return guarded(error, [&] {
          CardLock card;
          if (steps_.empty()) return 0;
          if (card.acquire(path_, false, error) != 0) return -1;
          UndoFile undo;
          undo.cardBytes = sizeOfCard(path_);
          for (const Step& step : steps_) {
            for (const auto& [offset, bytes] : step.changes) {
              UndoFile::Piece piece{offset, Bytes(bytes.size()), bytes};
              if (!readFully(card.fd(), offset, piece.before.data(), piece.before.size())) {
                *error = errnoText(path_ + " cannot be read", errno);
                return -1;
              }
              undo.pieces.push_back(std::move(piece));
            }
          }
          if (undo.save(undoFile, error) != 0) return -1;
          for (const UndoFile::Piece& piece : undo.pieces) {
            if (!writeAll(card.fd(), piece.offset, piece.after, error)) return -1;
          }
          return flushCard(card.fd(), error) ? 0 : -1;
        });
      },
      [&]() -> int { return memoryOut(error); });
}

int CardRepair::undo(const std::string& path, const std::string& undoFile, std::string* error) {
  return orNoMemory(
      "CardRepair",
      [&]() -> int {
        return guarded(error, [&] {
          UndoFile undo;
          CardLock card;
          if (undo.load(undoFile, error) != 0 || card.acquire(path, false, error) != 0) return -1;
          if (undo.cardBytes != sizeOfCard(path)) {
            *error = undoFile + " belongs to a card of " + std::to_string(undo.cardBytes) +
                     " bytes, " + path + " has " + std::to_string(sizeOfCard(path));
            return -1;
          }
          for (const UndoFile::Piece& piece : undo.pieces) {
            Bytes present(piece.before.size());
            if (!readFully(card.fd(), piece.offset, present.data(), present.size())) {
              *error = errnoText(path + " cannot be read", errno);
              return -1;
            }
            if (present == piece.after || present == piece.before) continue;
            *error = path + " was changed since at byte " + std::to_string(piece.offset) +
                     "; nothing was written";
            return -1;
          }
          // A place may have been changed twice: what was there first comes back last.
          for (auto piece = undo.pieces.rbegin(); piece != undo.pieces.rend(); ++piece) {
            if (!writeAll(card.fd(), piece->offset, piece->before, error)) return -1;
          }
          return flushCard(card.fd(), error) ? 0 : -1;
        });
      },
      [&]() -> int { return memoryOut(error); });
}

}  // namespace tarn
