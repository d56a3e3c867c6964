#include "recorder/card/CardInfo.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

// Behind sys/stat.h, which it needs.
#include <linux/fs.h>

#include <cstring>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "base/UniqueFd.h"
#include "base/Wrap.h"
#include "fat/FatFormat.h"
#include "recorder/card/CardText.h"
#include "recorder/card/NoThrow.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {
namespace {

constexpr int kManageTypes[] = {kFileStreamManage, kFileSyslogManage, kFileJournalManage};
constexpr uint32_t kRecordBytes = sizeof(CHUNK_MANAGE);

bool fail(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

bool readAt(int fd, uint64_t offset, void* out, size_t length) {
  auto* bytes = static_cast<uint8_t*>(out);
  while (length > 0) {
    const ssize_t got = pread(fd, bytes, length, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    offset += static_cast<uint64_t>(got);
    length -= static_cast<size_t>(got);
  }
  return true;
}

size_t slotOf(int manageType) {
  if (manageType == kFileStreamManage) return 0;
  return manageType == kFileSyslogManage ? 1 : 2;
}

int chunksOf(int manageType) {
  if (manageType == kFileStreamManage) return kFileStream;
  return manageType == kFileSyslogManage ? kFileSyslog : kFileJournal;
}

int managerOf(int fileType) {
  if (fileType == kFileStream || fileType == kFilePicture) return kFileStreamManage;
  if (fileType == kFileSyslog) return kFileSyslogManage;
  return fileType == kFileJournal ? kFileJournalManage : -1;
}

bool crcIsGood(const std::vector<uint8_t>& file) {
  const size_t crcOff = file.size() - 2;
  return crc16(file.data(), crcOff) == getLe16(file.data() + crcOff);
}

CHUNK_MANAGE decodeRecord(const uint8_t* bytes) {
  CHUNK_MANAGE record;
  memcpy(record.reserved, bytes, sizeof record.reserved);
  record.chType = static_cast<int8_t>(bytes[offsetof(CHUNK_MANAGE, chType)]);
  record.recType = static_cast<int8_t>(bytes[offsetof(CHUNK_MANAGE, recType)]);
  record.streamUseOffset = getLe32(bytes + offsetof(CHUNK_MANAGE, streamUseOffset));
  record.streamFreeOffset = getLe32(bytes + offsetof(CHUNK_MANAGE, streamFreeOffset));
  record.pictureUseOffset = getLe32(bytes + offsetof(CHUNK_MANAGE, pictureUseOffset));
  record.pictureFreeOffset = getLe32(bytes + offsetof(CHUNK_MANAGE, pictureFreeOffset));
  return record;
}

std::string labelText(const uint8_t* bytes) {
  std::string label(reinterpret_cast<const char*>(bytes), kLabelBytes);
  label.erase(label.find_last_not_of(' ') + 1);
  for (char& c : label) {
    if (static_cast<uint8_t>(c) < 0x20 || static_cast<uint8_t>(c) > 0x7E) c = '?';
  }
  return label;
}

uint64_t sizeOfDevice(int fd) {
  struct stat file;
  if (fstat(fd, &file) != 0) return 0;
  uint64_t bytes = 0;
  if (S_ISBLK(file.st_mode)) return ioctl(fd, BLKGETSIZE64, &bytes) == 0 ? bytes : 0;
  return static_cast<uint64_t>(file.st_size);
}

// First sector of the info file, or -1.
int64_t findInfoFile(int fd, const FatBoot& boot) {
  uint8_t entries[size_t{kDirEntriesSearched} * kDirEntryBytes];
  const ssize_t got =
      pread(fd, entries, sizeof entries, static_cast<off_t>(boot.dataSector() * kSectorBytes));
  const size_t whole = got < 0 ? 0 : static_cast<size_t>(got) / kDirEntryBytes;
  for (size_t i = 0; i < whole; ++i) {
    const uint8_t* entry = entries + i * kDirEntryBytes;
    if (isInfoFileEntry(entry)) return sectorOfCluster(boot, decodeFirstCluster(entry));
  }
  return -1;
}

}  // namespace

int CardInfo::read(const std::string& path, std::string* error) {
  return orNoMemory(
      "CardInfo",
      [&]() -> int {
        *this = CardInfo();
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (!fd.valid()) {
          *error = errnoText("cannot open " + path, errno);
          return -1;
        }
        std::string reason;
        FatBoot boot;
        const bool good = readVolume(fd.get(), &boot, &reason) &&
                          readInfoFile(fd.get(), boot, &reason) && checkFamilies(&reason) &&
                          readManagement(fd.get(), &reason);
        if (!good) *error = path + ": " + reason;
        return good ? 0 : -1;
      },
      [&]() -> int { return memoryOut(error); });
}

bool CardInfo::readVolume(int fd, FatBoot* boot, std::string* error) {
  deviceBytes_ = sizeOfDevice(fd);
  uint8_t sector[kSectorBytes];
  if (!readAt(fd, 0, sector, sizeof sector)) {
    return fail(error, "the boot sector cannot be read");
  }
  if (isUnfinishedSector(sector)) {
    return fail(error, "formatting was interrupted; format the card again");
  }
  *boot = decodeFatBoot(sector);
  // Only what the recorder's own readers use must be right; a total of 0 is no word about it.
  const uint64_t total = getLe32(sector + kBootTotalSectorsOff);
  const uint64_t sectors = total != 0 ? total : deviceBytes_ / kSectorBytes;
  if (boot->fat16Size != 0 || boot->fat32Size == 0 || boot->clusterSectors == 0 ||
      boot->dataSector() >= sectors) {
    return fail(error, "not a FAT32 volume, so not a card of the recorder");
  }
  volumeBytes_ = sectors * kSectorBytes;
  volumeId_ = getLe32(sector + kBootVolumeIdOff);
  label_ = labelText(sector + kBootLabelOff);
  clusterBytes_ = boot->clusterSectors * kSectorBytes;
  clusters_ = static_cast<uint32_t>((sectors - boot->dataSector()) / boot->clusterSectors);
  return true;
}

bool CardInfo::readInfoFile(int fd, const FatBoot& boot, std::string* error) {
  const int64_t start = findInfoFile(fd, boot);
  if (start < 0) return fail(error, "a FAT32 volume, but no card of the recorder: no TAIF0000");
  uint8_t file[kInfoFileBytes];
  if (!readAt(fd, static_cast<uint64_t>(start) * kSectorBytes, file, sizeof file)) {
    return fail(error, "the info file TAIF0000 cannot be read");
  }
  const uint32_t length = getLe32(file);
  if (length < kInfoLengthMin || length > kInfoLengthMax) {
    return fail(error, "the info file TAIF0000 is damaged, or formatting was interrupted");
  }
  for (uint32_t type = 0; type < kInfoRecords; ++type) {
    const InfoRecord record = decodeInfoRecord(file + kInfoLengthBytes + type * kInfoRecordBytes);
    // Readers keep 16 bits of the count.
    families_[type] = {record.chunkSize, record.chunkCount & 0xFFFF, record.startSector};
  }
  return true;
}

bool CardInfo::checkFamilies(std::string* error) const {
  for (int type = 0; type < kFileTypeCount; ++type) {
    const CardFamily& family = this->family(type);
    const std::string name = CardLayout::familyName(type);
    if (family.chunkSize == 0 || family.chunks == 0) {
      return fail(error, "the info file gives no " + name + " chunks");
    }
    if (family.startByte() + family.bytes() > deviceBytes_) {
      return fail(error, "the " + name +
                             " chunks lie behind the card's end: the card is damaged "
                             "or only a part of it is here");
    }
  }
  return true;
}

bool CardInfo::readManagement(int fd, std::string* error) {
  for (int type : kManageTypes) {
    const uint32_t chunks = family(chunksOf(type)).chunks;
    const size_t length = size_t{chunks} * kRecordBytes + 2;
    if (length > family(type).chunkSize || family(type).chunks < 2) {
      return fail(error, std::string("the ") + CardLayout::familyName(type) +
                             " chunks are too small or too few");
    }
    std::vector<uint8_t> copies[2];
    bool good[2];
    for (uint32_t i = 0; i < 2; ++i) {
      copies[i].resize(length);
      const uint64_t at = family(type).startByte() + uint64_t{i} * family(type).chunkSize;
      good[i] = readAt(fd, at, copies[i].data(), length) && crcIsGood(copies[i]);
    }
    CardManagement& management = management_[slotOf(type)];
    using Copies = CardManagement::Copies;
    if (good[0] && good[1]) {
      management.copies = copies[0] == copies[1] ? Copies::kBothGood : Copies::kDifferent;
    } else if (good[0]) {
      management.copies = Copies::kBackupBad;
    } else {
      management.copies = good[1] ? Copies::kMainBad : Copies::kBothBad;
    }
    if (!good[0] && !good[1]) continue;
    const std::vector<uint8_t>& best = good[0] ? copies[0] : copies[1];
    for (uint32_t i = 0; i < chunks; ++i) {
      management.records.push_back(decodeRecord(best.data() + size_t{i} * kRecordBytes));
    }
  }
  uint8_t size[4];
  if (!readAt(fd, family(kFileDbImage).startByte(), size, sizeof size)) {
    return fail(error, "the database image cannot be read");
  }
  dbImageBytes_ = asSigned32(getLe32(size));
  return true;
}

const CardManagement& CardInfo::management(int manageType) const {
  return management_[slotOf(manageType)];
}

uint32_t CardInfo::streamChunksInUse() const {
  uint32_t used = 0;
  for (const CHUNK_MANAGE& record : management(kFileStreamManage).records) {
    if (record.chType != -1) ++used;
  }
  return used;
}

uint64_t CardInfo::usedBytes(int fileType) const {
  uint64_t bytes = 0;
  if (managerOf(fileType) < 0) return bytes;
  for (uint32_t chunk = 0; chunk < family(fileType).chunks; ++chunk) {
    bytes += usedBytes(fileType, chunk);
  }
  return bytes;
}

uint32_t CardInfo::usedBytes(int fileType, uint32_t chunk) const {
  const int manager = managerOf(fileType);
  if (manager < 0) return 0;
  const std::vector<CHUNK_MANAGE>& records = management(manager).records;
  if (chunk >= records.size()) return 0;
  const CHUNK_MANAGE& record = records[chunk];
  const bool picture = fileType == kFilePicture;
  const uint32_t use = picture ? record.pictureUseOffset : record.streamUseOffset;
  const uint32_t free = picture ? record.pictureFreeOffset : record.streamFreeOffset;
  const uint32_t size = family(fileType).chunkSize;
  // Offsets are a card's word.
  if (use >= size || free > size) return 0;
  return size - ringFree(use, free, size);
}

}  // namespace tarn
