#include "recorder/session/RowWriter.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdio>

#include "base/Omission.h"
#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "db/RowStatus.h"
#include "recorder/recording/AnnexB.h"
#include "recorder/recording/InterruptedRow.h"
#include "recorder/rows/JournalGuard.h"
#include "recorder/rows/JournalPlace.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/RecordingMessages.h"

namespace tarn {
namespace {

// For a user of the database who is just at it, when a session has failed already.
constexpr int64_t kLastLookMs = 500;
constexpr DB_STREAM_REG_BIT kEndColumns = kStreamRegRecSize | kStreamRegChunkSize |
                                          kStreamRegStatus | kStreamRegEndDate | kStreamRegEndMSec;

}  // namespace

void RowWriter::Totals::add(const PictureEntry& entry) {
  ++pictures;
  if (entry.isKey()) ++gops;
  dataSize = wrapAdd32(dataSize, entry.size);
  if (last < entry.presentation) last = entry.presentation;
}

RowWriter::RowWriter(CTARNStreamManager* manager, CApiDb* db, DatabaseWatch* watch,
                     RecordingSpace* space, RecordingStatistics* statistics)
    : db_(db),
      watch_(watch),
      rows_(db, watch),
      space_(space),
      statistics_(statistics),
      chunks_(manager),
      queue_(size_t{kQueueEntries} * kRecordSize) {
  static_assert(sizeof sei_ >= kTimeStampSeiSize);
}

bool RowWriter::fail(JournaledRows::Outcome outcome) {
  if (outcome == JournaledRows::Outcome::kDone) return true;
  return fail(outcome == JournaledRows::Outcome::kJournal ? RecordingError::kJournal
                                                          : RecordingError::kDatabase,
              rows_.failure());
}

bool RowWriter::openChunk(int chunk) {
  if (!chunks_.open(chunk)) return false;
  return numbers_.scan(chunk, chunks_.pictureSize()) == 0 ||
         fail(RecordingError::kCard, kErrReadChunk);
}

void RowWriter::closeChunk() { chunks_.close(); }

// Before anything of the new recording is written: deleting the recording whose record the journal
// is about to overwrite may move the addresses of this very chunk.
bool RowWriter::makeJournalPlace(JournalGuard* guard, uint32_t now) {
  bool deleted = false;
  const auto deleteOldest = [&](const DB_STREAM& row) {
    deleted = true;
    return space_->deleteForJournal(row, now, chunk());
  };
  const JournalPlace place = awaitJournalPlace(
      chunks_.patienceMs(), [&] { return guard->beforeStreamInsert(deleteOldest); },
      [&] { return space_->error() != RecordingError::kNone; }, [&] { return serverAnswers(); });
  if (place == JournalPlace::kNoServer) return fail(RecordingError::kServer, kErrServer);
  if (space_->error() != RecordingError::kNone) return fail(space_->error(), space_->errorText());
  if (place == JournalPlace::kNone) {
    const DatabaseWatch::Verdict verdict = watch_->check();
    if (verdict == DatabaseWatch::Verdict::kGood)
      return fail(RecordingError::kJournal, kErrJournalPlace);
    return fail(RecordingError::kDatabase, DatabaseWatch::text(verdict));
  }
  return !deleted || chunks_.refresh();
}

bool RowWriter::chooseNumber(uint32_t* number) {
  if (omitted("fresh-numbers")) {
    *number = PictureNumbers::kStep;
    return true;
  }
  if (numbers_.first(number)) return true;
  if (numbers_.scan(chunk(), chunks_.pictureSize()) != 0) {
    return fail(RecordingError::kCard, kErrReadChunk);
  }
  return numbers_.first(number) || fail(RecordingError::kNoRoom, kErrNumbers);
}

// The header comes first: it is behind what the ring has, where nothing points yet.
bool RowWriter::beginHeader() {
  header_ = StreamHeader();
  if (!chooseNumber(&header_.firstNumber)) return false;
  header_.dataOffset = static_cast<uint32_t>(chunks_.stream()->getFreeAddr());
  headerOffset_ = static_cast<uint32_t>(chunks_.picture()->getFreeAddr());
  written_ = confirmed_ = Totals();
  queued_ = 0;
  uint8_t bytes[kRecordSize];
  encodeStreamHeader(header_, bytes);
  if (chunks_.picture()->write(bytes, kRecordSize) != long{kRecordSize})
    return fail(RecordingError::kCard, kErrWriteHeader);
  if (headerOffset_ + kRecordSize >= chunks_.pictureSize()) ++statistics_->pictureWraps;
  if (!flushHeader()) return false;
  numbers_.used(header_.firstNumber);
  return true;
}

void RowWriter::initRow(const DB_STREAM& seed) {
  row_ = seed;
  row_.recSize = sizeWhileOpen();
  row_.chunkID = static_cast<uint32_t>(chunk());
  row_.chunkOffset = headerOffset_;
  row_.chunkSize = 0;
  row_.status = seed.status | kStatusRecording;
  row_.endDate = 0;
  row_.endMSec = 0;
}

bool RowWriter::begin(const DB_STREAM& seed) {
  JournalGuard guard(db_, watch_);  // the place that it finds stays free until the row is in
  if (!makeJournalPlace(&guard, seed.startDate) || !beginHeader()) return false;
  initRow(seed);
  if (!insertRow()) return false;
  running_ = true;
  ownsEnd_ = true;
  ++statistics_->segments;
  return true;
}

bool RowWriter::flushHeader() {
  if (omitted("header-before-row")) return true;
  return chunks_.syncHeader(kErrWriteHeader);
}

// recSize of a row until its end.
uint32_t RowWriter::sizeWhileOpen() {
  if (omitted("row-closed-last")) return 2;
  return 0;
}

bool RowWriter::insertRow() {
  if (!fail(rows_.insert(&row_))) return false;
  space_->noteKey(row_.streamID);
  return true;
}

uint32_t RowWriter::streamRoom() const {
  return static_cast<uint32_t>(chunks_.stream()->getFreeSize());
}

uint32_t RowWriter::pictureRoom() const {
  const auto room = static_cast<uint32_t>(chunks_.picture()->getFreeSize());
  const uint32_t queued = queued_ * kRecordSize;
  return room > queued ? room - queued : 0;
}

bool RowWriter::fits(size_t size) const {
  return streamRoom() > size + kTimeStampSeiSize && pictureRoom() > kRecordSize;
}

int64_t RowWriter::unsafeMicros(PictureTime decode) const {
  return queued_ == 0 ? 0 : decode.totalMicros() - firstQueued_.totalMicros();
}

bool RowWriter::flush() {
  if (queued_ == 0) return true;
  return queueToCard() && chunks_.tell(chunks_.stream()) && chunks_.tell(chunks_.picture());
}

bool RowWriter::dataToCard() {
  if (omitted("data-before-entries")) return true;
  return chunks_.toCard(chunks_.stream(), kErrWriteData);
}

bool RowWriter::entriesToCard() {
  if (omitted("entries-flush")) return true;
  return chunks_.toCard(chunks_.picture(), kErrWriteEntries);
}

// The server is told behind it: it may be away, and the card must not wait for it.
bool RowWriter::queueToCard() {
  if (queued_ == 0) return true;
  if (!dataToCard()) return false;
  const long length = static_cast<long>(queued_) * static_cast<long>(kRecordSize);
  const auto before = chunks_.picture()->getFreeAddr();
  if (chunks_.picture()->write(queue_.data(), length) != length) {
    return fail(RecordingError::kCard, kErrWriteEntries);
  }
  if (chunks_.picture()->getFreeAddr() < before) ++statistics_->pictureWraps;
  if (!entriesToCard()) return false;
  statistics_->confirmed += queued_;
  queued_ = 0;
  confirmed_ = written_;
  return true;
}

// In place: the free address stays behind the entries, where the next write seeks to.
bool RowWriter::writeHeader(uint32_t marker) {
  header_.marker = marker;
  header_.dataSize = confirmed_.dataSize;
  header_.lastTime = confirmed_.last.seconds;
  header_.pictures = confirmed_.pictures;
  header_.gops = confirmed_.gops;
  uint8_t bytes[kRecordSize];
  encodeStreamHeader(header_, bytes);
  if (chunks_.picture()->seek(static_cast<long>(headerOffset_), SEEK_SET) < 0 ||
      chunks_.picture()->writeNoSeek(bytes, kRecordSize) != long{kRecordSize})
    return fail(RecordingError::kCard, kErrWriteHeader);
  return chunks_.syncHeader(kErrWriteHeader);
}

bool RowWriter::updateRow(uint32_t statusBits) {
  DB_STREAM closed = row_;
  closed.recSize = confirmed_.pictures;
  closed.chunkSize = (confirmed_.pictures + 1) * kRecordSize;
  closed.status = (closed.status & ~kStatusRecording) | statusBits;
  closed.endDate = confirmed_.last.seconds;
  closed.endMSec = confirmed_.last.milliseconds();
  // The repair deletes a recording whose header is closed while its record is not; and a row that
  // is closed while its record is open would be taken for an interrupted one by the next start,
  // with others behind it. So it is both or neither.
  if (!fail(rows_.update(kEndColumns, row_, closed))) return false;
  row_ = closed;
  return true;
}

bool RowWriter::finish(uint32_t statusBits) { return end(statusBits) && chunks_.save(); }

bool RowWriter::endBeforeNext() {
  const bool gone = queued_ == 0 && confirmed_.pictures == 0;
  return end(0) && (!gone || chunks_.save());
}

bool RowWriter::end(uint32_t statusBits) {
  if (!flush()) return false;
  const bool done = confirmed_.pictures == 0
                        ? removeRow()
                        : writeTotals() && updateRow(statusBits) && writeHeader(kMarkerClosed);
  running_ = !done;
  return done;
}

// The header's totals, still open, before the row is closed.
bool RowWriter::writeTotals() {
  if (omitted("totals-before-row")) return true;
  if (omitted("row-before-closed-header")) return writeHeader(kMarkerClosed);
  return writeHeader(kMarkerOpen);
}

// Row first, so that no row ever points at space that is free.
bool RowWriter::removeRow() {
  if (!space_->deleteRow(row_.streamID)) return fail(space_->error(), space_->errorText());
  if (!ownsEnd_) return true;
  chunks_.stream()->setFreeAddr(header_.dataOffset);
  chunks_.picture()->setFreeAddr(headerOffset_);
  return chunks_.sync(chunks_.stream(), kErrWriteData) &&
         chunks_.sync(chunks_.picture(), kErrWriteHeader);
}

bool RowWriter::drop() {
  const bool nothing = !running_;
  running_ = false;
  return nothing || (removeRow() && chunks_.save());
}

void RowWriter::rescue() {
  if (running_) queueToCard();
}

void RowWriter::abandon() {
  if (!running_) return;
  rescue();
  running_ = false;
  queued_ = 0;
  chunks_.setPatience(0);  // whatever had to be waited for has been
  watch_->setPatience(kLastLookMs);
  if (confirmed_.pictures == 0) {
    removeRow();
  } else {
    // A header that cannot be written any more is no reason to lose the row: readers of a closed
    // row go by its number of pictures.
    writeHeader(kMarkerOpen);
    if (updateRow()) writeHeader(kMarkerClosed);
    chunks_.save();
  }
  chunks_.setPatience(kServerPatienceMs);
  watch_->setPatience(kServerPatienceMs);
}

// A row of a process that is gone becomes the one that is written.
void RowWriter::takeOver(const DB_STREAM& row, const InterruptedRow* pictures, bool newestOfChunk) {
  row_ = row;
  queued_ = 0;
  confirmed_ = Totals();
  ownsEnd_ = pictures != nullptr && newestOfChunk;
  if (pictures == nullptr) return;
  header_ = pictures->header();
  headerOffset_ = row.chunkOffset;
  confirmed_.pictures = pictures->pictures();
  confirmed_.gops = pictures->gops();
  confirmed_.dataSize = header_.dataSize;
  confirmed_.last = pictures->last();
}

bool RowWriter::openLeftOver(uint32_t dataEnd) {
  if (!chunks_.open(static_cast<int>(row_.chunkID))) return false;
  if (ownsEnd_) {
    chunks_.picture()->setFreeAddr(
        ringAdvance(headerOffset_, (confirmed_.pictures + 1) * kRecordSize, chunks_.pictureSize()));
    chunks_.stream()->setFreeAddr(dataEnd);
  }
  written_ = confirmed_;
  running_ = true;
  return true;
}

bool RowWriter::closeLeftOver(const DB_STREAM& row, bool newestOfChunk) {
  InterruptedRow found(row);
  const InterruptedRow::Verdict verdict = found.judge();
  if (verdict == InterruptedRow::Verdict::kRefused) {
    syslog(LOG_WARNING, kMsgLeftOverRefused, row.streamID);
    return true;
  }
  const bool hasPictures = verdict == InterruptedRow::Verdict::kPictures;
  takeOver(row, hasPictures ? &found : nullptr, newestOfChunk);
  syslog(LOG_WARNING, kMsgLeftOver, row.streamID, confirmed_.pictures);
  if (!openLeftOver(found.dataEnd())) return false;
  const bool done = finish();
  closeChunk();
  return done;
}

}  // namespace tarn
