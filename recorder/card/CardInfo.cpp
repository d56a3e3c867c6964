#include "recorder/card/CardInfo.h"

#include "base/Endian.h"
#include "base/Wrap.h"
#include "fat/FatFormat.h"
#include "manager/ManageFormat.h"
#include "recorder/card/CardBytes.h"
#include "recorder/card/CardMap.h"
#include "recorder/card/FamilyRules.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr int kManageTypes[] = {kFileStreamManage, kFileSyslogManage, kFileJournalManage};

bool fail(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

size_t slotOf(int manageType) {
  if (manageType == kFileStreamManage) return 0;
  return manageType == kFileSyslogManage ? 1 : 2;
}

std::string labelText(const uint8_t* bytes) {
  std::string label(reinterpret_cast<const char*>(bytes), kLabelBytes);
  label.erase(label.find_last_not_of(' ') + 1);
  for (char& c : label) {
    if (static_cast<uint8_t>(c) < 0x20 || static_cast<uint8_t>(c) > 0x7E) c = '?';
  }
  return label;
}

}  // namespace

int CardInfo::read(const std::string& path, std::string* error) {
  return orNoMemory(
      "CardInfo",
      [&]() -> int {
        *this = CardInfo();
        CardBytes card;
        if (card.open(path, error) != 0) return -1;
        std::string reason;
        CardMap map;
        const bool good = readVolume(card, &map, &reason) && readInfoFile(card, &map, &reason) &&
                          checkFamilies(map, &reason) && readManagement(card, &reason);
        if (!good) *error = path + ": " + reason;
        return good ? 0 : -1;
      },
      [&]() -> int { return memoryOut(error); });
}

bool CardInfo::readVolume(const CardBytes& card, CardMap* map, std::string* error) {
  deviceBytes_ = card.size();
  uint8_t sector[kSectorBytes];
  if (!card.read(0, sector, sizeof sector)) return fail(error, "the boot sector cannot be read");
  if (isUnfinishedSector(sector)) {
    return fail(error, "formatting was interrupted; format the card again");
  }
  map->boot = decodeFatBoot(sector);
  // Only what the recorder's own readers use must be right; a total of 0 is no word about it.
  const uint64_t total = getLe32(sector + kBootTotalSectorsOff);
  const uint64_t sectors = total != 0 ? total : deviceBytes_ / kSectorBytes;
  volumeBytes_ = sectors * kSectorBytes;
  if (!isBootUsable(map->boot, volumeBytes_)) {
    return fail(error, "not a FAT32 volume, so not a card of the recorder");
  }
  volumeId_ = getLe32(sector + kBootVolumeIdOff);
  label_ = labelText(sector + kBootLabelOff);
  clusterBytes_ = static_cast<uint32_t>(map->clusterBytes());
  clusters_ = static_cast<uint32_t>((sectors - map->boot.dataSector()) / map->boot.clusterSectors);
  return true;
}

bool CardInfo::readInfoFile(const CardBytes& card, CardMap* map, std::string* error) {
  const Delivery found = findInfoFile(card, map);
  if (found == Delivery::kRefused) return fail(error, "the root directory cannot be read");
  if (found == Delivery::kBad) {
    return fail(error, map->infoByte == -1
                           ? "a FAT32 volume, but not a card of the recorder: no TAIF0000"
                           : "the info file TAIF0000 does not lie on the card");
  }
  uint8_t file[kInfoSealedBytes];
  if (!card.read(static_cast<uint64_t>(map->infoByte), file, sizeof file)) {
    return fail(error, "the info file TAIF0000 cannot be read");
  }
  decodeInfoFile(file, map);
  if (map->infoLength < kInfoLengthMin || map->infoLength > kInfoLengthMax) {
    return fail(error, "the info file TAIF0000 is damaged, or formatting was interrupted");
  }
  families_ = map->families;
  return true;
}

// As everybody else judges them, so that nothing is shown of a card that nobody would use.
bool CardInfo::checkFamilies(const CardMap& map, std::string* error) const {
  const FamilyFault sizes = judgeFamilies(families_);
  if (!sizes.text.empty()) return fail(error, sizes.text);
  const FamilyFault places = judgePlaces(families_, map.dataByte(), deviceBytes_);
  if (places.text.empty()) return true;
  return fail(
      error, places.text + (places.cutShort ? ": it is damaged or only a part of it is here" : ""));
}

bool CardInfo::readManagement(const CardBytes& card, std::string* error) {
  for (int type : kManageTypes) readCopies(card, type);
  uint8_t size[4];
  if (!card.read(family(kFileDbImage).startByte(), size, sizeof size)) {
    return fail(error, "the database image cannot be read");
  }
  dbImageBytes_ = asSigned32(getLe32(size));
  return true;
}

void CardInfo::readCopies(const CardBytes& card, int type) {
  const uint32_t chunks = family(managedBy(type)).chunks;
  std::vector<uint8_t> copies[2];
  bool good[2];
  for (const int i : {kManageMainCopy, kManageBackupCopy}) {
    copies[i].resize(manageDataSize(chunks));
    const uint64_t at =
        family(type).startByte() + static_cast<uint64_t>(i) * family(type).chunkSize;
    good[i] = card.read(at, copies[i].data(), copies[i].size()) &&
              manageDataIsValid(copies[i].data(), chunks);
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
  if (!good[0] && !good[1]) return;
  const std::vector<uint8_t>& best = good[0] ? copies[0] : copies[1];
  for (uint32_t i = 0; i < chunks; ++i) {
    management.records.push_back(decodeManageRecord(best.data() + size_t{i} * kManageRecordSize));
  }
}

const CardManagement& CardInfo::management(int manageType) const {
  return management_[slotOf(manageType)];
}

uint32_t CardInfo::streamChunksInUse() const {
  uint32_t used = 0;
  for (const CHUNK_MANAGE& record : management(kFileStreamManage).records) {
    if (record.chType != kChannelUnused) ++used;
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
