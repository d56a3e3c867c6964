#include "recorder/card/InfoRepair.h"

#include <algorithm>
#include <cstring>

#include "base/Endian.h"

namespace tarn {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t kInfoCopyByte = uint64_t{kInfoCopySector} * kSectorBytes;

}  // namespace

bool InfoRepair::take(From from) {
  from_ = from;
  file_.assign(kInfoSealedBytes, 0);
  if (from == From::kCopy) return takeCopy();
  const FatBoot boot = map_->boot;
  *map_ = CardMap();
  map_->boot = boot;
  if (findInfoFile(steps_->card(), map_) != Delivery::kGood) return false;
  if (from == From::kDirectory) return makeFromDirectory();
  return takeFileAt(static_cast<uint64_t>(map_->infoByte)) && map_->seal != InfoSeal::kBad;
}

bool InfoRepair::takeFileAt(uint64_t byte) {
  file_.assign(kInfoSealedBytes, 0);
  if (!steps_->card().read(byte, file_.data(), file_.size())) return false;
  decodeInfoFile(file_.data(), map_);
  return map_->infoLength >= kInfoLengthMin && map_->infoLength <= kInfoLengthMax;
}

bool InfoRepair::takeCopy() {
  if (!hasRoomForInfoCopy(map_->boot.reservedSectors) || !takeFileAt(kInfoCopyByte)) return false;
  map_->infoByte = static_cast<int64_t>(map_->families[kFileInfo].startByte());
  return map_->seal == InfoSeal::kGood;
}

// Where our formatter puts it; for an entry that leads elsewhere on a card without a copy.
bool InfoRepair::takeBehindRoot() {
  from_ = From::kItself;
  constexpr uint64_t kAlign = CardLayout::kAlignBytes;
  const uint64_t behind = map_->dataByte() + root_->leadingBytes();
  map_->infoByte = static_cast<int64_t>((behind + kAlign - 1) / kAlign * kAlign);
  return takeFileAt(static_cast<uint64_t>(map_->infoByte)) && map_->seal != InfoSeal::kBad;
}

bool InfoRepair::makeFromDirectory() {
  std::vector<const DirectoryFile*> files[kFileTypeCount];
  for (const DirectoryFile& file : root_->files()) {
    int type = 0;
    uint32_t chunk = 0;
    if (!parseChunkFile(file.name, &type, &chunk)) continue;
    if (files[type].size() <= chunk) files[type].resize(chunk + 1, nullptr);
    if (files[type][chunk] != nullptr) return false;
    files[type][chunk] = &file;
  }
  putLe32(file_.data(), kInfoLengthMin);
  for (int type = 0; type < kFileTypeCount; ++type) {
    if (!familyFromFiles(type, files[type])) return false;
  }
  sealInfoFile(file_.data());
  decodeInfoFile(file_.data(), map_);
  return true;
}

// All numbers from 0 on, of one size, back to back.
bool InfoRepair::familyFromFiles(int type, const std::vector<const DirectoryFile*>& files) {
  if (files.empty() || files[0] == nullptr) return false;
  const uint32_t size = files[0]->size;
  const int64_t start = map_->byteOfCluster(files[0]->cluster);
  if (size == 0 || start < 0) return false;
  for (size_t chunk = 0; chunk < files.size(); ++chunk) {
    if (files[chunk] == nullptr || files[chunk]->size != size) return false;
    const int64_t place = start + static_cast<int64_t>(uint64_t{size} * chunk);
    if (map_->byteOfCluster(files[chunk]->cluster) != place) return false;
  }
  uint8_t* record =
      file_.data() + kInfoLengthBytes + static_cast<uint32_t>(type) * kInfoRecordBytes;
  memcpy(record, chunkFileTitle(type, 0).c_str(), kDirNameBytes);
  encodeInfoRecord({size, static_cast<uint32_t>(files.size()),
                    static_cast<uint32_t>(static_cast<uint64_t>(start) / kSectorBytes)},
                   record);
  return true;
}

// The info file where it belongs, unless it was taken from there.
bool InfoRepair::plan() {
  if (from_ == From::kItself) return true;
  const auto place = static_cast<uint64_t>(map_->infoByte);
  Bytes present(kInfoSealedBytes);
  if (map_->infoByte < 0 || !steps_->card().read(place, present.data(), present.size()))
    return false;
  if (present == file_) return true;
  steps_->add(from_ == From::kCopy
                  ? "the info file TAIF0000 is restored from its second copy"
                  : "the info file TAIF0000 is made anew from the root directory and the FATs",
              {{place, file_}});
  return true;
}

// Only for a sealed info file, and only over a copy or nothing.
void InfoRepair::planCopy() {
  Bytes present(kInfoSealedBytes);
  if (judgeInfoSeal(file_.data()) != InfoSeal::kGood ||
      !hasRoomForInfoCopy(map_->boot.reservedSectors) ||
      !steps_->card().read(kInfoCopyByte, present.data(), present.size()) || present == file_) {
    return;
  }
  const bool empty =
      std::all_of(present.begin(), present.end(), [](uint8_t byte) { return byte == 0; });
  if (!empty && judgeInfoSeal(present.data()) == InfoSeal::kNone) return;
  steps_->add("the info file's second copy is made the same as the first",
              {{kInfoCopyByte, file_}});
}

}  // namespace tarn
