#include "recorder/recovery/ManageFileRepair.h"

#include <fcntl.h>

#include <algorithm>

#include "base/Wrap.h"
#include "chunk/LogChunks.h"
#include "fat/CFATAccess.h"
#include "manager/ManageFormat.h"
#include "recorder/card/Source.h"

namespace tarn {
namespace {

using Bytes = std::vector<uint8_t>;

FileType manageType(FileType chunkType) {
  if (chunkType == kFileStream) return kFileStreamManage;
  return chunkType == kFileSyslog ? kFileSyslogManage : kFileJournalManage;
}

// One management file, open: two chunks of its own family.
class ManageFile {
 public:
  ManageFile(FileType chunkType, uint32_t chunks)
      : chunkType_(chunkType),
        chunks_(chunks),
        length_(manageDataSize(chunks)),
        main_(manageType(chunkType), kManageMainCopy, O_RDWR),
        backup_(manageType(chunkType), kManageBackupCopy, O_RDWR) {}

  bool isOpen() const { return main_.size() >= length_ && backup_.size() >= length_; }

  // *bytes is empty unless the copy is good.
  Delivery read(int copy, Bytes* bytes) {
    bytes->assign(length_, 0);
    Delivery got = source(copy).read(0, bytes->data(), length_);
    if (got == Delivery::kGood && !manageDataIsValid(bytes->data(), chunks_)) got = Delivery::kBad;
    if (got != Delivery::kGood) bytes->clear();
    return got;
  }

  bool write(int copy, const Bytes& bytes) {
    return source(copy).write(0, bytes.data(), length_) && source(copy).flush();
  }

  // "MGST0001"
  std::string name(int copy) const {
    return std::string(fileTag(manageType(chunkType_))) + "000" + std::to_string(copy);
  }

  // As on a new card, or `anew` where that is not null.
  Bytes defaults(const std::vector<CHUNK_MANAGE>* anew) const {
    Bytes bytes(length_);
    CHUNK_MANAGE record = {};
    if (chunkType_ == kFileStream) record.chType = kChannelUnused;
    for (uint32_t chunk = 0; chunk < chunks_; ++chunk) {
      encode(anew != nullptr && chunk < anew->size() ? (*anew)[chunk] : record, chunk, &bytes);
    }
    sealManageData(bytes.data(), chunks_);
    return bytes;
  }

  // A system log whose active chunk does not exist could never be written again.
  bool correct(Bytes* bytes) const {
    if (chunkType_ != kFileSyslog || chunks_ == 0) return false;
    CHUNK_MANAGE first = decodeManageRecord(bytes->data());
    const auto limit = static_cast<int8_t>(std::min<uint32_t>(chunks_, kLogChunks));
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

  ChunkSource& source(int copy) { return copy == kManageMainCopy ? main_ : backup_; }

  const FileType chunkType_;
  const uint32_t chunks_;
  const uint32_t length_;
  ChunkSource main_;
  ChunkSource backup_;
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
ManageRepair judge(Delivery main, Delivery backup, bool equal) {
  if (main == Delivery::kRefused) {
    return backup == Delivery::kGood ? ManageRepair::kMainUnread : ManageRepair::kUnreadable;
  }
  if (backup == Delivery::kRefused) {
    return main == Delivery::kGood ? ManageRepair::kBackupUnread : ManageRepair::kUnreadable;
  }
  if (main == Delivery::kBad) {
    return backup == Delivery::kBad ? ManageRepair::kDefaults : ManageRepair::kMainCopied;
  }
  return equal ? ManageRepair::kGood : ManageRepair::kBackupCopied;
}

// A sector that the card lost as zeros has the checksum of zeros. Beside a backup that says
// something it is no main copy.
bool isLostAsZeros(const Bytes& main, const Bytes& backup) {
  const auto empty = [](const Bytes& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
  };
  return !main.empty() && !backup.empty() && empty(main) && !empty(backup);
}

}  // namespace

ManageRepair judgeManageFile(FileType chunkType, std::vector<CHUNK_MANAGE>* records) {
  const int chunks = chunksOf(chunkType);
  if (chunks < 0) return ManageRepair::kFailed;
  ManageFile file(chunkType, static_cast<uint32_t>(chunks));
  if (!file.isOpen()) return ManageRepair::kFailed;
  Bytes main;
  Bytes backup;
  const Delivery ofMain = file.read(kManageMainCopy, &main);
  const Delivery ofBackup = file.read(kManageBackupCopy, &backup);
  const ManageRepair result = judge(ofMain, ofBackup, main == backup);
  if (result == ManageRepair::kUnreadable) return result;
  *records = file.records(!main.empty() ? main : !backup.empty() ? backup : file.defaults(nullptr));
  return result;
}

ManageRepair repairManageFile(FileType chunkType, std::vector<CHUNK_MANAGE>* records,
                              std::string* unread, const std::vector<CHUNK_MANAGE>* anew) {
  const int chunks = chunksOf(chunkType);
  if (chunks < 0) return ManageRepair::kFailed;
  ManageFile file(chunkType, static_cast<uint32_t>(chunks));
  if (!file.isOpen()) return ManageRepair::kFailed;
  Bytes main;
  Bytes backup;
  Delivery ofMain = file.read(kManageMainCopy, &main);
  const Delivery ofBackup = file.read(kManageBackupCopy, &backup);
  if (isLostAsZeros(main, backup)) {
    ofMain = Delivery::kBad;
    main.clear();
  }
  ManageRepair result = judge(ofMain, ofBackup, main == backup);
  if (unread != nullptr && (ofMain == Delivery::kRefused || ofBackup == Delivery::kRefused)) {
    *unread = file.name(ofMain == Delivery::kRefused ? kManageMainCopy : kManageBackupCopy);
  }
  if (result == ManageRepair::kUnreadable) return result;
  Bytes taken = !main.empty() ? main : !backup.empty() ? backup : file.defaults(anew);
  if (result != ManageRepair::kBackupUnread && result != ManageRepair::kMainUnread) {
    if (file.correct(&taken)) result = ManageRepair::kCorrected;
    // A copy that is good is the last to be written over.
    const int first = main.empty() ? kManageMainCopy : kManageBackupCopy;
    for (const int copy : {first, 1 - first}) {
      const Bytes& present = copy == kManageMainCopy ? main : backup;
      if (present != taken && !file.write(copy, taken)) result = ManageRepair::kFailed;
    }
  }
  if (records != nullptr && result != ManageRepair::kFailed) *records = file.records(taken);
  return result;
}

}  // namespace tarn
