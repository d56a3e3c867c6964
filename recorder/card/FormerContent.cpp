#include "recorder/card/FormerContent.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "fat/FatFormat.h"
#include "recorder/card/DeviceIo.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {
namespace {

// Where other file systems and partition tables leave their marks.
constexpr size_t kForeignBytes = 128 * 1024;

bool allZero(const std::vector<uint8_t>& bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

// As many bytes as there are, up to `size`; the rest is zeros. False when the device refuses, also
// when it is asked again.
bool readWhole(int fd, uint64_t offset, std::vector<uint8_t>* out, size_t size) {
  constexpr int kTries = 3;
  out->assign(size, 0);
  for (int tries = 0; tries < kTries; ++tries) {
    if (readUpTo(fd, offset, out->data(), size) >= 0) return true;
  }
  return false;
}

// By the info file, which is looked for in the root directory. Its first sector is the last thing
// that a format writes.
FormerContent finishedOrNot(int fd, const uint8_t* sector, bool ours) {
  const FormerContent other = ours ? FormerContent::kCard : FormerContent::kForeign;
  const FatBoot boot = decodeFatBoot(sector);
  if (boot.fat16Size != 0 || boot.fat32Size == 0) return other;
  std::vector<uint8_t> bytes;
  const size_t size = size_t{kDirEntriesSearched} * kDirEntryBytes;
  if (!readWhole(fd, boot.dataSector() * kSectorBytes, &bytes, size))
    return FormerContent::kUnreadable;
  const uint8_t* entry = bytes.data();
  const uint8_t* const end = entry + size;
  while (entry < end && !isInfoFileEntry(entry)) entry += kDirEntryBytes;
  if (entry == end) return other;
  const int64_t info = sectorOfCluster(boot, decodeFirstCluster(entry));
  if (!ours || info < 0) return FormerContent::kCard;
  if (!readWhole(fd, static_cast<uint64_t>(info) * kSectorBytes, &bytes, kSectorBytes)) {
    return FormerContent::kUnreadable;
  }
  return allZero(bytes) ? FormerContent::kNothing : FormerContent::kCard;
}

}  // namespace

FormerContent whatIsOn(int fd) {
  std::vector<uint8_t> head;
  if (!readWhole(fd, 0, &head, kForeignBytes)) return FormerContent::kUnreadable;
  if (allZero(head) || isUnfinishedSector(head.data())) return FormerContent::kNothing;
  const bool ours = memcmp(head.data() + kBootOemOff, kOemName, sizeof kOemName - 1) == 0;
  return finishedOrNot(fd, head.data(), ours);
}

}  // namespace tarn
