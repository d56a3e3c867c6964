// The repair of an interrupted recording of 27,000 pictures (a quarter of an hour), against a bare
// walk over the same bytes.
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "CardContents.h"
#include "Machine.h"
#include "Pair.h"
#include "base/Endian.h"
#include "chunk/CTARNStreamChunk.h"
#include "db/CApiDb.h"
#include "dblog/CDbRestore.h"
#include "dblog/JournalFormat.h"
#include "manager/CTARNStreamManagerNative.h"
#include "recorder/recording/RecordFormat.h"

namespace {

using namespace bench;

constexpr uint32_t kPictures = 27000;
constexpr uint32_t kPictureSize = 16 * kKiB;
constexpr uint32_t kChunk = 1;
constexpr size_t kBlock = 4096;
constexpr size_t kStamp = 287;
constexpr char kSqlReopen[] = "UPDATE STREAM SET recSize = 0 WHERE streamID = 1";

// The fewest calls that read what a repair must read: entries in blocks, and the head of each
// hundredth picture, then of each picture behind the last one of those.
class BareWalk {
 public:
  explicit BareWalk(const Card& card)
      : fd_(open(kCardDevice, O_RDWR | O_CLOEXEC)),
        entries_(card.chunkByte(tarn::kFilePicture, kChunk)),
        data_(card.chunkByte(tarn::kFileStream, kChunk)),
        original_(card.chunkByte(tarn::kFileJournal, tarn::kStreamJournalChunk)),
        mirror_(card.chunkByte(tarn::kFileJournal, tarn::kStreamJournalChunk + 1)) {}

  // Number of pictures that are intact. Closes the recording there: its row, both copies of its
  // record, its header.
  uint32_t run(sqlite3* db) {
    blockAt_ = -1;
    const uint32_t good = walk(0, 100);
    // The pictures behind the last hundredth one, each.
    const uint32_t pictures = walk((good - 1) / 100 * 100 + 1, 1);
    sqlite3_exec(db,
                 "UPDATE STREAM SET status = 65536, recSize = 27000, chunkSize = 864032, endDate = "
                 "1700000960, endMSec = 0 WHERE streamID = 1",
                 nullptr, nullptr, nullptr);
    uint8_t record[tarn::kStreamRecordSize];
    if (pread(fd_.get(), record, sizeof record, static_cast<off_t>(original_)) < 0) {
      give_up("the bare read failed");
    }
    put(original_, record, sizeof record);
    put(mirror_, record, sizeof record);
    if (pread(fd_.get(), record, tarn::kRecordSize, static_cast<off_t>(entries_)) < 0) {
      give_up("the bare read failed");
    }
    put(entries_, record, tarn::kRecordSize);
    return pictures;
  }

 private:
  void put(uint64_t at, const void* bytes, size_t size) {
    if (pwrite(fd_.get(), bytes, size, static_cast<off_t>(at)) != static_cast<ssize_t>(size) ||
        fsync(fd_.get()) != 0) {
      give_up("the bare write failed");
    }
  }

  uint32_t walk(uint32_t from, uint32_t interval) {
    const uint32_t first = tarn::getLe32(entry(0) + tarn::kEntryNumberOff);
    for (uint32_t i = from;; ++i) {
      const uint8_t* bytes = entry(i);
      const uint32_t number = tarn::getLe32(bytes + tarn::kEntryNumberOff);
      if (number != first + i) return i;
      size_ += tarn::getLe32(bytes + tarn::kEntrySizeOff);
      if (number % interval == 0 && time(tarn::getLe32(bytes + tarn::kEntryDataOffsetOff)) == 0) {
        return i;
      }
    }
  }

  const uint8_t* entry(uint32_t index) {
    const auto at = static_cast<off_t>(entries_) + tarn::kRecordSize * (off_t{index} + 1);
    if (blockAt_ < 0 || at < blockAt_ || at >= blockAt_ + static_cast<off_t>(kBlock)) {
      blockAt_ = at;
      if (pread(fd_.get(), block_, kBlock, at) != kBlock) give_up("the bare read failed");
    }
    return block_ + (at - blockAt_);
  }

  uint32_t time(uint32_t offset) {
    uint8_t stamp[kStamp];
    if (pread(fd_.get(), stamp, kStamp, static_cast<off_t>(data_ + offset)) != kStamp) {
      give_up("the bare read failed");
    }
    const void* text = memmem(stamp, kStamp, "timestamp = ", 12);
    if (text == nullptr) return 0;
    tm parts{};
    strptime(static_cast<const char*>(text) + 12, "%Y%m%d%H%M%S", &parts);
    return static_cast<uint32_t>(mktime(&parts));
  }

  tarn::UniqueFd fd_;
  uint64_t entries_, data_, original_, mirror_;
  off_t blockAt_ = -1;
  uint8_t block_[kBlock];
  uint32_t size_ = 0;
};

class RepairRig : public Rig {
 public:
  RepairRig(Medium medium, bool cold)
      : card_(medium, 4 * kGiB, smallChunks(kGiB, 2 * kMiB, 2)),
        cold_(cold),
        row_(writeInterrupted(&card_, kChunk, 1, kPictures, kPictureSize)) {
    makeEmptyDatabase();
    writeStreamJournal(&card_, {row_});
    CDbRestore restore;
    if (restore.restoreStreamDb(tarn::kStreamJournalChunk) != 0) give_up("the replay failed");
    if (store_.openManageData(tarn::kRecorderPartition) != 0) give_up("no management data");
    if (sqlite3_open(kDatabase, &bare_) != SQLITE_OK) give_up("no bare connection");
    walk_ = std::make_unique<BareWalk>(card_);
  }

  ~RepairRig() override { sqlite3_close(bare_); }

  double ours() override {
    reopen();
    CTARNStreamChunk picture(0), stream(1);
    CDbRestore restore;
    unsigned long end = 0;
    const double seconds = timed([&] {
      restore.fixUpVideoStream(&store_, &picture, &stream, row_.streamID, row_.frameSet,
                               row_.chunkID, row_.chunkOffset, row_.status, row_.startDate,
                               row_.backOffset, &end);
    });
    DB_STREAM repaired = {};
    if (db_.selectStream(row_.streamID, &repaired) != 1 || repaired.recSize != kPictures) {
      give_up("the repair found " + std::to_string(repaired.recSize) + " pictures");
    }
    return seconds;
  }

  double bare() override {
    reopen();
    uint32_t pictures = 0;
    const double seconds = timed([&] { pictures = walk_->run(bare_); });
    if (pictures != kPictures) give_up("the bare walk found " + std::to_string(pictures));
    return seconds;
  }

 private:
  void reopen() {
    reopenHeader(&card_, row_);
    db_.setSqlNoResult(kSqlReopen);
    if (cold_) card_.dropCache();
  }

  Card card_;
  bool cold_;
  DB_STREAM row_;
  CApiDb db_;
  sqlite3* bare_ = nullptr;
  CTARNStreamManagerNative store_;
  std::unique_ptr<BareWalk> walk_;
};

const bool kCold = add({"repair", "repair/disk_cold", Goal::kCost, 1.2, 9,
                        [] { return std::make_unique<RepairRig>(Medium::kDisk, true); }});
const bool kRam = add({"repair", "repair/ram", Goal::kCost, 1.2, 15,
                       [] { return std::make_unique<RepairRig>(Medium::kRam, false); }});

}  // namespace
