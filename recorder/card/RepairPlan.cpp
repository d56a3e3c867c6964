#include "recorder/card/RepairPlan.h"

#include <cstring>

#include "base/Endian.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/EntryRepair.h"
#include "recorder/card/FatRepair.h"
#include "recorder/card/FatTables.h"
#include "recorder/card/InfoRepair.h"

namespace tarn {
namespace {

using Bytes = std::vector<uint8_t>;
using From = InfoRepair::From;

constexpr uint16_t kBootSignature = 0xAA55;
constexpr uint8_t kMediaByte = 0xF8;
constexpr uint64_t kBackupByte = uint64_t{kBackupSector} * kSectorBytes;

// What a PC needs of a boot sector beside what readers use.
bool isWholeBoot(const uint8_t* sector) {
  return getLe16(sector + kBootSignatureOff) == kBootSignature &&
         getLe16(sector + kBootSectorBytesOff) == kSectorBytes &&
         getLe16(sector + kBootFsInfoOff) == kFsInfoSector &&
         getLe16(sector + kBootBackupOff) == kBackupSector && sector[kBootMediaOff] == kMediaByte &&
         memcmp(sector + kBootSystemOff, "FAT32   ", 8) == 0;
}

// The backup in the place of a damaged boot sector. What a PC marked in that stays the PC's matter.
Bytes restoredBoot(const uint8_t* damaged, const uint8_t* backup) {
  Bytes sector(backup, backup + kSectorBytes);
  const auto change = static_cast<uint8_t>(damaged[kBootStateOff] ^ backup[kBootStateOff]);
  if ((change & ~kBootStateMarks) == 0) sector[kBootStateOff] = damaged[kBootStateOff];
  return sector;
}

}  // namespace

bool RepairPlan::agrees() const {
  return CardGeometry::verify(card(), path_, GeometryDepth::kWhole).ok();
}

int RepairPlan::run(std::string* error) {
  const GeometryReport found = CardGeometry::verify(card(), path_, GeometryDepth::kWhole);
  *error = found.text;
  if (found.verdict == Delivery::kRefused || !readBoots(error)) return -1;
  if (isUnfinishedSector(boot_)) return -1;
  for (const bool fromBackup : {false, true}) {
    if (startFrom(fromBackup) && tryAll()) {
      mendBootTwin();
      return 0;
    }
  }
  if (isBootUsable(decodeFatBoot(boot_), card().size()) || hasBackup_) {
    *error += "; it is damaged in more places than its second copies can mend";
  }
  return -1;
}

bool RepairPlan::readBoots(std::string* error) {
  if (!card().read(0, boot_, sizeof boot_)) {
    *error = path_ + " cannot be read: the boot sector";
    return false;
  }
  hasBackup_ = card().read(kBackupByte, backup_, sizeof backup_) &&
               isBootUsable(decodeFatBoot(backup_), card().size());
  return true;
}

bool RepairPlan::startFrom(bool fromBackup) {
  steps_.backTo(RepairSteps::Mark());
  if (!fromBackup) {
    map_.boot = decodeFatBoot(boot_);
    return isBootUsable(map_.boot, card().size());
  }
  if (!hasBackup_ || isSameBoot(boot_, backup_)) return false;
  map_.boot = decodeFatBoot(backup_);
  steps_.add("the boot sector is restored from its backup", {{0, restoredBoot(boot_, backup_)}});
  return true;
}

// The ways, the surest first: a good seal goes before the directory's word, and that before an info
// file without a seal.
bool RepairPlan::tryAll() {
  FatTables fat(card(), map_.boot);
  root_ = RootDirectory();
  if (root_.read(card(), map_.boot, &fat) == Delivery::kRefused || root_.entries() == 0) {
    return false;
  }
  using Info = InfoRepair*;
  using Entries = EntryRepair*;
  const auto itself = [](Info info) { return info->take(From::kItself); };
  const auto copy = [](Info info) { return info->take(From::kCopy); };
  const auto behindRoot = [](Info info) { return info->takeBehindRoot(); };
  const Way ways[] = {
      [&](Info info, Entries) { return itself(info); },
      [&](Info info, Entries entries) {
        return itself(info) && map_.seal == InfoSeal::kGood && entries->planEntries();
      },
      [&](Info info, Entries) { return copy(info); },
      [&](Info info, Entries entries) { return copy(info) && entries->planEntries(); },
      [](Info info, Entries) { return info->take(From::kDirectory); },
      [&](Info info, Entries entries) { return itself(info) && entries->planEntries(); },
      [&](Info info, Entries entries) { return behindRoot(info) && entries->planEntries(); },
      [&](Info info, Entries entries) { return copy(info) && entries->planLostSectors(); },
      [&](Info info, Entries entries) { return behindRoot(info) && entries->planLostSectors(); },
  };
  for (const Way& way : ways) {
    if (attempt(way)) return true;
  }
  return false;
}

bool RepairPlan::attempt(const Way& way) {
  const RepairSteps::Mark before = steps_.mark();
  InfoRepair info(&root_, &map_, &steps_);
  EntryRepair entries(root_, map_, &steps_);
  if (way(&info, &entries) && info.plan()) {
    FatRepair(map_, &steps_).plan();
    if (agrees()) {
      info.planCopy();
      return true;
    }
  }
  steps_.backTo(before);
  return false;
}

// When all the rest agrees. What a PC marked in the first is no difference, and does not get into
// the backup.
void RepairPlan::mendBootTwin() {
  uint8_t now[kSectorBytes];
  uint8_t copy[kSectorBytes];
  if (!card().read(0, now, sizeof now) || !card().read(kBackupByte, copy, sizeof copy) ||
      isSameBoot(now, copy)) {
    return;
  }
  const RepairSteps::Mark before = steps_.mark();
  if (isWholeBoot(now)) {
    now[kBootStateOff] = static_cast<uint8_t>(now[kBootStateOff] & ~kBootStateMarks);
    steps_.add("the backup of the boot sector is made the same as the boot sector",
               {{kBackupByte, Bytes(now, now + sizeof now)}});
  } else if (isWholeBoot(copy)) {
    steps_.add("the boot sector is restored from its backup", {{0, restoredBoot(now, copy)}});
    if (!agrees()) steps_.backTo(before);
  }
}

}  // namespace tarn
