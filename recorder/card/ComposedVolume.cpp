#include "recorder/card/ComposedVolume.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "recorder/card/CardMap.h"
#include "recorder/card/CardText.h"
#include "recorder/card/NoThrow.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {
namespace {

constexpr uint32_t kFatEntryBytes = 4;
constexpr uint32_t kReservedInUse = kInfoCopySector + kInfoCopySectors;
constexpr uint32_t kVolumeId = 0;  // the card's own is not in any of its files

int fail(std::string* error, const std::string& text) {
  *error = text;
  return -1;
}

}  // namespace

int ComposedVolume::compose(const uint8_t* infoFile, size_t length, std::string* error) {
  return orNoMemory(
      "ComposedVolume",
      [&]() -> int {
        if (length < kInfoSealedBytes) {
          return fail(error, "TAIF0000 has " + sizeText(length) + ", too few for an info file");
        }
        CardMap map;
        decodeInfoFile(infoFile, &map);
        if (map.infoLength < kInfoLengthMin || map.infoLength > kInfoLengthMax) {
          return fail(error, "TAIF0000 is no info file: it gives its length as " +
                                 std::to_string(map.infoLength));
        }
        if (map.seal == InfoSeal::kBad)
          return fail(error, "TAIF0000 is damaged: its seal is wrong");
        if (layout_.planAround(map.families, error) != 0) return -1;
        reserved_.assign(size_t{kReservedInUse} * kSectorBytes, 0);
        for (const uint32_t start : {0u, kBackupSector}) {
          uint8_t* sectors = reserved_.data() + size_t{start} * kSectorBytes;
          encodeBootSector(layout_, kVolumeId, sectors);
          encodeFsInfo(layout_, 0, sectors + size_t{kFsInfoSector} * kSectorBytes);
        }
        if (map.seal == InfoSeal::kGood) {
          memcpy(reserved_.data() + size_t{kInfoCopySector} * kSectorBytes, infoFile,
                 kInfoSealedBytes);
        }
        root_.resize(static_cast<size_t>(layout_.rootBytes()));
        encodeRootDirectory(layout_, 0, root_.data());
        return 0;
      },
      [&]() -> int { return memoryOut(error); });
}

void ComposedVolume::readFront(uint64_t offset, uint8_t* out, size_t length) const {
  const uint64_t fats = uint64_t{layout_.reservedSectors()} * kSectorBytes;
  while (length > 0) {
    uint64_t end = frontBytes();
    if (offset < reserved_.size()) {
      end = reserved_.size();
    } else if (offset < fats) {
      end = fats;
    } else if (offset < layout_.dataByte()) {
      end = layout_.dataByte();
    }
    const auto piece = static_cast<size_t>(std::min<uint64_t>(length, end - offset));
    if (offset < reserved_.size()) {
      memcpy(out, reserved_.data() + offset, piece);
    } else if (offset < fats) {
      memset(out, 0, piece);
    } else if (offset < layout_.dataByte()) {
      readFat(offset - fats, out, piece);
    } else {
      memcpy(out, root_.data() + (offset - layout_.dataByte()), piece);
    }
    offset += piece;
    out += piece;
    length -= piece;
  }
}

// Both FATs are the same. Entries are made where they are asked for: those of a large card take
// more memory than anything else of it.
void ComposedVolume::readFat(uint64_t offset, uint8_t* out, size_t length) const {
  const uint64_t fatBytes = uint64_t{layout_.fatSectors()} * kSectorBytes;
  std::vector<uint8_t> entries;
  while (length > 0) {
    const uint64_t at = offset % fatBytes;
    const auto piece = static_cast<size_t>(std::min<uint64_t>(length, fatBytes - at));
    const uint64_t first = at / kFatEntryBytes;
    const uint64_t last = (at + piece - 1) / kFatEntryBytes;
    entries.resize(static_cast<size_t>(last - first + 1) * kFatEntryBytes);
    encodeFat(layout_, static_cast<uint32_t>(first), static_cast<uint32_t>(last - first + 1),
              entries.data());
    memcpy(out, entries.data() + at % kFatEntryBytes, piece);
    offset += piece;
    out += piece;
    length -= piece;
  }
}

bool ComposedVolume::chunkAt(uint64_t byte, int* type, uint32_t* chunk) const {
  for (*type = 0; *type < kFileTypeCount; ++*type) {
    const CardFamily& family = layout_.family(*type);
    if (byte < family.startByte() || byte >= family.startByte() + family.bytes()) continue;
    *chunk = static_cast<uint32_t>((byte - family.startByte()) / family.chunkSize);
    return true;
  }
  return false;
}

bool isChunkFileName(const std::string& name, int* type, uint32_t* chunk) {
  return orNoMemory(
      "ComposedVolume",
      [&] {
        std::string upper = name;
        for (char& c : upper) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        return parseChunkFile(upper, type, chunk);
      },
      [] { return false; });
}

std::string nameOfChunkFile(int type, uint32_t chunk) { return chunkFileTitle(type, chunk); }

}  // namespace tarn
