#include "recorder/ManageFileRepair.h"

#include <fcntl.h>

#include <algorithm>

#include "base/Wrap.h"
#include "fat/CFATAccess.h"
#include "manager/ManageFormat.h"

namespace tarn {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int8_t kSyslogChunks = 5;  // take turns in being written; chunk 0's chType tells which

// One management file, open.
class ManageFile {
 public:
  ManageFile(FileType chunkType, uint32_t chunks)
      : chunkType_(chunkType), chunks_(chunks), length_(manageDataSize(chunks)) {}

  bool open() {
    for (const int copy : {kManageMainCopy, kManageBackupCopy}) {
      char name[kChunkFileNameRoom];
      handle_[copy] = fat_.open(manageFileName(kindSuffix(chunkType_), copy, name), O_RDWR);
      if (handle_[copy] == -1 || low32(fat_.getChunkSize(handle_[copy])) < length_) return false;
    }
    return true;
  }

  // Empty when the copy is not good.
  Bytes read(int copy) {
    Bytes bytes(length_);
    const bool good =
        fat_.lseek(handle_[copy], 0, SEEK_SET) >= 0 &&
        fat_.read(handle_[copy], bytes.data(), length_) == static_cast<long>(length_) &&
        manageDataIsValid(bytes.data(), chunks_);
    return good ? bytes : Bytes();
  }

  bool write(int copy, const Bytes& bytes) {
    return fat_.lseek(handle_[copy], 0, SEEK_SET) >= 0 &&
           fat_.write(handle_[copy], bytes.data(), length_) == static_cast<long>(length_) &&
           fat_.fsync(handle_[copy]) == 0;
  }

  Bytes defaults() const {
    Bytes bytes(length_);
    CHUNK_MANAGE record = {};
    if (chunkType_ == kFileStream) record.chType = kChannelUnused;
    for (uint32_t chunk = 0; chunk < chunks_; ++chunk) encode(record, chunk, &bytes);
    sealManageData(bytes.data(), chunks_);
    return bytes;
  }

  // A system log whose active chunk does not exist could never be written again.
  bool correct(Bytes* bytes) const {
    if (chunkType_ != kFileSyslog || chunks_ == 0) return false;
    CHUNK_MANAGE first = decodeManageRecord(bytes->data());
    const auto limit = static_cast<int8_t>(std::min<uint32_t>(chunks_, kSyslogChunks));
    if (first.chType >= 0 && first.chType < limit) return false;
    first.chType = 0;
    encode(first, 0, bytes);
    sealManageData(bytes->data(), chunks_);
    return true;
  }

  std::vector<CHUNK_MANAGE> records(const Bytes& bytes) const {
    std::vector<CHUNK_MANAGE> list;
    list.reserve(chunks_);
    for (uint32_t chunk = 0; chunk < chunks_; ++chunk) {
      list.push_back(decodeManageRecord(bytes.data() + size_t{chunk} * kManageRecordSize));
    }
    return list;
  }

 private:
  static void encode(const CHUNK_MANAGE& record, uint32_t chunk, Bytes* bytes) {
    encodeManageRecord(record, bytes->data() + size_t{chunk} * kManageRecordSize);
  }

  const FileType chunkType_;
  const uint32_t chunks_;
  const uint32_t length_;
  CFATAccess fat_;
  int handle_[2] = {-1, -1};
};

// Chunks of a family; -1 when the card does not say.
int chunksOf(FileType chunkType) {
  CFATAccess fat;
  char name[kChunkFileNameRoom];
  const int handle =
      fat.open(chunkFileName(kRecorderPartition, fileTag(chunkType), 0, name), O_RDONLY);
  return handle == -1 ? -1 : int{fat.chunks(handle)};
}

// A save writes the backup first, so two good but different copies mean that power went between
// the two, and the backup is the newer one. The main copy is taken all the same: nobody has acted
// on a save that did not return (a row is inserted behind the claim of its chunk, a line of log
// behind the change of its chunk), and everything but claims is rebuilt from rows and text anyway.
ManageRepair judge(const Bytes& main, const Bytes& backup) {
  if (main.empty() && backup.empty()) return ManageRepair::kDefaults;
  if (main.empty()) return ManageRepair::kMainCopied;
  return main == backup ? ManageRepair::kGood : ManageRepair::kBackupCopied;
}

}  // namespace

ManageRepair repairManageFile(FileType chunkType, std::vector<CHUNK_MANAGE>* records) {
  const int chunks = chunksOf(chunkType);
  if (chunks < 0) return ManageRepair::kFailed;
  ManageFile file(chunkType, static_cast<uint32_t>(chunks));
  if (!file.open()) return ManageRepair::kFailed;
  const Bytes main = file.read(kManageMainCopy);
  const Bytes backup = file.read(kManageBackupCopy);
  ManageRepair result = judge(main, backup);
  Bytes taken = !main.empty() ? main : !backup.empty() ? backup : file.defaults();
  if (file.correct(&taken)) result = ManageRepair::kCorrected;
  // A copy that is good is the last to be written over.
  const int first = main.empty() ? kManageMainCopy : kManageBackupCopy;
  for (const int copy : {first, 1 - first}) {
    const Bytes& present = copy == kManageMainCopy ? main : backup;
    if (present != taken && !file.write(copy, taken)) result = ManageRepair::kFailed;
  }
  if (records != nullptr) *records = file.records(taken);
  return result;
}

}  // namespace tarn
