#include "recorder/card/DirectoryRepair.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "base/Endian.h"
#include "recorder/card/CardLayout.h"
#include "recorder/card/CardReadme.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {
namespace {

using Bytes = std::vector<uint8_t>;

// Times of an entry; they say nothing of what it leads to.
struct Range {
  uint32_t from;
  uint32_t to;
};
constexpr Range kTimes[] = {{13, 20}, {22, 26}};
constexpr uint8_t kLabelAttribute = 0x08;

bool isSameEntry(const uint8_t* one, const uint8_t* other) {
  uint8_t a[kDirEntryBytes];
  uint8_t b[kDirEntryBytes];
  memcpy(a, one, sizeof a);
  memcpy(b, other, sizeof b);
  // Byte 13 of a piece of a long name is the check of its short one.
  if (a[kDirAttributeOff] == kDirArchive && b[kDirAttributeOff] == kDirArchive) {
    for (const Range& times : kTimes) {
      memset(a + times.from, 0, times.to - times.from);
      memset(b + times.from, 0, times.to - times.from);
    }
  }
  return memcmp(a, b, sizeof a) == 0;
}

// The label and what lies behind our entries is not asked for.
bool isOurs(const uint8_t* wanted) {
  return wanted[0] != 0 && wanted[kDirAttributeOff] != kLabelAttribute;
}

enum class Sector { kSame, kLost, kNotOurs };

Sector judge(const uint8_t* present, const uint8_t* wanted) {
  Sector result = Sector::kNotOurs;
  for (uint32_t at = 0; at < kSectorBytes; at += kDirEntryBytes) {
    if (!isOurs(wanted + at)) continue;
    if (!isSameEntry(present + at, wanted + at)) return Sector::kLost;
    result = Sector::kSame;
  }
  return result;
}

// The layout that the info file and the boot sector tell of, if it is one of ours.
bool isOurLayout(const CardBytes& card, const CardMap& map, CardLayout* layout) {
  uint8_t boot[kSectorBytes];
  if (!card.read(0, boot, sizeof boot)) return false;
  CardRequest request;
  request.sizeBytes = uint64_t{getLe32(boot + kBootTotalSectorsOff)} * kSectorBytes;
  request.clusterBytes = static_cast<uint32_t>(map.clusterBytes());
  for (size_t type = 0; type < map.families.size(); ++type)
    request.families[type] = {map.families[type].chunkSize, map.families[type].chunks};
  std::string error;
  if (layout->plan(request, &error) != 0 || layout->dataByte() != map.dataByte()) return false;
  for (int type = 0; type < kFileTypeCount; ++type) {
    if (layout->family(type).startSector != map.families[static_cast<size_t>(type)].startSector)
      return false;
  }
  return true;
}

void copyTimes(const uint8_t* from, uint8_t* to) {
  const bool label = to[kDirAttributeOff] == kLabelAttribute;
  if (to[0] == 0 || (!label && to[kDirAttributeOff] != kDirArchive)) return;
  for (const Range& times : kTimes) {
    // A label has the time of its writing alone.
    if (label && times.from != kTimes[1].from) continue;
    memcpy(to + times.from, from + times.from, times.to - times.from);
  }
}

// A file or folder of a PC's, a piece of a long name, or nothing; noise hardly ever.
bool isForeignEntry(const uint8_t* entry) {
  constexpr uint8_t kLongName = 0x0F;
  constexpr uint8_t kNoAttributes = 0xC0;
  constexpr uint8_t kCase = 0x18;  // of a short name, in byte 12
  if (entry[0] == 0)
    return std::all_of(entry, entry + kDirEntryBytes, [](uint8_t b) { return !b; });
  if (entry[kDirAttributeOff] == kLongName) return entry[12] == 0 && getLe16(entry + 26) == 0;
  return (entry[kDirAttributeOff] & kNoAttributes) == 0 && (entry[12] & ~kCase) == 0 &&
         std::all_of(entry, entry + 11, [](uint8_t byte) { return byte >= ' '; });
}

// What a PC added where the formatter left room stays, unless that is damaged as well.
void keepForeign(const uint8_t* present, const uint8_t* wanted, Bytes* sector) {
  for (uint32_t at = 0; at < kSectorBytes; at += kDirEntryBytes) {
    if (wanted[at] == 0 && !isForeignEntry(present + at)) return;
  }
  for (uint32_t at = 0; at < kSectorBytes; at += kDirEntryBytes) {
    if (wanted[at] == 0) memcpy(sector->data() + at, present + at, kDirEntryBytes);
  }
}

// The formatter stamps all entries with one time: that of any entry that is left.
void takeTimes(const Bytes& present, const Bytes& wanted, Bytes* sector) {
  for (size_t at = 0; at < wanted.size(); at += kDirEntryBytes) {
    const uint8_t* entry = present.data() + at;
    if (wanted[at] == 0 || wanted[at + kDirAttributeOff] != kDirArchive ||
        !isSameEntry(entry, wanted.data() + at)) {
      continue;
    }
    for (size_t to = 0; to < sector->size(); to += kDirEntryBytes)
      copyTimes(entry, sector->data() + to);
    return;
  }
}

// Whether a card has its readme: the text, and clusters that are not free. One that somebody
// deleted stays deleted.
bool hasReadme(const CardBytes& card, const CardLayout& layout) {
  const ReadmePlace place = placeOfReadme(layout);
  Bytes text(readmeText().size());
  uint8_t entry[4] = {};
  const uint64_t fat = uint64_t{layout.reservedSectors()} * kSectorBytes;
  return place.byte != 0 && card.read(place.byte, text.data(), text.size()) &&
         std::equal(text.begin(), text.end(), readmeText().begin(),
                    [](uint8_t a, char b) { return a == static_cast<uint8_t>(b); }) &&
         card.read(fat + uint64_t{layout.clusterOfByte(place.byte)} * 4, entry, sizeof entry) &&
         (getLe32(entry) & kFatEntryMask) != 0;
}

}  // namespace

std::map<uint64_t, Bytes> lostDirectorySectors(const CardBytes& card, const CardMap& map) {
  CardLayout layout;
  if (!isOurLayout(card, map, &layout)) return {};
  Bytes wanted(static_cast<size_t>(layout.rootBytes()));
  Bytes present(wanted.size());
  encodeRootDirectory(layout, 0, wanted.data());
  if (hasReadme(card, layout)) enterReadme(layout, 0, wanted.data());
  if (!card.read(layout.dataByte(), present.data(), present.size())) return {};
  std::map<uint64_t, Bytes> lost;
  size_t same = 0;
  for (size_t at = 0; at < wanted.size(); at += kSectorBytes) {
    const Sector sector = judge(present.data() + at, wanted.data() + at);
    if (sector == Sector::kSame) ++same;
    if (sector != Sector::kLost) continue;
    Bytes bytes(wanted.begin() + static_cast<std::ptrdiff_t>(at),
                wanted.begin() + static_cast<std::ptrdiff_t>(at + kSectorBytes));
    takeTimes(present, wanted, &bytes);
    keepForeign(present.data() + at, wanted.data() + at, &bytes);
    lost[layout.dataByte() + at] = bytes;
  }
  if (lost.size() > same) lost.clear();
  return lost;
}

}  // namespace tarn
