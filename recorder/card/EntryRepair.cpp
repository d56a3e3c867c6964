#include "recorder/card/EntryRepair.h"

#include <cstring>
#include <utility>
#include <vector>

#include "base/Endian.h"
#include "recorder/card/DirectoryRepair.h"

namespace tarn {

bool EntryRepair::planEntries() {
  for (int type = 0; type < kFileTypeCount; ++type) {
    const CardFamily& family = map_.families[static_cast<size_t>(type)];
    if (family.chunks > CardLayout::kMaxChunks || family.chunkSize == 0) return false;
    const uint32_t chunks = type == kFileInfo ? 1 : family.chunks;
    for (uint32_t chunk = 0; chunk < chunks; ++chunk) {
      const uint64_t byte =
          type == kFileInfo ? static_cast<uint64_t>(map_.infoByte) : map_.chunkByte(type, chunk);
      if (byte < map_.dataByte() ||
          !mendEntry(chunkFileTitle(type, chunk), map_.clusterOfByte(byte), family.chunkSize)) {
        return false;
      }
    }
  }
  return true;
}

bool EntryRepair::planLostSectors() {
  CardRepair::Changes sectors = lostDirectorySectors(steps_->card(), map_);
  if (sectors.empty()) return false;
  const size_t count = sectors.size();
  steps_->add("the root directory gets " + std::to_string(count) +
                  (count == 1 ? " sector" : " sectors") + " of entries anew, from the info file",
              std::move(sectors));
  return true;
}

bool EntryRepair::mendEntry(const std::string& name, uint32_t cluster, uint32_t size) {
  const DirectoryFile* named = nullptr;
  const bool isInfo = name == kInfoFileName;
  for (const DirectoryFile& file : root_.files()) {
    if (file.name != name) continue;
    // Nobody asks for the info file's size.
    if (file.cluster == cluster && (file.size == size || isInfo)) return true;
    named = &file;
  }
  if (named != nullptr) {
    return changeEntry(named->entry, name, cluster, size, false);
  }
  return name.size() == kDirNameBytes && renameEntry(name, cluster, size);
}

bool EntryRepair::renameEntry(const std::string& name, uint32_t cluster, uint32_t size) {
  for (uint32_t i = 0; i < root_.entries(); ++i) {
    const uint8_t* entry = root_.bytes().data() + size_t{i} * kDirEntryBytes;
    const uint32_t found =
        (uint32_t{getLe16(entry + kDirClusterHighOff)} << 16) | getLe16(entry + kDirClusterLowOff);
    if (found == cluster && getLe32(entry + kDirSizeOff) == size) {
      return changeEntry(i, name, cluster, size, true);
    }
  }
  return false;
}

bool EntryRepair::changeEntry(uint32_t index, const std::string& name, uint32_t cluster,
                              uint32_t size, bool rename) {
  const uint8_t* entry = root_.bytes().data() + size_t{index} * kDirEntryBytes;
  std::vector<uint8_t> changed(entry, entry + kDirEntryBytes);
  if (rename) {
    memcpy(changed.data(), name.data(), kDirNameBytes);
    changed[kDirAttributeOff] = kDirArchive;
  }
  encodeFirstCluster(cluster, changed.data());
  putLe32(changed.data() + kDirSizeOff, size);
  steps_->add("the directory entry of " + name + " is set to what the info file says",
              {{root_.entryByte(index), changed}});
  return true;
}

}  // namespace tarn
