#include "fat/FatVolume.h"

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "fat/ChunkFiles.h"

namespace tarn {
namespace {

// The info file's usual length fits many times over; only an unusual one takes a second read.
constexpr uint32_t kInfoHeadBytes = 4096;

bool seekTo(int fd, int64_t offset) { return lseek64(fd, offset, SEEK_SET) == offset; }

VolumeFault readBoot(int fd, FatBoot* boot) {
  uint8_t bytes[kBootReadBytes];
  if (::read(fd, bytes, sizeof bytes) != static_cast<ssize_t>(sizeof bytes)) {
    return VolumeFault::kBootSector;
  }
  *boot = decodeFatBoot(bytes);
  return boot->fat16Size == 0 ? VolumeFault::kNone : VolumeFault::kNotFat32;
}

// One read stands for the 511 small ones that the scan is defined by: a last entry that did not
// arrive whole ends it.
VolumeFault findInfoFile(int fd, const FatBoot& boot, uint32_t* cluster) {
  if (!seekTo(fd, static_cast<int64_t>(boot.dataSector() * kSectorBytes))) {
    return VolumeFault::kDirectorySeek;
  }
  uint8_t entries[kDirEntriesSearched * kDirEntryBytes];
  const ssize_t got = ::read(fd, entries, sizeof entries);
  const size_t whole = got < 0 ? 0 : static_cast<size_t>(got) / kDirEntryBytes;
  for (size_t i = 0; i < whole; ++i) {
    const uint8_t* entry = entries + i * kDirEntryBytes;
    if (!isInfoFileEntry(entry)) continue;
    *cluster = decodeFirstCluster(entry);
    return VolumeFault::kNone;
  }
  return VolumeFault::kNoInfoFile;
}

// The card's length word must be true even for the bytes behind the nine records: a table that
// ends early is not trusted at all.
bool restArrives(int fd, uint32_t length) {
  const std::unique_ptr<uint8_t[]> rest(new (std::nothrow) uint8_t[length]);
  return rest != nullptr && ::read(fd, rest.get(), length) == static_cast<ssize_t>(length);
}

VolumeFault readRecords(int fd, int fileType, ChunkFamily* family) {
  uint8_t head[kInfoHeadBytes];
  const ssize_t got = ::read(fd, head, sizeof head);
  if (got < static_cast<ssize_t>(kInfoLengthBytes)) return VolumeFault::kInfoRead;
  const uint32_t length = getLe32(head);
  if (length < kInfoLengthMin || length > kInfoLengthMax) return VolumeFault::kInfoRead;
  const uint32_t arrived = static_cast<uint32_t>(got) - kInfoLengthBytes;
  if (arrived < length &&
      (got < static_cast<ssize_t>(sizeof head) || !restArrives(fd, length - arrived))) {
    return VolumeFault::kInfoRead;
  }
  const auto record = [&head](int type) {
    return decodeInfoRecord(head + kInfoLengthBytes +
                            static_cast<uint32_t>(type) * kInfoRecordBytes);
  };
  family->own = record(fileType);
  family->streamChunkSize = record(kFileStream).chunkSize;
  family->pictureChunkSize = record(kFilePicture).chunkSize;
  return VolumeFault::kNone;
}

}  // namespace

VolumeFault readChunkFamily(int fd, int fileType, ChunkFamily* family) {
  FatBoot boot;
  VolumeFault fault = readBoot(fd, &boot);
  if (fault != VolumeFault::kNone) return fault;
  uint32_t cluster = 0;
  fault = findInfoFile(fd, boot, &cluster);
  if (fault != VolumeFault::kNone) return fault;
  const int64_t offset = sectorOfCluster(boot, cluster) * int64_t{kSectorBytes};
  if (!seekTo(fd, offset)) return VolumeFault::kInfoSeek;
  return readRecords(fd, fileType, family);
}

}  // namespace tarn
