// Where the journals' records lie: the next place of each, and the place of a row's record.
#include <sys/stat.h>
#include <syslog.h>

#include <cstdio>
#include <new>

#include "base/Wrap.h"
#include "chunk/CTARNMirroredChunk.h"
#include "db/CApiDb.h"
#include "db/DatabaseFile.h"
#include "dblog/CDbLog.h"
#include "dblog/DbLogMessages.h"
#include "dblog/JournalOperation.h"
#include "manager/CTARNEndlessManager.h"

using namespace tarn;

namespace {

constexpr char kSqlSearchEvent[] = "SELECT backOffset FROM EVENT WHERE eventID = %lu";
constexpr char kSqlSearchStream[] = "SELECT backOffset FROM STREAM WHERE streamID = %lu";
constexpr size_t kSqlRoom = 128;

constexpr unsigned long kNoRecord = 0xFFFFFFFF;

}  // namespace

unsigned long CDbLog::nextOffset(const Operation& operation) {
  const MutexLock lock(m_lock);
  return admitLocked(operation) ? slotLocked(operation.kind)->getFreeAddr() : 0;
}

unsigned long CDbLog::getEventLogBackOffset() { return nextOffset(Operation::eventOffset); }

unsigned long CDbLog::getStreamLogBackOffset() { return nextOffset(Operation::streamOffset); }

bool CDbLog::clearDbLogFreeAddr() {
  const MutexLock lock(m_lock);
  if (!admitLocked(Operation::clear)) return false;
  const int chunks = m_manager->getNumChunk();
  for (int chunk = 0; chunk < chunks; ++chunk) {
    m_manager->setUseOffset(static_cast<short>(chunk), 0);
    m_manager->setFreeOffset(static_cast<short>(chunk), 0);
  }
  m_manager->saveManageData();
  m_streamJournal->initFreeAddr();
  m_eventJournal->initFreeAddr();
  return true;
}

int CDbLog::correctFreeOffset(JournalKind kind, unsigned long offset) {
  const MutexLock lock(m_lock);
  if (!admitLocked(Operation::correct)) return -1;
  CTARNMirroredChunk& journal = *slotLocked(kind);
  if (!isJournalPlace(journalTraits(kind), low32(offset), low32(journal.getChunkSize()))) return -1;
  journal.setFreeAddr(low32(offset));
  // The flush tells the server of both chunks.
  return journal.fSync() == 0 && m_manager->saveManageData() == 0 ? 0 : -1;
}

unsigned long CDbLog::getJournalChunkSize() {
  const MutexLock lock(m_lock);
  return admitLocked(Operation::correct) ? m_eventJournal->getChunkSize() : 0;
}

bool CDbLog::readCopy(JournalKind kind, bool mirror, unsigned long offset, void* out, long length) {
  const MutexLock lock(m_lock);
  if (!admitLocked(Operation::correct)) return false;
  CTARNMirroredChunk& journal = *slotLocked(kind);
  if (journal.seek(static_cast<long>(low32(offset)), SEEK_SET) < 0) return false;
  return mirror ? journal.readMirror(out, length) : journal.readOriginal(out, length);
}

unsigned long CDbLog::searchEventBackOffset(unsigned long eventID) {
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlSearchEvent, static_cast<unsigned long>(low32(eventID)));
  return searchBackOffset(sql);
}

unsigned long CDbLog::searchStreamBackOffset(unsigned long streamID) {
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlSearchStream, static_cast<unsigned long>(low32(streamID)));
  return searchBackOffset(sql);
}

unsigned long CDbLog::searchBackOffset(const char* sql) {
  const MutexLock lock(m_searchLock);
  CApiDb* db = searchDbLocked();
  if (db != nullptr) db->setSql(sql);
  if (db == nullptr || !db->lastStatementDone()) {
    syslog(LOG_ERR, kMsgJournalSelectError);
    return kNoRecord;
  }
  return db->getNTuple() == 0 ? kNoRecord : db->getValue(0, 0);
}

CApiDb* CDbLog::searchDbLocked() {
  struct stat file = {};
  const bool there = stat(kDatabasePath, &file) == 0;
  const auto device = static_cast<uint64_t>(file.st_dev);
  const auto inode = static_cast<uint64_t>(file.st_ino);
  const bool same = there && device == m_searchDevice && inode == m_searchInode;
  if (m_searchDb != nullptr && same) return m_searchDb.get();
  m_searchDb.reset(new (std::nothrow) CApiDb);
  m_searchDevice = device;
  m_searchInode = inode;
  return m_searchDb.get();
}
