#include "media/evidence/JournalExtract.h"

#include <fcntl.h>

#include <algorithm>

#include "fat/ChunkFiles.h"
#include "media/evidence/EvidenceFolder.h"
#include "recorder/card/PictureTime.h"
#include "recorder/card/Source.h"
#include "recorder/rows/JournalCopies.h"

namespace tarn {
namespace {

// What stands in front of the two copies of a record: where it lies, and which of them came.
constexpr uint32_t kOriginalCame = 1;
constexpr uint32_t kMirrorCame = 2;

void addNumber(uint32_t value, std::string* out) {
  for (int shift = 0; shift < 32; shift += 8)
    *out += static_cast<char>(static_cast<uint8_t>(value >> shift));
}

// Of a row that runs: open.
int64_t endOf(uint32_t seconds, uint16_t milliseconds) {
  return seconds == 0 ? INT64_MAX : PictureTime{seconds, milliseconds * 1000u}.totalMicros();
}

}  // namespace

bool JournalExtract::isWantedStream(const uint8_t* record) {
  DB_STREAM row = {};
  decodeStreamRecord(record, &row);
  const int64_t from = PictureTime{row.startDate, row.startMSec * 1000u}.totalMicros();
  const int64_t to = endOf(row.endDate, row.endMSec);
  journal_->oldestUs = std::min(journal_->oldestUs, from);
  journal_->oldestKey = std::min(journal_->oldestKey, row.streamID);
  if (from > toUs_ || to < fromUs_) return false;
  // A deleted one without an end is of a recording that never was.
  if (journalMarker(record) == kMarkerDeletedStream && row.recSize != 0 && row.endDate != 0)
    journal_->givenUp.push_back({row.streamID, row.chunkID, from, to});
  return true;
}

bool JournalExtract::isWanted(JournalKind kind, const uint8_t* record) {
  if (journalKey(record) == 0) return false;  // stands for one that was lost
  if (kind == JournalKind::kStream) return isWantedStream(record);
  DB_EVENT event = {};
  decodeEventRecord(record, &event);
  return PictureTime{event.startDate, event.startMSec * 1000u}.totalMicros() <= toUs_ &&
         endOf(event.endDate, event.endMSec) >= fromUs_;
}

void JournalExtract::add(const JournalCopies& copies, uint32_t position, uint32_t size,
                         std::string* out) {
  const uint8_t* const both[] = {copies.original(), copies.mirror()};
  addNumber(position, out);
  addNumber((both[0] != nullptr ? kOriginalCame : 0) | (both[1] != nullptr ? kMirrorCame : 0), out);
  for (const uint8_t* one : both) {
    if (one != nullptr)
      out->append(reinterpret_cast<const char*>(one), size);
    else
      out->append(size, '\0');
  }
}

// The records that are wanted, as they lie there.
std::string JournalExtract::readOne(JournalKind kind) {
  const JournalTraits& traits = journalTraits(kind);
  const auto chunk = static_cast<uint32_t>(traits.chunk);
  ChunkSource original(kFileJournal, chunk, O_RDONLY);
  ChunkSource mirror(kFileJournal, chunk + kJournalMirrorStep, O_RDONLY);
  if (!original.isOpen() || !mirror.isOpen())
    journal_->error = "the journal on the card cannot be opened";
  JournalCopies copies(kind, &original, &mirror);
  uint32_t& count = kind == JournalKind::kEvent ? journal_->eventRecords : journal_->streamRecords;
  std::string out;
  for (uint32_t at = 0; at < copies.size(); at += traits.recordSize) {
    const JournalCopy copy = copies.at(at);
    if (copy == JournalCopy::kRefused) ++journal_->unreadable;
    if ((copy != JournalCopy::kOriginal && copy != JournalCopy::kMirror) || !copies.isInPlace() ||
        !isWanted(kind, copies.record()))
      continue;
    add(copies, at, traits.recordSize, &out);
    ++count;
  }
  return out;
}

bool JournalExtract::writeOne(JournalKind kind, EvidenceFolder* folder, const char* name) {
  return folder->write(name, readOne(kind));
}

void JournalExtract::read() { readOne(JournalKind::kStream); }

bool JournalExtract::write(EvidenceFolder* folder) {
  return writeOne(JournalKind::kStream, folder, "original/journal-recordings.bin") &&
         writeOne(JournalKind::kEvent, folder, "original/journal-events.bin");
}

}  // namespace tarn
