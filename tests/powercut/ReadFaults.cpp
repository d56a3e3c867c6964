#include "powercut/ReadFaults.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "base/Wrap.h"
#include "db/RowStatus.h"
#include "dblog/JournalFormat.h"
#include "fat/ChunkFiles.h"
#include "powercut/Checks.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recording/RecordingReader.h"

namespace powercut {
namespace {

constexpr uint32_t kSlots = 16;  // states of a read
constexpr uint32_t kFirstSectorSlot = 4;
constexpr uint32_t kFirstZerosSlot = 12;
constexpr uint64_t kSmallRead = 8;  // sectors; of larger ones so many are tried

bool touches(const PicturePlace& place, const ReadFault& fault) {
  if (fault.kind != ReadFault::kSector) return false;
  const uint64_t from = fault.sector * kSector;
  return std::any_of(place.bytes.begin(), place.bytes.end(), [from](const auto& piece) {
    return piece.first < from + kSector && piece.second > from;
  });
}

std::vector<std::pair<uint64_t, uint64_t>> ringBytes(int type, uint32_t chunk, uint32_t offset,
                                                     uint32_t length) {
  const uint64_t start = cardLayout().chunkByte(type, chunk);
  const uint32_t ring = cardLayout().family(type).chunkSize;
  if (offset + length <= ring) return {{start + offset, start + offset + length}};
  return {{start + offset, start + ring}, {start, start + offset + length - ring}};
}

// Rows that a bad sector has anything of, by key.
std::map<uint32_t, bool> touchedRows(const Recorded& life, const ReadFault& fault) {
  std::map<uint32_t, bool> rows;
  for (const PicturePlace& place : life.finalPlaces) {
    if (touches(place, fault)) rows[place.streamID] = true;
  }
  return rows;
}

// All that a listed recording has outside the bad sector can be read.
std::string checkReadable(const Recorded& life, const ReadFault& fault, const DB_STREAM& row) {
  tarn::RecordingReader reader;
  bool open = false;
  std::vector<uint8_t> bytes;
  for (const PicturePlace& place : life.finalPlaces) {
    if (place.streamID != row.streamID) continue;
    if (place.index < 0) {
      open = reader.open(row) == 0;
      if (!open && touches(place, fault)) return "";
      if (!open) return "cannot be opened";
      continue;
    }
    if (place.index >= row.recSize || touches(place, fault)) continue;
    tarn::PictureEntry entry;
    if (!reader.picture(static_cast<uint32_t>(place.index), &entry) ||
        !reader.readPicture(entry, &bytes)) {
      return "picture " + std::to_string(place.index) + " cannot be read";
    }
  }
  return "";
}

std::string shortText(const DB_STREAM& row) {
  return "recording " + std::to_string(row.streamID) + " (" + std::to_string(row.recSize) +
         " pictures)";
}

uint64_t journalByte(const DB_STREAM& row) {
  const auto chunk = static_cast<uint32_t>(tarn::journalTraits(tarn::JournalKind::kStream).chunk);
  return cardLayout().chunkByte(tarn::kFileJournal, chunk) + row.backOffset;
}

// Whether the bad sector has the newest record of this row, which the cut kept from the other copy.
bool hasNewest(const Recorded& life, const ReadFault& fault, const DB_STREAM& row) {
  const uint64_t byte = journalByte(row);
  const uint32_t size = tarn::journalTraits(tarn::JournalKind::kStream).recordSize;
  return fault.kind == ReadFault::kSector && byte / kSector == fault.sector &&
         memcmp(&life.base[byte], &life.base[otherCopy(byte)], size) != 0;
}

bool same(const DB_STREAM& a, const DB_STREAM& b) { return memcmp(&a, &b, sizeof a) == 0; }

// What becomes of a row by its older record: what was given to it, and where it is open there, its
// end in whole seconds and the mark of the repair.
bool sameByOlder(const Recorded& life, DB_STREAM now, DB_STREAM row) {
  DB_STREAM older;
  tarn::decodeStreamRecord(&life.base[otherCopy(journalByte(row))], &older);
  now.endMSec = row.endMSec;
  now.status = (now.status & ~tarn::kStatusRepaired) | (row.status & tarn::kStatusRepaired);
  row.inTrg = older.inTrg;
  row.frameSet = older.frameSet;
  row.bitrateSet = older.bitrateSet;
  return same(now, row);
}

bool isMarked(const DB_STREAM& row) { return (row.status & tarn::kStatusRedating) != 0; }

// Left for a start that can read it: open, or with the time that it had, where the mark says that a
// re-dating is to be finished.
bool isLeft(DB_STREAM now, const DB_STREAM& row, bool redating) {
  if (now.recSize == 0) return true;
  now.status = row.status;
  now.startDate = row.startDate;
  now.startMSec = row.startMSec;
  now.endDate = row.endDate;
  now.endMSec = row.endMSec;
  return redating && same(now, row);
}

// A sector costs what it holds. What it touches may be left open, for a start that can read it.
std::string checkStreams(const Recorded& life, const ReadFault& fault) {
  std::map<uint32_t, DB_STREAM> now;
  for (const DB_STREAM& row : listStreams()) now[row.streamID] = row;
  const auto touched = touchedRows(life, fault);
  const bool redating =
      std::any_of(now.begin(), now.end(), [](const auto& one) { return isMarked(one.second); });
  for (const DB_STREAM& row : life.finalStreams) {
    const auto place = now.find(row.streamID);
    if (place == now.end()) return "gone: " + shortText(row);
    const bool good = same(place->second, row) || touched.count(row.streamID) != 0 ||
                      (fault.kind != ReadFault::kSector && isLeft(place->second, row, redating)) ||
                      (hasNewest(life, fault, row) && sameByOlder(life, place->second, row));
    if (!good) return shortText(row) + " has become " + shortText(place->second);
    // What else refuses reads ends with the recovery, or at the next read.
    if (fault.kind != ReadFault::kSector || place->second.recSize == 0) continue;
    const std::string failure = checkReadable(life, fault, place->second);
    if (!failure.empty()) return shortText(row) + ": " + failure;
  }
  return "";
}

std::string checkEvents(const Recorded& life) {
  std::map<uint32_t, DB_EVENT> now;
  for (const DB_EVENT& row : listEvents()) now[row.eventID] = row;
  for (const DB_EVENT& row : life.finalEvents) {
    if (now.count(row.eventID) == 0) return "gone: event " + std::to_string(row.eventID);
  }
  return "";
}

// Where the cut left them unlike, each may say something of its own, and it is lost with it.
bool copiesAreAlike(const Recorded& life, uint64_t sector) {
  const uint64_t byte = sector * kSector;
  return memcmp(&life.base[byte], &life.base[otherCopy(byte)], kSector) == 0;
}

// The error of a start that a bad sector stops says where it is.
std::string checkError(const ReadFault& fault, const std::string& error) {
  if (fault.kind != ReadFault::kSector || placeOf(fault.sector * kSector).empty()) return "";
  const auto has = [&error](const char* text) { return error.find(text) != std::string::npos; };
  // A management file is read as a whole.
  const bool named = (has("chunk") && (has("offset") || has("at byte"))) || has("(MG");
  return named ? "" : "stops without the place: " + error;
}

}  // namespace

std::vector<PicturePlace> picturePlaces(const std::vector<DB_STREAM>& rows) {
  std::vector<PicturePlace> places;
  for (const DB_STREAM& row : rows) {
    places.push_back(
        {row.streamID, -1,
         ringBytes(tarn::kFilePicture, row.chunkID, row.chunkOffset, tarn::kRecordSize)});
    tarn::RecordingReader reader;
    if (reader.open(row) != 0) continue;
    const uint32_t ring = cardLayout().family(tarn::kFilePicture).chunkSize;
    for (uint32_t i = 0; i < reader.pictureCount(); ++i) {
      tarn::PictureEntry entry;
      if (!reader.picture(i, &entry)) continue;
      const uint32_t offset = tarn::ringAdvance(row.chunkOffset, (i + 1) * tarn::kRecordSize, ring);
      auto bytes = ringBytes(tarn::kFilePicture, row.chunkID, offset, tarn::kRecordSize);
      for (const auto& piece :
           ringBytes(tarn::kFileStream, row.chunkID, entry.dataOffset, entry.size)) {
        bytes.push_back(piece);
      }
      places.push_back({row.streamID, i, bytes});
    }
    // Where the next one would be: whoever cannot read it does not know that there is none.
    const uint32_t behind =
        tarn::ringAdvance(row.chunkOffset, (row.recSize + 1) * tarn::kRecordSize, ring);
    places.push_back({row.streamID, row.recSize,
                      ringBytes(tarn::kFilePicture, row.chunkID, behind, tarn::kRecordSize)});
  }
  return places;
}

std::string placeOf(uint64_t byte) {
  for (int type = 1; type < tarn::kFileTypeCount; ++type) {
    const tarn::CardFamily& family = cardLayout().family(type);
    if (byte < family.startByte() || byte >= family.startByte() + family.bytes()) continue;
    const uint64_t offset = byte - family.startByte();
    return std::string(tarn::CardLayout::familyName(type)) + " chunk " +
           std::to_string(offset / family.chunkSize) + " offset " +
           std::to_string(offset % family.chunkSize);
  }
  return "";
}

std::string describe(const Recorded& life, const ReadFault& fault) {
  constexpr const char* kWhat[] = {"is good",
                                   "fails once",
                                   "is short once",
                                   "and the next ones fail",
                                   "and all that follow fail",
                                   "is bad",
                                   "is lost as zeros"};
  const bool sector = fault.kind == ReadFault::kSector || fault.kind == ReadFault::kZeros;
  const CardRead& read = life.reads.at(fault.read);
  const uint64_t byte = sector ? fault.sector * kSector : read.offset;
  const std::string place = placeOf(byte);
  return (sector ? "sector at "
                 : "read " + std::to_string(fault.read) + " of " + std::to_string(read.length) +
                       " bytes at ") +
         (place.empty() ? "byte " + std::to_string(byte) : place) + " " + kWhat[fault.kind];
}

bool hasNewestOfARow(const Recorded& life, const ReadFault& fault) {
  return std::any_of(life.finalStreams.begin(), life.finalStreams.end(),
                     [&](const DB_STREAM& row) { return hasNewest(life, fault, row); });
}

std::string checkUnderFault(const Recorded& life, const ReadFault& fault,
                            const tarn::RecoveryReport& report) {
  if (fault.kind == ReadFault::kZeros)
    return report.ok() ? "" : "stops, with one good copy: " + report.error;
  if (Card::get().refusals() == 0) return "nothing was refused";
  if (!report.ok()) return checkError(fault, report.error);
  std::string failure = checkStreams(life, fault);
  if (failure.empty()) failure = checkEvents(life);
  return failure.empty() ? "" : "under the fault: " + failure;
}

void ReadFaults::visitFault(uint32_t place, const ReadFault& fault) {
  const uint64_t number = number_ + place;
  if (!(*visit_)(number, distinct_++)) return;
  (*run_)({number, life_.cut, 0, number, fault});
  Card::get().rollBack(0);
}

void ReadFaults::visitSectors(size_t read) {
  const CardRead& asked = life_.reads[read];
  const uint64_t first = asked.offset / kSector;
  const uint64_t count = (asked.offset + asked.length - 1) / kSector - first + 1;
  const uint64_t tried = std::min(count, kSmallRead);
  for (uint64_t i = 0; i < tried; ++i) {
    const uint64_t sector = first + (tried == 1 ? 0 : i * (count - 1) / (tried - 1));
    if (!badSectors_.insert(sector).second) continue;
    visitFault(kFirstSectorSlot + static_cast<uint32_t>(i), {ReadFault::kSector, read, sector});
    const auto isOf = [sector](const auto& extent) {
      return sector * kSector >= extent.first && sector * kSector < extent.second;
    };
    if (i < kSlots - kFirstZerosSlot && std::any_of(copied_.begin(), copied_.end(), isOf) &&
        copiesAreAlike(life_, sector)) {
      visitFault(kFirstZerosSlot + static_cast<uint32_t>(i), {ReadFault::kZeros, read, sector});
    }
  }
}

void ReadFaults::visitRead(size_t read) {
  visitFault(0, {ReadFault::kFails, read, 0});
  if (life_.reads[read].length > 1) visitFault(1, {ReadFault::kShort, read, 0});
  visitFault(2, {ReadFault::kBurst, read, 0});
  visitFault(3, {ReadFault::kGone, read, 0});
  visitSectors(read);
}

void ReadFaults::walk(const States::Visit& visit, const States::Run& run) {
  visit_ = &visit;
  run_ = &run;
  Card::get().load(life_.base);
  for (size_t read = 0; read < life_.reads.size(); ++read) {
    number_ = read * kSlots;
    visitRead(read);
  }
}

uint64_t ReadFaults::count(const Recorded& life) {
  ReadFaults faults(life);
  faults.walk([](uint64_t, uint64_t) { return false; }, [](const State&) {});
  return faults.distinct_;
}

}  // namespace powercut
