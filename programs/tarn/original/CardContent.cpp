#include "CardContent.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "fat/FatFormat.h"
#include "recorder/card/CardText.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {
namespace {

constexpr size_t kLookBytes = 128 * 1024;

constexpr char kEvf[] = "EVF\x09\x0D\x0A\xFF\x00";
constexpr char kEvf2[] = "EVF2\x0D\x0A\x81\x00";
constexpr uint32_t kEvfBytes = 8;

// May be a card of another formatter whose root directory is damaged: that is for a check to say.
constexpr char kOtherFat32[] = "a FAT32 volume without the files of a recorder";

struct Mark {
  uint32_t offset;
  const char* bytes;
  uint32_t length;
  const char* words;
};
// Volumes first: a picture or text does not begin with their marks, and they may begin with boot
// code of any kind.
constexpr Mark kMarks[] = {
    {3, "NTFS    ", 8, "an NTFS volume"},
    {3, "EXFAT   ", 8, "an exFAT volume"},
    {1080, "\x53\xEF", 2, "an ext2, ext3 or ext4 volume"},
    {0, "XFSB", 4, "an XFS volume"},
    {65600, "_BHRfS_M", 8, "a Btrfs volume"},
    {0, "LUKS\xBA\xBE", 6, "an encrypted volume (LUKS)"},
    {0, "hsqs", 4, "a SquashFS volume"},
    {32769, "CD001", 5, "an ISO 9660 volume"},
    {82, "FAT32   ", 8, kOtherFat32},
    {54, "FAT16   ", 8, "a FAT16 volume"},
    {54, "FAT12   ", 8, "a FAT12 volume"},
    {0, kEvf, kEvfBytes, "an Expert Witness image"},
    {0, kEvf2, kEvfBytes, "an Expert Witness image of the second version"},
    {0, "QFI\xFB", 4, "a QCOW disk image"},
    {0, "KDMV", 4, "a VMDK disk image"},
    {0, "vhdxfile", 8, "a VHDX disk image"},
    {0, "conectix", 8, "a VHD disk image"},
    {0, "PK\x03\x04", 4, "a zip archive"},
    {0, "7z\xBC\xAF\x27\x1C", 6, "a 7z archive"},
    {0, "Rar!", 4, "a RAR archive"},
    {0, "\x1F\x8B", 2, "something compressed with gzip"},
    {0,
     "\xFD"
     "7zXZ",
     5, "something compressed with xz"},
    {0, "\x28\xB5\x2F\xFD", 4, "something compressed with zstd"},
    {257, "ustar", 5, "a tar archive"},
    {0, "\x89PNG", 4, "a PNG picture"},
    {0, "\xFF\xD8\xFF", 3, "a JPEG picture"},
    {0, "GIF8", 4, "a GIF picture"},
    {4, "ftyp", 4, "a movie file (MP4 or its relatives)"},
    {0, "RIFF", 4, "a RIFF file (AVI or WAV)"},
    {0, "\x1A\x45\xDF\xA3", 4, "a Matroska movie"},
    {0, "%PDF", 4, "a PDF document"},
    {0, "SQLite format 3", 15, "an SQLite database"},
    {0,
     "\x7F"
     "ELF",
     4, "a program"},
};

bool has(const std::vector<uint8_t>& head, const Mark& mark) {
  return head.size() >= mark.offset + mark.length &&
         memcmp(head.data() + mark.offset, mark.bytes, mark.length) == 0;
}

bool isText(const std::vector<uint8_t>& head) {
  const size_t length = std::min<size_t>(head.size(), 4096);
  return std::all_of(
      head.begin(), head.begin() + static_cast<std::ptrdiff_t>(length),
      [](uint8_t byte) { return byte >= 0x20 ? byte != 0x7F : byte >= '\t' && byte <= '\r'; });
}

bool isErased(const std::vector<uint8_t>& head) {
  return (head[0] == 0 || head[0] == 0xFF) &&
         std::all_of(head.begin(), head.end(), [&](uint8_t byte) { return byte == head[0]; });
}

bool isOurBoot(const uint8_t* sector) {
  return memcmp(sector + kBootOemOff, kOemName, sizeof kOemName - 1) == 0;
}

// By the recorder's name in the boot sector, its backup, or the info file in the root directory.
bool isOurs(CardOriginal* original, const std::vector<uint8_t>& head) {
  constexpr size_t kBackupByte = size_t{kBackupSector} * kSectorBytes;
  if (head.size() < kBackupByte + kSectorBytes) return false;
  if (isOurBoot(head.data()) || isOurBoot(head.data() + kBackupByte)) return true;
  if (memcmp(head.data() + kBootReadBytes, kUnfinishedText, sizeof kUnfinishedText) == 0) {
    return true;
  }
  const FatBoot boot = decodeFatBoot(head.data());
  if (boot.fat16Size != 0 || boot.fat32Size == 0 || boot.clusterSectors == 0) return false;
  const uint64_t start = boot.dataSector() * kSectorBytes;
  if (start >= original->size()) return false;
  std::vector<uint8_t> entries(static_cast<size_t>(std::min<uint64_t>(
      uint64_t{kDirEntriesSearched} * kDirEntryBytes, original->size() - start)));
  if (!original->read(start, entries.data(), entries.size())) return false;
  for (size_t at = 0; at + kDirEntryBytes <= entries.size(); at += kDirEntryBytes) {
    if (isInfoFileEntry(entries.data() + at)) return true;
  }
  return false;
}

// A device may refuse a part of its beginning and not all.
std::vector<uint8_t> readHead(CardOriginal* original) {
  std::vector<uint8_t> head(static_cast<size_t>(std::min<uint64_t>(kLookBytes, original->size())));
  while (!head.empty() && !original->read(0, head.data(), head.size()))
    head.resize(head.size() / 2);
  return head;
}

std::string unknownWords(const std::vector<uint8_t>& head) {
  std::string text = "nothing that is known; it begins with";
  for (size_t i = 0; i < std::min<size_t>(8, head.size()); ++i) {
    char byte[4];
    snprintf(byte, sizeof byte, " %02X", head[i]);
    text += byte;
  }
  return text;
}

}  // namespace

CardContent CardContent::look(CardOriginal* original) {
  CardContent content;
  content.known_ = true;
  if (original->size() == 0) {
    content.words_ = "nothing: it is empty";
    return content;
  }
  const std::vector<uint8_t> head = readHead(original);
  if (head.empty()) {
    content.known_ = false;
    content.words_ = "what cannot be read: the device refuses its first bytes";
    return content;
  }
  content.isCard_ = isOurs(original, head);
  if (content.isCard_) {
    content.words_ = "a card of the recorder";
    return content;
  }
  for (const Mark& mark : kMarks) {
    if (!has(head, mark)) continue;
    content.words_ = mark.words;
    content.known_ = mark.words != kOtherFat32;
    return content;
  }
  // Flash that was erased, which reads as 00 or FF, tells nothing of what lies behind it.
  const bool erased = isErased(head);
  content.known_ = !erased && isText(head);
  if (erased) {
    content.words_ = head[0] == 0 ? "nothing but zeros where a volume begins"
                                  : "nothing but bytes of FF where a volume begins";
  } else {
    content.words_ = content.known_ ? "text" : unknownWords(head);
  }
  return content;
}

bool CardContent::isExpertWitness(CardOriginal* original) {
  uint8_t head[kEvfBytes];
  return original->read(0, head, sizeof head) &&
         (memcmp(head, kEvf, kEvfBytes) == 0 || memcmp(head, kEvf2, kEvfBytes) == 0);
}

}  // namespace tarn
