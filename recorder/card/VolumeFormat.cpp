#include "recorder/card/VolumeFormat.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "fat/FatFormat.h"
#include "recorder/card/CardReadme.h"

namespace tarn {
namespace {

constexpr uint32_t kRootCluster = 2;
constexpr uint32_t kChainEnd = 0x0FFFFFFF;
constexpr uint32_t kMediaEntry = 0x0FFFFFF8;
constexpr uint8_t kMedia = 0xF8;

// Directory entry, beyond VolumeFormat.h                 off size
constexpr uint32_t kDirCreateTimeOff = 14;  //  14  2
constexpr uint32_t kDirCreateDateOff = 16;  //  16  2
constexpr uint32_t kDirAccessDateOff = 18;  //  18  2
constexpr uint32_t kDirWriteTimeOff = 22;   //  22  2
constexpr uint32_t kDirWriteDateOff = 24;   //  24  2
constexpr uint8_t kAttributeLabel = 0x08;
constexpr uint8_t kAttributeLongName = 0x0F;
constexpr uint32_t kFullNameBytes = 11;

// Long-name entry                                        off size
constexpr uint32_t kLongOrderOff = 0;      //   0  1  0x41: the last and first piece
constexpr uint32_t kLongChecksumOff = 13;  //  13  1  of the short name
constexpr uint8_t kLongOnlyPiece = 0x41;
// Places of a piece's 13 two-byte characters.
constexpr uint32_t kLongCharOff[] = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};

// FSInfo                                                 off size
constexpr uint32_t kFsInfoLeadOff = 0;      //   0  4  "RRaA"
constexpr uint32_t kFsInfoSecondOff = 484;  // 484  4  "rrAa"
constexpr uint32_t kFsInfoFreeOff = 488;    // 488  4  free clusters
constexpr uint32_t kFsInfoNextOff = 492;    // 492  4  where to look for a free one
constexpr uint32_t kFsInfoLead = 0x41615252;
constexpr uint32_t kFsInfoSecond = 0x61417272;
constexpr uint16_t kBootSignature = 0xAA55;

struct FatStamp {
  uint16_t date = (1 << 5) | 1;  // 1980-01-01
  uint16_t time = 0;
};

FatStamp fatStamp(time_t when) {
  FatStamp stamp;
  struct tm local;
  if (when == 0 || localtime_r(&when, &local) == nullptr || local.tm_year < 80) return stamp;
  const int year = std::min(local.tm_year - 80, 127);
  stamp.date = static_cast<uint16_t>((year << 9) | ((local.tm_mon + 1) << 5) | local.tm_mday);
  stamp.time =
      static_cast<uint16_t>((local.tm_hour << 11) | (local.tm_min << 5) | (local.tm_sec / 2));
  return stamp;
}

void encodeFileEntry(const char* name, FatStamp stamp, uint32_t cluster, uint32_t size,
                     uint8_t* out) {
  memcpy(out, name, kFullNameBytes);
  out[kDirAttributeOff] = kDirArchive;
  putLe16(out + kDirCreateTimeOff, stamp.time);
  putLe16(out + kDirCreateDateOff, stamp.date);
  putLe16(out + kDirAccessDateOff, stamp.date);
  putLe16(out + kDirWriteTimeOff, stamp.time);
  putLe16(out + kDirWriteDateOff, stamp.date);
  encodeFirstCluster(cluster, out);
  putLe32(out + kDirSizeOff, size);
}

// Writes entries behind each other.
class DirectoryWriter {
 public:
  DirectoryWriter(const CardLayout& layout, time_t when, uint8_t* out)
      : layout_(layout), stamp_(fatStamp(when)), next_(out) {}

  void label() {
    memcpy(next_, kVolumeLabel, kLabelBytes);
    next_[kDirAttributeOff] = kAttributeLabel;
    putLe16(next_ + kDirWriteTimeOff, stamp_.time);
    putLe16(next_ + kDirWriteDateOff, stamp_.date);
    next_ += kDirEntryBytes;
  }

  void family(int type) {
    const CardFamily& family = layout_.family(type);
    for (uint32_t chunk = 0; chunk < family.chunks; ++chunk) file(type, chunk);
  }

 private:
  void file(int type, uint32_t chunk) {
    char name[16];
    snprintf(name, sizeof name, "%.4s%04u", fileTag(type), chunk);
    char shortName[kFullNameBytes + 1] = "           ";
    if (strlen(name) <= kDirNameBytes) {
      memcpy(shortName, name, kDirNameBytes);
    } else {
      // The alias of a long name: the tag's last two letters tell the families apart.
      snprintf(name, sizeof name, "%.2s~%05u", aliasLetters(type), chunk);
      memcpy(shortName, name, kDirNameBytes);
      snprintf(name, sizeof name, "%.4s%04u", fileTag(type), chunk);
      longName(name, shortName);
    }
    shortEntry(shortName, type, chunk);
  }

  static const char* aliasLetters(int type) {
    return type == kFileDbImage ? "DB" : fileTag(type) + 2;
  }

  void longName(const char* name, const char* shortName) {
    next_[kLongOrderOff] = kLongOnlyPiece;
    next_[kDirAttributeOff] = kAttributeLongName;
    next_[kLongChecksumOff] = checksum(shortName);
    const size_t length = strlen(name);
    for (size_t i = 0; i < std::size(kLongCharOff); ++i) {
      const uint16_t unused = i == length ? 0 : 0xFFFF;
      putLe16(next_ + kLongCharOff[i], i < length ? static_cast<uint8_t>(name[i]) : unused);
    }
    next_ += kDirEntryBytes;
  }

  static uint8_t checksum(const char* shortName) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < kFullNameBytes; ++i) {
      sum = (((sum & 1) << 7) + (sum >> 1) + static_cast<uint8_t>(shortName[i])) & 0xFF;
    }
    return static_cast<uint8_t>(sum);
  }

  void shortEntry(const char* shortName, int type, uint32_t chunk) {
    encodeFileEntry(shortName, stamp_, layout_.clusterOfByte(layout_.chunkByte(type, chunk)),
                    layout_.family(type).chunkSize, next_);
    next_ += kDirEntryBytes;
  }

  const CardLayout& layout_;
  const FatStamp stamp_;
  uint8_t* next_;
};

// Clusters [first, last) that belong to files of `fileClusters` each.
struct Extent {
  uint64_t first;
  uint64_t last;
  uint64_t fileClusters;
};

// Links the part of an extent that lies in [from, to).
void linkExtent(const Extent& extent, uint64_t from, uint64_t to, uint8_t* out) {
  const uint64_t begin = std::max(from, extent.first);
  const uint64_t end = std::min(to, extent.last);
  for (uint64_t cluster = begin; cluster < end; ++cluster) {
    putLe32(out + (cluster - from) * 4, static_cast<uint32_t>(cluster + 1));
  }
  if (begin >= end) return;
  // The last cluster of each file that ends in here.
  uint64_t file = (begin - extent.first) / extent.fileClusters;
  for (;; ++file) {
    const uint64_t last = extent.first + (file + 1) * extent.fileClusters - 1;
    if (last >= end) return;
    putLe32(out + (last - from) * 4, kChainEnd);
  }
}

}  // namespace

void encodeBootSector(const CardLayout& layout, uint32_t volumeId, uint8_t* sector) {
  memset(sector, 0, kSectorBytes);
  static constexpr uint8_t kJump[] = {0xEB, 0x58, 0x90};
  memcpy(sector, kJump, sizeof kJump);
  memcpy(sector + kBootOemOff, kOemName, sizeof kOemName - 1);
  putLe16(sector + kBootSectorBytesOff, kSectorBytes);
  FatBoot boot;
  boot.clusterSectors = static_cast<uint8_t>(layout.clusterBytes() / kSectorBytes);
  boot.reservedSectors = static_cast<uint16_t>(layout.reservedSectors());
  boot.fatCount = 2;
  boot.fat32Size = layout.fatSectors();
  boot.rootCluster = kRootCluster;
  encodeFatBoot(boot, sector);
  sector[kBootMediaOff] = kMedia;
  putLe16(sector + kBootTrackSectorsOff, 63);
  putLe16(sector + kBootHeadsOff, 255);
  putLe32(sector + kBootTotalSectorsOff, layout.totalSectors());
  putLe16(sector + kBootFsInfoOff, kFsInfoSector);
  putLe16(sector + kBootBackupOff, kBackupSector);
  sector[kBootDriveOff] = 0x80;
  sector[kBootExtendedOff] = 0x29;
  putLe32(sector + kBootVolumeIdOff, volumeId);
  memcpy(sector + kBootLabelOff, kVolumeLabel, kLabelBytes);
  memcpy(sector + kBootSystemOff, "FAT32   ", 8);
  // A PC told to boot from the card gives up and tries the next disk: int 18h, then a halt.
  static constexpr uint8_t kNoBoot[] = {0xCD, 0x18, 0xF4, 0xEB, 0xFD};
  memcpy(sector + 90, kNoBoot, sizeof kNoBoot);
  putLe16(sector + kBootSignatureOff, kBootSignature);
}

void encodeFsInfo(const CardLayout& layout, uint32_t others, uint8_t* sector) {
  memset(sector, 0, kSectorBytes);
  putLe32(sector + kFsInfoLeadOff, kFsInfoLead);
  putLe32(sector + kFsInfoSecondOff, kFsInfoSecond);
  const uint32_t free = layout.clusters() - layout.usedClusters() - others;
  putLe32(sector + kFsInfoFreeOff, free);
  putLe32(sector + kFsInfoNextOff, free == 0 ? 0xFFFFFFFF : kRootCluster);
  putLe16(sector + kBootSignatureOff, kBootSignature);
}

void encodeUnfinishedSector(uint8_t* sector) {
  memset(sector, 0, kSectorBytes);
  putLe16(sector + kBootFat16SizeOff, 0xFFFF);
  memcpy(sector + kBootReadBytes, kUnfinishedText, sizeof kUnfinishedText);
}

bool isUnfinishedSector(const uint8_t* sector) {
  return memcmp(sector + kBootReadBytes, kUnfinishedText, sizeof kUnfinishedText) == 0;
}

void encodeFat(const CardLayout& layout, uint32_t first, uint32_t count, uint8_t* out) {
  memset(out, 0, size_t{count} * 4);
  const uint64_t to = uint64_t{first} + count;
  const uint64_t root = layout.rootBytes() / layout.clusterBytes();
  linkExtent({kRootCluster, kRootCluster + root, root}, first, to, out);
  for (int type = 0; type < kFileTypeCount; ++type) {
    const CardFamily& family = layout.family(type);
    const uint64_t start = layout.clusterOfByte(family.startByte());
    const uint64_t perFile = family.chunkSize / layout.clusterBytes();
    linkExtent({start, start + perFile * family.chunks, perFile}, first, to, out);
  }
  if (first == 0 && count > 0) putLe32(out, kMediaEntry);
  if (first <= 1 && to > 1) putLe32(out + (1 - first) * 4, kChainEnd);
}

void encodeRootDirectory(const CardLayout& layout, time_t when, uint8_t* out) {
  memset(out, 0, static_cast<size_t>(layout.rootBytes()));
  DirectoryWriter writer(layout, when, out);
  writer.family(kFileInfo);
  writer.label();
  for (int type = kFileInfo + 1; type < kFileTypeCount; ++type) writer.family(type);
}

void encodeFileEntry(const char* name, time_t when, uint32_t cluster, uint32_t size, uint8_t* out) {
  encodeFileEntry(name, fatStamp(when), cluster, size, out);
}

FsInfo decodeFsInfo(const uint8_t* sector) {
  FsInfo info;
  info.marked = getLe32(sector + kFsInfoLeadOff) == kFsInfoLead &&
                getLe32(sector + kFsInfoSecondOff) == kFsInfoSecond &&
                getLe16(sector + kBootSignatureOff) == kBootSignature;
  info.freeClusters = getLe32(sector + kFsInfoFreeOff);
  return info;
}

namespace {

constexpr uint8_t kDirEnd = 0x00;
constexpr uint8_t kDirDeleted = 0xE5;
constexpr uint8_t kAttributeDirectory = 0x10;
constexpr size_t kMostLongName = 255;

std::string decodeLongPiece(const uint8_t* entry) {
  std::string name;
  for (const uint32_t off : kLongCharOff) {
    const uint16_t character = getLe16(entry + off);
    if (character == 0 || character == 0xFFFF) break;
    name += character < 0x7F ? static_cast<char>(character) : '?';
  }
  return name;
}

std::string decodeShortName(const uint8_t* entry) {
  std::string name(reinterpret_cast<const char*>(entry), kDirNameBytes);
  name.erase(name.find_last_not_of(' ') + 1);
  return name;
}

}  // namespace

std::vector<DirectoryFile> decodeRootDirectory(const uint8_t* bytes, size_t length) {
  std::vector<DirectoryFile> files;
  std::string longName;
  for (size_t at = 0; length - at >= kDirEntryBytes; at += kDirEntryBytes) {
    const uint8_t* entry = bytes + at;
    if (entry[0] == kDirEnd) break;
    const uint8_t attribute = entry[kDirAttributeOff];
    if (entry[0] == kDirDeleted) continue;
    if (attribute == kAttributeLongName) {
      longName = decodeLongPiece(entry);
    } else {
      if ((attribute & (kAttributeLabel | kAttributeDirectory)) == 0) {
        const uint32_t high = getLe16(entry + kDirClusterHighOff);
        files.push_back({longName.empty() ? decodeShortName(entry) : longName,
                         (high << 16) | getLe16(entry + kDirClusterLowOff),
                         getLe32(entry + kDirSizeOff), static_cast<uint32_t>(at / kDirEntryBytes)});
      }
      longName.clear();
    }
  }
  return files;
}

namespace {

// "NAME.EXT" of an entry without a long name.
std::string wholeShortName(const uint8_t* entry) {
  std::string ending(reinterpret_cast<const char*>(entry) + kDirNameBytes,
                     kFullNameBytes - kDirNameBytes);
  ending.erase(ending.find_last_not_of(' ') + 1);
  return decodeShortName(entry) + (ending.empty() ? "" : "." + ending);
}

bool isChunkFileName(const std::string& name) {
  constexpr size_t kTagBytes = 4;
  if (name.size() <= kTagBytes || name.find_first_not_of("0123456789", kTagBytes) != name.npos)
    return false;
  for (int type = 0; type < kFileTypeCount; ++type) {
    if (name.compare(0, kTagBytes, fileTag(type)) == 0) return true;
  }
  return false;
}

}  // namespace

std::vector<std::string> foreignNames(const uint8_t* bytes, size_t length) {
  std::vector<std::string> names;
  std::string longName;
  for (size_t at = 0; length - at >= kDirEntryBytes; at += kDirEntryBytes) {
    const uint8_t* entry = bytes + at;
    if (entry[0] == kDirEnd) break;
    const uint8_t attribute = entry[kDirAttributeOff];
    if (entry[0] == kDirDeleted) continue;
    if (attribute == kAttributeLongName) {
      // The last piece of a name comes first. A chain of pieces that goes on for ever is no name.
      longName.insert(0, decodeLongPiece(entry));
      if (longName.size() > kMostLongName) longName.clear();
      continue;
    }
    const std::string name = longName.empty() ? wholeShortName(entry) : longName;
    const bool ours = isChunkFileName(name) || name == kReadmeName;
    if ((attribute & kAttributeLabel) == 0 && !ours) names.push_back(name);
    longName.clear();
  }
  return names;
}

bool isSameBoot(const uint8_t* one, const uint8_t* other) {
  return memcmp(one, other, kBootStateOff) == 0 &&
         ((one[kBootStateOff] ^ other[kBootStateOff]) & ~kBootStateMarks) == 0 &&
         memcmp(one + kBootExtendedOff, other + kBootExtendedOff,
                kSectorBytes - kBootExtendedOff) == 0;
}

void encodeInfoFile(const CardLayout& layout, uint8_t* out) {
  static_assert(kInfoFileBytes == kInfoLengthBytes + kInfoLengthMin);
  memset(out, 0, kInfoSealedBytes);
  putLe32(out, kInfoLengthMin);
  for (int type = 0; type < kFileTypeCount; ++type) {
    uint8_t* record = out + kInfoLengthBytes + static_cast<uint32_t>(type) * kInfoRecordBytes;
    const CardFamily& family = layout.family(type);
    memcpy(record, fileTag(type), 4);
    memcpy(record + 4, "0000", 4);
    encodeInfoRecord({family.chunkSize, family.chunks, family.startSector}, record);
  }
  sealInfoFile(out);
}

void sealInfoFile(uint8_t* file) {
  memcpy(file + kInfoSealOff, kInfoSealMark, kInfoSealMarkBytes);
  putLe16(file + kInfoSealCrcOff, crc16(file, kInfoSealCrcOff));
}

// Two bytes of the mark may be wrong and it is a seal all the same, a broken one: else damage to
// the mark would make the file pass for one that never had a seal.
InfoSeal judgeInfoSeal(const uint8_t* file) {
  uint32_t same = 0;
  for (uint32_t i = 0; i < kInfoSealMarkBytes; ++i) {
    if (file[kInfoSealOff + i] == static_cast<uint8_t>(kInfoSealMark[i])) ++same;
  }
  if (same + 2 < kInfoSealMarkBytes) return InfoSeal::kNone;
  const bool whole =
      same == kInfoSealMarkBytes && crc16(file, kInfoSealCrcOff) == getLe16(file + kInfoSealCrcOff);
  return whole ? InfoSeal::kGood : InfoSeal::kBad;
}

}  // namespace tarn
