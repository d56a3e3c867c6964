#include "dblog/CDbLog.h"

#include <sys/prctl.h>
#include <syslog.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "base/Omission.h"
#include "base/Wrap.h"
#include "chunk/CTARNMirroredChunk.h"
#include "chunk/ChunkMessages.h"
#include "db/CApiDb.h"
#include "dblog/DbLogMessages.h"
#include "dblog/JournalFormat.h"
#include "dblog/JournalOperation.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNEndlessManager.h"

using namespace tarn;

namespace {

constexpr unsigned long kNoRecordBit = 0x80000000;
constexpr size_t kProcessNameRoom = 24;
constexpr uint32_t kSearchCloseMs = 1000;  // a statement takes less

// What an update writes of a mask: never the key, never backOffset.
constexpr DB_EVENT_REG_BIT kEventPatchable = kEventRegUpdatable & ~kEventRegBackOffset;
constexpr DB_STREAM_REG_BIT kStreamPatchable = kStreamRegUpdatable & ~kStreamRegBackOffset;

// Of the calling thread: one instance serves all threads, and each asks about its own change.
thread_local bool t_lastChangeOnCard = false;

// Kept on purpose: preSec is not among them. The journal keeps the pre-event seconds of the insert.
void patchEvent(DB_EVENT_REG_BIT mask, const DB_EVENT& from, DB_EVENT* to) {
  if (mask & kEventRegExtTrg) to->extTrg = from.extTrg;
  if (mask & kEventRegStartDate) to->startDate = from.startDate;
  if (mask & kEventRegEndDate) to->endDate = from.endDate;
  if (mask & kEventRegStartMSec) to->startMSec = from.startMSec;
  if (mask & kEventRegEndMSec) to->endMSec = from.endMSec;
}

void patchStream(DB_STREAM_REG_BIT mask, const DB_STREAM& from, DB_STREAM* to) {
  if (mask & kStreamRegInTrg) to->inTrg = from.inTrg;
  if (mask & kStreamRegFrameSet) to->frameSet = from.frameSet;
  if (mask & kStreamRegBitrateSet) to->bitrateSet = from.bitrateSet;
  if (mask & kStreamRegRecSize) to->recSize = from.recSize;
  if (mask & kStreamRegChunkID) to->chunkID = from.chunkID;
  if (mask & kStreamRegChunkOffset) to->chunkOffset = from.chunkOffset;
  if (mask & kStreamRegChunkSize) to->chunkSize = from.chunkSize;
  if (mask & kStreamRegStatus) to->status = from.status;
  if (mask & kStreamRegStartDate) to->startDate = from.startDate;
  if (mask & kStreamRegEndDate) to->endDate = from.endDate;
  if (mask & kStreamRegStartMSec) to->startMSec = from.startMSec;
  if (mask & kStreamRegEndMSec) to->endMSec = from.endMSec;
}

}  // namespace

CDbLog* CDbLog::getInstance() {
  static CDbLog instance;
  return &instance;
}

CDbLog::CDbLog() = default;

CDbLog::CDbLog(const CDbLog&) {}

// What finish() could not close is left to the end of the process: to close it would wait for a
// lock that a dead process holds for ever.
CDbLog::~CDbLog() {
  finish();
  const MutexLock lock(m_searchLock);
  static_cast<void>(m_searchDb.release());
}

// --- Connection ---

int CDbLog::connect() {
  const MutexLock lock(m_lock);
  return connectLocked();
}

int CDbLog::connectLocked() {
  if (m_connected) return 0;
  syslog(LOG_INFO, kMsgJournalConnect);
  char name[kProcessNameRoom] = {};
  if (prctl(PR_GET_NAME, name) != 0) {
    m_processMode = kModeUnknown;
  } else if (!openAllLocked()) {
    closeAllLocked();
    return -1;
  }
  m_connected = 1;
  return 0;
}

bool CDbLog::openAllLocked() {
  if (!openManagerLocked()) {
    syslog(LOG_ERR, kMsgJournalNoManager);
    return false;
  }
  // Kept on purpose: the name is not compared with anything. Every process that can read its own
  // name counts as the recording manager and may use every operation.
  m_processMode = kModeRecman;
  if (!openJournalLocked(JournalKind::kEvent)) {
    syslog(LOG_ERR, kMsgJournalNoEventChunk);
    return false;
  }
  if (!openJournalLocked(JournalKind::kStream)) {
    syslog(LOG_ERR, kMsgJournalNoStreamChunk);
    return false;
  }
  return true;
}

bool CDbLog::openManagerLocked() {
  m_manager.reset(new (std::nothrow) CTARNEndlessManager(kRecorderPartition, kFileJournal));
  return m_manager != nullptr && m_manager->openManageData() == 0;
}

// A pair whose offsets nobody knows must not be written to: it would overwrite its oldest records
// from offset 0 on.
bool CDbLog::openJournalLocked(JournalKind kind) {
  auto& journal = slotLocked(kind);
  journal.reset(new (std::nothrow) CTARNMirroredChunk(kFileJournal));
  if (journal == nullptr) return false;
  const short chunk = journalTraits(kind).chunk;
  return journal->openChunkFile(m_manager.get(), static_cast<unsigned short>(chunk),
                                static_cast<unsigned short>(chunk + kJournalMirrorStep)) == 0 &&
         journal->isUsageKnown();
}

// The stream journal first, and the manager last: closing a chunk still tells it the free offset.
void CDbLog::closeAllLocked() {
  m_streamJournal.reset();
  m_eventJournal.reset();
  if (m_manager != nullptr) m_manager->closeManageData();
  m_manager.reset();
}

std::unique_ptr<CTARNMirroredChunk>& CDbLog::slotLocked(JournalKind kind) {
  return kind == JournalKind::kEvent ? m_eventJournal : m_streamJournal;
}

bool CDbLog::admit(const Operation& operation) {
  const MutexLock lock(m_lock);
  return admitLocked(operation);
}

bool CDbLog::admitLocked(const Operation& operation) {
  if (connectLocked() != 0) {
    syslog(LOG_ERR, kMsgJournalConnectError, operation.name);
    return false;
  }
  if (!operation.allows(m_processMode)) {
    syslog(LOG_ERR, "%s", operation.refusal);
    return false;
  }
  return true;
}

// --- Flushing and closing ---

// Under the lock although it waits for the card: another thread's write would use the same chunks,
// and its requests the same connection to the server.
void CDbLog::flushLocked() {
  if (omitted("mirror-flush")) return;
  if (m_streamJournal != nullptr) m_streamJournal->fSync();
  if (m_eventJournal != nullptr) m_eventJournal->fSync();
}

int CDbLog::writeLog() {
  const MutexLock lock(m_lock);
  flushLocked();
  if (m_manager != nullptr) m_manager->saveManageData();
  return 0;
}

bool CDbLog::lastChangeOnCard() { return t_lastChangeOnCard; }

// In the critical section of the write: a flush of another thread's that failed in between would
// have taken the news with it. The original was flushed before the mirror was touched, and the
// other journal has nothing new unless its last flush failed: their devices are left alone.
void CDbLog::settleLocked(JournalKind kind, bool save) {
  settleJournalLocked(JournalKind::kStream, kind);
  settleJournalLocked(JournalKind::kEvent, kind);
  const auto& journal = slotLocked(kind);
  t_lastChangeOnCard = journal != nullptr && !journal->lastFlushFailed();
  if (save && m_manager != nullptr) m_manager->saveManageData();
}

void CDbLog::settleJournalLocked(JournalKind kind, JournalKind changed) {
  if (omitted("mirror-flush")) return;
  const auto& journal = slotLocked(kind);
  if (journal == nullptr) return;
  if (kind == changed || journal->lastFlushFailed()) {
    journal->settle();
  } else {
    journal->tellFreeAddr();
  }
}

int CDbLog::writeLogNoManage() {
  const MutexLock lock(m_lock);
  flushLocked();
  return 0;
}

int CDbLog::finish() {
  writeLog();
  {
    const MutexLock lock(m_lock);
    closeAllLocked();
    m_connected = 0;
  }
  const MutexLock lock(m_searchLock);
  if (m_searchDb != nullptr && m_searchDb->finishWithin(kSearchCloseMs)) m_searchDb.reset();
  return 0;
}

// --- Appending ---

bool CDbLog::insertEvent(const DB_EVENT* record) {
  uint8_t bytes[kEventRecordSize];
  encodeEventRecord(*record, bytes);
  return append(Operation::insertEvent, bytes);
}

bool CDbLog::insertStream(const DB_STREAM* record) {
  uint8_t bytes[kStreamRecordSize];
  encodeStreamRecord(*record, bytes);
  return append(Operation::insertStream, bytes);
}

bool CDbLog::append(const Operation& operation, void* record) {
  const JournalTraits& traits = journalTraits(operation.kind);
  const auto size = static_cast<long>(traits.recordSize);
  t_lastChangeOnCard = false;
  const MutexLock lock(m_lock);
  if (!admitLocked(operation)) return false;
  const long crcLength = static_cast<long>(traits.crcLength);
  if (slotLocked(operation.kind)->write(record, size, crcLength) != size) {
    syslog(LOG_ERR, "%s", operation.writeError);
    return false;
  }
  settleLocked(operation.kind, true);
  return true;
}

// --- Changing in place ---

bool CDbLog::seekLocked(const Operation& operation, uint32_t offset) {
  CTARNMirroredChunk& journal = *slotLocked(operation.kind);
  const uint32_t chunkSize = low32(journal.getChunkSize());
  const uint32_t size = journalTraits(operation.kind).recordSize;
  // Behind the chunk's end lies the next one, whose records look just as good.
  const bool inside = chunkSize >= size && offset <= chunkSize - size;
  if (inside && journal.seek(static_cast<long>(offset), SEEK_SET) >= 0) return true;
  syslog(LOG_ERR, "%s", operation.seekError);
  return false;
}

// The mirror is asked only where the original is not a record of this place. A checksum alone is no
// proof: an original that the card lost as zeros would be patched and written over the good mirror.
bool CDbLog::readAtLocked(const Operation& operation, uint32_t offset, void* record) {
  if (!seekLocked(operation, offset)) return false;
  const JournalTraits& traits = journalTraits(operation.kind);
  const auto size = static_cast<long>(traits.recordSize);
  CTARNMirroredChunk& journal = *slotLocked(operation.kind);
  uint8_t first[kStreamRecordSize];
  uint8_t second[kStreamRecordSize];
  const uint8_t* original = journal.readOriginal(first, size) ? first : nullptr;
  const uint8_t* mirror = nullptr;
  if (original == nullptr || !journalRecordInPlace(traits, original, offset)) {
    if (journal.readMirror(second, size)) mirror = second;
  }
  const JournalCopy copy = judgeJournalCopies(traits, offset, original, mirror);
  if (copy != JournalCopy::kOriginal && copy != JournalCopy::kMirror) {
    syslog(LOG_ERR, "%s", operation.readError);
    return false;
  }
  if (copy == JournalCopy::kMirror) {
    syslog(LOG_WARNING, kMsgMirrorUsed, "read",
           static_cast<unsigned long>(offset) + traits.recordSize);
  }
  memcpy(record, copy == JournalCopy::kOriginal ? original : mirror, traits.recordSize);
  return true;
}

bool CDbLog::writeAtLocked(const Operation& operation, uint32_t offset, void* record) {
  if (!seekLocked(operation, offset)) return false;
  const JournalTraits& traits = journalTraits(operation.kind);
  const auto size = static_cast<long>(traits.recordSize);
  CTARNMirroredChunk& journal = *slotLocked(operation.kind);
  if (journal.writeNoSeek(record, size, static_cast<long>(traits.crcLength)) == size) return true;
  syslog(LOG_ERR, "%s", operation.writeError);
  return false;
}

// One critical section from the read to the write: two threads that change different fields of one
// record must not undo each other's change.
template <typename Patch>
bool CDbLog::rewrite(const Operation& operation, unsigned long offset, Patch patch) {
  if (offset & kNoRecordBit) {
    syslog(LOG_ERR, "%s", operation.noRecord);
    return false;
  }
  uint8_t record[kStreamRecordSize];  // the greater of the two
  const MutexLock lock(m_lock);
  // Another thread may have finished the journal during the look-up.
  if (!admitLocked(operation)) return false;
  if (!readAtLocked(operation, low32(offset), record)) return false;
  patch(record);
  if (!writeAtLocked(operation, low32(offset), record)) return false;
  settleLocked(operation.kind, false);
  return true;
}

bool CDbLog::updateEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* record) {
  t_lastChangeOnCard = false;
  if (!admit(Operation::updateEvent)) return false;
  mask &= kEventPatchable;
  if (mask == 0) {
    syslog(LOG_WARNING, kMsgUpdateEventLogNoBits);
    return false;
  }
  return rewrite(Operation::updateEvent, searchEventBackOffset(record->eventID),
                 [&](uint8_t* bytes) {
                   DB_EVENT row;
                   decodeEventRecord(bytes, &row);
                   patchEvent(mask, *record, &row);
                   encodeEvent(row, bytes + kJournalBodyOff);
                 });
}

bool CDbLog::updateStream(DB_STREAM_REG_BIT mask, const DB_STREAM* record) {
  t_lastChangeOnCard = false;
  if (!admit(Operation::updateStream)) return false;
  mask &= kStreamPatchable;
  if (mask == 0) {
    syslog(LOG_WARNING, kMsgUpdateStreamLogNoBits);
    return false;
  }
  return rewrite(Operation::updateStream, searchStreamBackOffset(record->streamID),
                 [&](uint8_t* bytes) {
                   DB_STREAM row;
                   decodeStreamRecord(bytes, &row);
                   patchStream(mask, *record, &row);
                   encodeStream(row, bytes + kJournalBodyOff);
                 });
}

bool CDbLog::deleteEvent(unsigned long eventID) {
  t_lastChangeOnCard = false;
  return admit(Operation::deleteEvent) &&
         markDeleted(Operation::deleteEvent, searchEventBackOffset(eventID));
}

bool CDbLog::deleteStream(unsigned long streamID) {
  t_lastChangeOnCard = false;
  return admit(Operation::deleteStream) &&
         markDeleted(Operation::deleteStream, searchStreamBackOffset(streamID));
}

bool CDbLog::markDeleted(const Operation& operation, unsigned long offset) {
  if (omitted("record-delete")) {
    t_lastChangeOnCard = true;
    return true;
  }
  const uint32_t marker = journalTraits(operation.kind).deletedMarker;
  return rewrite(operation, offset, [marker](uint8_t* bytes) { setJournalMarker(bytes, marker); });
}
