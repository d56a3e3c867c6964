#include "recorder/card/CardGeometry.h"

#include <algorithm>
#include <new>
#include <vector>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/CardMap.h"
#include "recorder/card/FamilyRules.h"
#include "recorder/card/FatTables.h"
#include "recorder/card/NoThrow.h"
#include "recorder/card/RootDirectory.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {
namespace {

constexpr uint32_t kNoChunk = 0xFFFFFFFF;

std::string text(uint64_t number) { return std::to_string(number); }

std::string familyText(int type) { return CardLayout::familyName(type); }

// Bytes of the card that belong to one thing.
struct Extent {
  uint64_t from = 0;
  uint64_t to = 0;
  std::string name;
};

struct BootField {
  const char* name;
  uint32_t offset;
  uint32_t bytes;
};

// What readers use of the boot sector.
constexpr BootField kBootFields[] = {
    {"sectors to a cluster", kBootClusterSectorsOff, 1},
    {"reserved sectors", kBootReservedOff, 2},
    {"FATs", kBootFatCountOff, 1},
    {"sectors to a FAT16", kBootFat16SizeOff, 2},
    {"sectors to a FAT", kBootFat32SizeOff, 4},
    {"as the root directory's cluster", kBootRootClusterOff, 4},
};

uint32_t fieldOf(const uint8_t* sector, const BootField& field) {
  if (field.bytes == 1) return sector[field.offset];
  return field.bytes == 2 ? getLe16(sector + field.offset) : getLe32(sector + field.offset);
}

// Judges one card, from what leads to the info file on to what it says.
class Verifier {
 public:
  Verifier(const CardBytes& card, const std::string& path, GeometryDepth depth)
      : card_(card), path_(path), depth_(depth) {}

  GeometryReport run() {
    report_.opened = true;
    report_.verdict = Delivery::kGood;
    static_cast<void>(boot() && readTables() && families() && inside() && apart() && directory() &&
                      chains() && volume());
    if (report_.ok()) report_.streamByte = map_.chunkByte(kFileStream, 0);
    return report_;
  }

 private:
  bool refused(const std::string& what) {
    report_.verdict = Delivery::kRefused;
    report_.text = path_ + " cannot be read: " + what + "; nothing was written";
    return false;
  }

  bool mismatch(const std::string& what, const std::string& advice = "") {
    report_.verdict = Delivery::kBad;
    report_.text = path_ + ": " + what + "; nothing was written; " +
                   (advice.empty() ? "mend it with \"" + repairCommand() + "\"" : advice);
    return false;
  }

  // Without a name it is the recorder's own card, also in a private view, where the name is
  // another.
  std::string repairCommand() const {
    const bool own = path_ == deviceName(kRecorderPartition);
    return "tarn check " + (own ? std::string() : path_ + " ") + "--repair";
  }

  bool judge(Delivery delivery, const std::string& unread, const std::string& wrong) {
    if (delivery == Delivery::kRefused) return refused(unread);
    return delivery == Delivery::kGood || mismatch(wrong);
  }

  bool boot() {
    if (!card_.read(0, sector_, sizeof sector_)) return refused("the boot sector");
    if (isUnfinishedSector(sector_)) {
      return mismatch("formatting was interrupted", "format the card again");
    }
    map_.boot = decodeFatBoot(sector_);
    return isBootUsable(map_.boot, card_.size()) ||
           strayed("not a FAT32 volume, so not a card of the recorder",
                   "format it, or use another");
  }

  // Whoever follows a wrong boot sector gets lost somewhere behind it. Its backup knows better.
  bool strayed(const std::string& where, const std::string& advice = "") {
    uint8_t backup[kSectorBytes];
    if (card_.read(uint64_t{kBackupSector} * kSectorBytes, backup, sizeof backup) &&
        isBootUsable(decodeFatBoot(backup), card_.size())) {
      for (const BootField& field : kBootFields) {
        const uint32_t ours = fieldOf(sector_, field);
        const uint32_t other = fieldOf(backup, field);
        if (ours == other) continue;
        return mismatch("the boot sector gives " + text(ours) + " " + field.name + ", its backup " +
                        text(other));
      }
    }
    return mismatch(where, advice);
  }

  // Root directory and info file.
  bool readTables() {
    fat_ = FatTables(card_, map_.boot);
    const Delivery root = root_.read(card_, map_.boot, &fat_);
    if (root == Delivery::kRefused) return refused("the root directory");
    const Delivery found = findInfoFile(card_, &map_);
    if (found == Delivery::kRefused) return refused("the root directory");
    if (found == Delivery::kBad) {
      return strayed(map_.infoByte == -1 ? "the root directory has no TAIF0000"
                                         : "the root directory has TAIF0000 at byte " +
                                               std::to_string(map_.infoByte) +
                                               ", the card ends at byte " + text(card_.size()));
    }
    if (root == Delivery::kBad) return strayed("neither FAT leads through the root directory");
    return readInfo();
  }

  bool readInfo() {
    uint8_t file[kInfoSealedBytes];
    if (!card_.read(static_cast<uint64_t>(map_.infoByte), file, sizeof file)) {
      return refused("the info file TAIF0000");
    }
    decodeInfoFile(file, &map_);
    if (map_.infoLength < kInfoLengthMin || map_.infoLength > kInfoLengthMax) {
      return strayed("the info file gives its length as " + text(map_.infoLength) +
                     ", the format 756 to 1048576");
    }
    return map_.seal != InfoSeal::kBad ||
           mismatch("the info file gives its checksum as " + text(getLe16(file + kInfoSealCrcOff)) +
                    ", its bytes have " + text(crc16(file, kInfoSealCrcOff)));
  }

  const CardFamily& family(int type) const { return map_.families[static_cast<size_t>(type)]; }

  bool families() {
    const FamilyFault fault = judgeFamilies(map_.families);
    return fault.text.empty() || mismatch(fault.text);
  }

  bool inside() {
    const FamilyFault fault = judgePlaces(map_.families, map_.dataByte(), card_.size());
    if (!fault.cutShort) return fault.text.empty() || mismatch(fault.text);
    return mismatch(fault.text,
                    "the card is damaged or only a part of it is here: copy it again, whole, or "
                    "try \"" +
                        repairCommand() + "\"");
  }

  // Nothing in each other's way.
  bool apart() {
    std::vector<Extent> extents;
    extents.push_back({0, map_.dataByte() + root_.leadingBytes(), "root directory"});
    const auto info = static_cast<uint64_t>(map_.infoByte);
    extents.push_back({info, info + kInfoLengthBytes + kInfoLengthMin, "info file"});
    for (int type = kFileInfo + 1; type < kFileTypeCount; ++type) {
      const uint64_t from = family(type).startByte();
      extents.push_back({from, from + family(type).bytes(), familyText(type) + " chunks"});
    }
    std::sort(extents.begin(), extents.end(),
              [](const Extent& a, const Extent& b) { return a.from < b.from; });
    for (size_t i = 1; i < extents.size(); ++i) {
      if (extents[i].from >= extents[i - 1].to) continue;
      return mismatch("the " + extents[i - 1].name + " end at byte " + text(extents[i - 1].to) +
                      ", the " + extents[i].name + " begin at byte " + text(extents[i].from));
    }
    return true;
  }

  // Which cluster number of a file leads to where the info file has it; false for none.
  bool fits(const DirectoryFile& file, int type, uint32_t chunk, uint32_t* cluster) const {
    if (type != kFileInfo && file.size != family(type).chunkSize) return false;
    const auto place =
        type == kFileInfo ? map_.infoByte : static_cast<int64_t>(map_.chunkByte(type, chunk));
    for (const uint32_t number : {file.cluster, signedCluster(file.cluster)}) {
      *cluster = number;
      if (map_.byteOfCluster(number) == place) return true;
    }
    return false;
  }

  // Every chunk file by its name, where and as large as the info file has it.
  bool directory() {
    std::vector<const DirectoryFile*> misfits[kFileTypeCount];
    for (int type = 0; type < kFileTypeCount; ++type) {
      const uint32_t chunks = type == kFileInfo ? 1 : family(type).chunks;
      clusters_[type].assign(chunks, kNoChunk);
      misfits[type].assign(chunks, nullptr);
    }
    for (const DirectoryFile& file : root_.files()) {
      int type = 0;
      uint32_t chunk = 0;
      if (!parseChunkFile(file.name, &type, &chunk)) continue;
      if (chunk >= clusters_[type].size()) {
        return mismatch("the info file gives " + text(clusters_[type].size()) + " " +
                        familyText(type) + " chunks, the root directory has " + file.name);
      }
      uint32_t cluster = 0;
      if (fits(file, type, chunk, &cluster)) {
        clusters_[type][chunk] = cluster;
      } else {
        misfits[type][chunk] = &file;
      }
    }
    return allFound(misfits);
  }

  bool allFound(const std::vector<const DirectoryFile*>* misfits) {
    for (int type = 0; type < kFileTypeCount; ++type) {
      for (uint32_t chunk = 0; chunk < clusters_[type].size(); ++chunk) {
        if (clusters_[type][chunk] != kNoChunk) continue;
        return misplaced(type, chunk, misfits[type][chunk]);
      }
    }
    return true;
  }

  bool misplaced(int type, uint32_t chunk, const DirectoryFile* file) {
    const std::string name = chunkFileTitle(type, chunk);
    if (file == nullptr) {
      return mismatch("the info file gives " + text(clusters_[type].size()) + " " +
                      familyText(type) + " chunks, the root directory has no " + name);
    }
    if (type != kFileInfo && file->size != family(type).chunkSize) {
      return mismatch("the info file gives " + familyText(type) + " chunks of " +
                      text(family(type).chunkSize) + " bytes, the root directory " + name +
                      " with " + text(file->size));
    }
    return mismatch("the info file has " + name + " at byte " + text(map_.chunkByte(type, chunk)) +
                    ", the root directory at byte " +
                    std::to_string(map_.byteOfCluster(file->cluster)) + " (cluster " +
                    text(file->cluster) + ")");
  }

  // The way of each file through the FAT.
  bool chains() {
    const int last = depth_ == GeometryDepth::kWhole ? kFilePicture : kFileStreamManage;
    for (int type = kFileInfo + 1; type <= last; ++type) {
      const uint64_t perFile =
          (family(type).chunkSize + map_.clusterBytes() - 1) / map_.clusterBytes();
      for (uint32_t chunk = 0; chunk < clusters_[type].size(); ++chunk) {
        uint32_t broken = 0;
        const Delivery chain =
            fat_.isOnePiece(clusters_[type][chunk], static_cast<uint32_t>(perFile), &broken);
        if (!judge(chain, "the FAT entry of cluster " + text(broken),
                   "the info file has " + chunkFileTitle(type, chunk) +
                       " in one piece, the FATs lead elsewhere at cluster " + text(broken))) {
          return false;
        }
      }
    }
    return true;
  }

  // The end of the volume as a PC sees it; the recorder does not look at it.
  bool volume() {
    const uint64_t end = uint64_t{getLe32(sector_ + kBootTotalSectorsOff)} * kSectorBytes;
    if (depth_ != GeometryDepth::kWhole || end == 0) return true;
    for (int type = kFileInfo + 1; type < kFileTypeCount; ++type) {
      const uint64_t last = family(type).startByte() + family(type).bytes();
      if (last <= end) continue;
      return mismatch("the " + familyText(type) + " chunks end at byte " + text(last) +
                      ", the volume of the boot sector at byte " + text(end));
    }
    return end <= card_.size() || mismatch("the volume of the boot sector ends at byte " +
                                           text(end) + ", the card at byte " + text(card_.size()));
  }

  const CardBytes& card_;
  const std::string& path_;
  const GeometryDepth depth_;
  GeometryReport report_;
  uint8_t sector_[kSectorBytes] = {};
  CardMap map_;
  FatTables fat_{card_, map_.boot};
  RootDirectory root_;
  std::vector<uint32_t> clusters_[kFileTypeCount];  // first one of each chunk file
};

// The text is short enough to need no memory of its own.
template <typename Work>
GeometryReport guarded(Work work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    GeometryReport report;
    report.opened = true;
    report.text = "no memory left";
    return report;
  }
}

}  // namespace

GeometryReport CardGeometry::verify(const CardBytes& card, const std::string& path,
                                    GeometryDepth depth) {
  return orNoMemory(
      "CardGeometry",
      [&]() -> GeometryReport {
        return guarded([&] { return Verifier(card, path, depth).run(); });
      },
      [&]() -> GeometryReport {
        GeometryReport report;
        report.text = kErrMemoryOut;
        return report;
      });
}

GeometryReport CardGeometry::verify(const std::string& path, GeometryDepth depth) {
  return orNoMemory(
      "CardGeometry",
      [&]() -> GeometryReport {
        return guarded([&] {
          GeometryReport report;
          CardBytes card;
          if (card.open(path, &report.text) != 0) return report;
          return Verifier(card, path, depth).run();
        });
      },
      [&]() -> GeometryReport {
        GeometryReport report;
        report.text = kErrMemoryOut;
        return report;
      });
}

GeometryReport CardGeometry::verifyRecorder() {
  return orNoMemory(
      "CardGeometry",
      [&]() -> GeometryReport {
        return verify(deviceName(kRecorderPartition), GeometryDepth::kStart);
      },
      [&]() -> GeometryReport {
        GeometryReport report;
        report.text = kErrMemoryOut;
        return report;
      });
}

}  // namespace tarn
