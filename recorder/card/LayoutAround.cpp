#include <algorithm>

#include "fat/FatFormat.h"
#include "recorder/card/CardLayout.h"
#include "recorder/card/FamilyRules.h"
#include "recorder/card/NoThrow.h"

// A layout around chunk files whose places are told already. The rest of the volume that they come
// from is not known, and does not matter: chunks are found by their places alone.
namespace tarn {
namespace {

constexpr uint32_t kMostClusterBytes = 65536;
constexpr uint32_t kMostReserved = 0xFFFF;
constexpr uint32_t kLeastReserved = 32;

// Whether clusters of that size, counted from `from` on, hold every chunk by itself.
bool dividesAll(const CardFamilies& families, uint64_t from, uint32_t clusterBytes) {
  return std::all_of(families.begin(), families.end(), [&](const CardFamily& family) {
    return family.chunkSize % clusterBytes == 0 && (family.startByte() - from) % clusterBytes == 0;
  });
}

uint64_t roundUp(uint64_t value, uint64_t unit) { return (value + unit - 1) / unit * unit; }

}  // namespace

int CardLayout::planAround(const std::array<CardFamily, kFileTypeCount>& families,
                           std::string* error) {
  return orNoMemory(
      "CardLayout",
      [&]() -> int {
        *this = CardLayout();
        families_ = families;
        const FamilyFault fault = judgeFamilies(families_);
        if (!fault.text.empty()) {
          *error = fault.text;
          return -1;
        }
        // The largest clusters that make enough of them for FAT32, on a small card the smallest.
        uint32_t fitting = 0;
        for (uint32_t bytes = kMostClusterBytes; bytes >= kSectorBytes; bytes /= 2) {
          if (!aroundWith(bytes)) continue;
          if (clusters_ >= kMinClusters) return 0;
          fitting = bytes;
        }
        if (fitting != 0 && aroundWith(fitting)) return 0;
        *error = "the info file leaves no room in front of its chunk files for what leads to them";
        return -1;
      },
      [&]() -> int { return memoryOut(error); });
}

// Root directory right in front of the first chunk, the FATs in front of that.
bool CardLayout::aroundWith(uint32_t clusterBytes) {
  uint64_t first = families_[0].startByte();
  endByte_ = 0;
  rootEntries_ = 1;  // the volume label
  for (const CardFamily& family : families_) {
    first = std::min(first, family.startByte());
    endByte_ = std::max(endByte_, family.startByte() + family.bytes());
    rootEntries_ += entriesOf(family.chunks);
  }
  clusterBytes_ = clusterBytes;
  rootBytes_ = roundUp((uint64_t{rootEntries_} + 1) * kDirEntryBytes, clusterBytes);
  if (first < rootBytes_ || endByte_ / kSectorBytes > 0xFFFFFFFF) return false;
  const uint64_t data = first - rootBytes_;
  if (!dividesAll(families_, data, clusterBytes)) return false;
  totalSectors_ = static_cast<uint32_t>(endByte_ / kSectorBytes);
  clusters_ = static_cast<uint32_t>((endByte_ - data) / clusterBytes);
  const uint64_t sectors = data / kSectorBytes;
  uint64_t fat = roundUp((uint64_t{clusters_} + 2) * 4, kSectorBytes) / kSectorBytes;
  if (sectors > 2 * fat + kMostReserved) fat = (sectors - kMostReserved + 1) / 2;
  if (sectors < 2 * fat + kLeastReserved) return false;
  fatSectors_ = static_cast<uint32_t>(fat);
  reservedSectors_ = static_cast<uint32_t>(sectors - 2 * fat);
  return true;
}

}  // namespace tarn
