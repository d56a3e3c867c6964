#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "recorder/card/CardLayout.h"

// The parts of a FAT32 volume that PCs read and the library does not: full boot sector, FSInfo,
// FATs, directory entries with long names. Encoders fill buffers, nothing here touches a device.
namespace tarn {

// Boot sector, beyond the fields of fat/FatFormat.h          off size
inline constexpr uint32_t kBootOemOff = 3;            //   3  8  says whose volume it is
inline constexpr uint32_t kBootSectorBytesOff = 11;   //  11  2  512
inline constexpr uint32_t kBootMediaOff = 21;         //  21  1  0xF8
inline constexpr uint32_t kBootTrackSectorsOff = 24;  //  24  2  nothing uses these three today
inline constexpr uint32_t kBootHeadsOff = 26;         //  26  2
inline constexpr uint32_t kBootHiddenOff = 28;        //  28  4  0: a bare volume
inline constexpr uint32_t kBootTotalSectorsOff = 32;  //  32  4
inline constexpr uint32_t kBootFsInfoOff = 48;        //  48  2  sector of FSInfo
inline constexpr uint32_t kBootBackupOff = 50;        //  50  2  sector of the backup
inline constexpr uint32_t kBootDriveOff = 64;         //  64  1  0x80
inline constexpr uint32_t kBootStateOff = 65;         //  65  1  kBootStateMarks while a PC writes
inline constexpr uint32_t kBootExtendedOff = 66;      //  66  1  0x29: the next three are there
inline constexpr uint32_t kBootVolumeIdOff = 67;      //  67  4
inline constexpr uint32_t kBootLabelOff = 71;         //  71 11
inline constexpr uint32_t kBootSystemOff = 82;        //  82  8  "FAT32   "
inline constexpr uint32_t kBootSignatureOff = 510;    // 510  2  0x55 0xAA
inline constexpr char kOemName[] = "TARN 1.0";
inline constexpr char kVolumeLabel[] = "TARN CARD  ";
inline constexpr uint32_t kLabelBytes = 11;

// What stands in sector 0 while a format is under way. The 16-bit FAT size that is not 0 makes
// every open of a chunk refuse the card; the text lets a new format go ahead without being forced.
inline constexpr char kUnfinishedText[] = "TARN card, format not finished";

inline constexpr uint32_t kFsInfoSector = 1;
inline constexpr uint32_t kBackupSector = 6;

void encodeBootSector(const CardLayout& layout, uint32_t volumeId, uint8_t* sector);
// `others`: clusters that are taken by what the layout does not have.
void encodeFsInfo(const CardLayout& layout, uint32_t others, uint8_t* sector);
void encodeUnfinishedSector(uint8_t* sector);
bool isUnfinishedSector(const uint8_t* sector);

// FAT entries, 4 bytes each, of the clusters first .. first + count - 1.
void encodeFat(const CardLayout& layout, uint32_t first, uint32_t count, uint8_t* out);

// The whole root directory, layout.rootBytes() of it: the info file first, the volume label, then
// all other chunk files. `when` stamps the files; 0 gives FAT's first day.
void encodeRootDirectory(const CardLayout& layout, time_t when, uint8_t* out);

// One entry of a file; `name` has 11 characters.
void encodeFileEntry(const char* name, time_t when, uint32_t cluster, uint32_t size, uint8_t* out);

// A PC that has a volume mounted says so in the boot sector, or by clearing bits of the FAT's
// second entry, and takes it back when it lets go of it in order.
inline constexpr uint8_t kBootStateMarks = 0x03;
inline constexpr uint32_t kFatStateMarks = 0x0C000000;
// Whether two boot sectors are the same but for the mark, which a PC puts into the first alone.
bool isSameBoot(const uint8_t* one, const uint8_t* other);

// A FAT entry without the four bits that mean nothing, and what ends a chain.
inline constexpr uint32_t kFatEntryMask = 0x0FFFFFFF;
inline constexpr uint32_t kFatChainEndLeast = 0x0FFFFFF8;

// FSInfo as read back; free is 0xFFFFFFFF where the volume does not tell.
struct FsInfo {
  bool marked = false;  // its signatures are there
  uint32_t freeClusters = 0;
};
FsInfo decodeFsInfo(const uint8_t* sector);

// Directory entry, beyond fat/FatFormat.h                 off size
inline constexpr uint32_t kDirAttributeOff = 11;  //  11  1
inline constexpr uint32_t kDirSizeOff = 28;       //  28  4
inline constexpr uint8_t kDirArchive = 0x20;      // attribute of an ordinary file

// A file of the root directory; by its long name where it has one.
struct DirectoryFile {
  std::string name;  // "CKST0007"
  uint32_t cluster = 0;
  uint32_t size = 0;
  uint32_t entry = 0;  // which of the directory's entries has its cluster and size
};
// All files up to the directory's end; labels, directories and deleted files are passed over.
std::vector<DirectoryFile> decodeRootDirectory(const uint8_t* bytes, size_t length);

// Names of what lies in a root directory beside what the formatter puts there (chunk files, label
// and README.TXT): files, and folders.
std::vector<std::string> foreignNames(const uint8_t* bytes, size_t length);

// Bytes of the info file in use: the length and nine records.
inline constexpr uint32_t kInfoFileBytes = 760;
// Behind them, where readers do not look, the seal      off size
inline constexpr uint32_t kInfoSealOff = 760;  // 760  8  kInfoSealMark
inline constexpr char kInfoSealMark[] = "TAIFSEAL";
inline constexpr uint32_t kInfoSealMarkBytes = 8;
inline constexpr uint32_t kInfoSealCrcOff = kInfoSealOff + kInfoSealMarkBytes;  // 768  2  0 to 767
inline constexpr uint32_t kInfoSealedBytes = kInfoSealCrcOff + 2;
static_assert(kInfoSealOff == kInfoFileBytes && kInfoSealedBytes == 770);
// A second copy, sealed as well, in front of the FATs: behind the backup of the boot sector and its
// two companions, where neither readers nor PCs look. Cards of others may have no room for it.
inline constexpr uint32_t kInfoCopySector = 16;
inline constexpr uint32_t kInfoCopySectors = 2;
inline bool hasRoomForInfoCopy(uint32_t reservedSectors) {
  return reservedSectors >= kInfoCopySector + kInfoCopySectors;
}

// Fills kInfoSealedBytes. Records begin with the name of the family's first chunk file
// ("CKST0000"), padded with zeros; the other bytes that readers do not use are 0.
void encodeInfoFile(const CardLayout& layout, uint8_t* out);
// Puts the seal behind an info file of kInfoFileBytes.
void sealInfoFile(uint8_t* file);

// Whether a file is what was sealed. Cards of before, and those of others, have no seal.
enum class InfoSeal : uint8_t { kNone, kGood, kBad };
InfoSeal judgeInfoSeal(const uint8_t* file);

}  // namespace tarn
