#include "media/archive/RestoreTarget.h"

#include <algorithm>

#include "db/RowStatus.h"
#include "fat/ChunkFiles.h"
#include "manager/ManageFormat.h"
#include "recorder/card/CardInfo.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/rows/JournalGuard.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/rows/RecorderDatabase.h"
#include "recorder/rows/RowQueries.h"

namespace tarn {
namespace {

constexpr char kSqlEvents[] = "SELECT * FROM EVENT";
constexpr char kErrNoPlace[] = "the card's journal has no place for an event";
// A recording's pictures have a stamp and an entry more than its clip, which has boxes instead.
constexpr uint64_t kStampBytes = 64;
constexpr uint64_t kSpareBytes = uint64_t{64} * 1024;
// Blocks of sound last a second, and less where frames do not follow each other.
constexpr int64_t kLeastBlockMs = 100;

int64_t beginOf(const DB_STREAM& row) { return int64_t{row.startDate} * 1000 + row.startMSec; }
int64_t endOf(const DB_STREAM& row) { return int64_t{row.endDate} * 1000 + row.endMSec; }

// Of an event also the seconds before it that its clip shows.
int64_t periodBegin(const ArchiveLine& line) {
  return line.kind == "event" ? line.startMs - int64_t{line.preSeconds} * 1000 : line.startMs;
}

}  // namespace

bool RestoreTarget::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool RestoreTarget::read() {
  RowQueries queries(&database_, nullptr);
  rows_.clear();
  events_.clear();
  if (!databaseIsGood(nullptr, &error_) || chunks_.read(&error_) != 0) return false;
  return (streamsOfPeriod(0, UINT32_MAX, 0, &rows_) && queries.events(kSqlEvents, &events_)) ||
         fail(kDatabaseUnread);
}

std::vector<const DB_STREAM*> RestoreTarget::rowsOf(const ArchiveLine& recording) const {
  std::vector<const DB_STREAM*> found;
  const int64_t fromMs = periodBegin(recording);
  for (const DB_STREAM& row : rows_) {
    const int channel = isKept(row) ? keptChannel(row) : chunks_.of(row.chunkID);
    if (channel == recording.channel && isSound(row) == (recording.media == "sound") &&
        beginOf(row) >= fromMs && beginOf(row) <= recording.endMs)
      found.push_back(&row);
  }
  return found;
}

std::vector<uint32_t> RestoreTarget::keysOf(const ArchiveLine& recording) const {
  std::vector<uint32_t> keys;
  for (const DB_STREAM* row : rowsOf(recording)) keys.push_back(row->streamID);
  return keys;
}

// Whether the recording that an event's clip was made of is there: it began before that.
bool RestoreTarget::comesFromHere(const ArchiveLine& event) const {
  const int64_t fromMs = periodBegin(event);
  return std::any_of(rows_.begin(), rows_.end(), [&](const DB_STREAM& row) {
    return chunks_.of(row.chunkID) == event.channel && !isSound(row) && beginOf(row) < fromMs &&
           endOf(row) >= fromMs;
  });
}

// A recording that was put here ends in order. One that a start closed, because whoever put it here
// was interrupted, is whole only where it says so itself.
bool RestoreTarget::has(const ArchiveLine& recording, std::vector<uint32_t>* leftOver) const {
  leftOver->clear();
  if (recording.kind == "event" && comesFromHere(recording)) return true;
  int64_t endMs = 0;
  uint64_t pictures = 0;
  bool repaired = false;
  const std::vector<const DB_STREAM*> rows = rowsOf(recording);
  for (const DB_STREAM* row : rows) {
    endMs = std::max(endMs, endOf(*row));
    pictures += row->recSize;
    repaired = repaired || (row->status & kStatusRepaired) != 0;
  }
  const bool counted = recording.media == "video" && pictures == recording.pictures;
  const bool ended = repaired ? endMs == recording.endMs : endMs >= recording.endMs;
  if (!rows.empty() && (counted || ended)) return true;
  *leftOver = keysOf(recording);
  return false;
}

bool RestoreTarget::hasEvent(const ArchiveLine& event) const {
  return std::any_of(events_.begin(), events_.end(), [&](const DB_EVENT& row) {
    return int64_t{row.startDate} * 1000 + row.startMSec == event.startMs &&
           int64_t{row.endDate} * 1000 + row.endMSec == event.endMs &&
           row.extTrg == event.trigger && row.preSec == event.preSeconds;
  });
}

// A chunk of the channel that holds the same kind, or as many as it takes that nobody has.
bool RestoreTarget::hasRoomFor(const ArchiveLine& recording) {
  CardInfo info;
  if (info.read(deviceName(kRecorderPartition), &error_) != 0) return false;
  const bool sound = recording.media == "sound";
  const auto blocks = static_cast<uint64_t>(
      std::max<int64_t>(recording.endMs - recording.startMs, 0) / kLeastBlockMs + 1);
  const uint64_t pieces = sound ? std::min(blocks, recording.bytes) : recording.pictures;
  const uint64_t bytes = recording.bytes + pieces * kStampBytes + kSpareBytes;
  const uint64_t entries = (pieces + 1) * kRecordSize;
  const uint64_t chunkBytes = info.family(kFileStream).chunkSize;
  const uint64_t entryBytes = info.family(kFilePicture).chunkSize;
  if (chunkBytes == 0 || entryBytes == 0) return fail("the card has no room for recordings");
  uint64_t unused = 0;
  const auto& records = info.management(kFileStreamManage).records;
  for (uint32_t chunk = 0; chunk < records.size(); ++chunk) {
    if (static_cast<int8_t>(records[chunk].chType) == kChannelUnused) ++unused;
    const auto of = std::find_if(rows_.begin(), rows_.end(), [&](const DB_STREAM& row) {
      return row.chunkID == chunk && !isKept(row);
    });
    if (of == rows_.end() || isSound(*of) != sound || chunks_.of(chunk) != recording.channel)
      continue;
    if (chunkBytes - info.usedBytes(kFileStream, chunk) > bytes &&
        entryBytes - info.usedBytes(kFilePicture, chunk) > entries)
      return true;
  }
  const uint64_t needed = std::max(bytes / chunkBytes, entries / entryBytes) + 1;
  return needed <= unused ||
         fail("the card has no room for " + recording.object + ": " + std::to_string(needed) +
              " free chunks are needed, and there are " + std::to_string(unused));
}

bool RestoreTarget::addEvent(const ArchiveLine& event) {
  JournalGuard guard(&database_);
  if (!guard.beforeEventInsert()) return fail(kErrNoPlace);
  DB_EVENT row = {};
  row.extTrg = static_cast<uint16_t>(event.trigger);
  row.preSec = static_cast<uint16_t>(event.preSeconds);
  row.startDate = static_cast<uint32_t>(event.startMs / 1000);
  row.startMSec = static_cast<uint16_t>(event.startMs % 1000);
  row.endDate = static_cast<uint32_t>(event.endMs / 1000);
  row.endMSec = static_cast<uint16_t>(event.endMs % 1000);
  JournaledRows rows(&database_);
  return rows.insert(&row) == JournaledRows::Outcome::kDone || fail(rows.failure());
}

bool RestoreTarget::remove(uint32_t key) {
  JournaledRows rows(&database_);
  return rows.removeStream(key) == JournaledRows::Outcome::kDone || fail(rows.failure());
}

}  // namespace tarn
