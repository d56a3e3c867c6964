#include "db/JournalCalls.h"

#include <mutex>

#include "dblog/CDbLog.h"

namespace tarn::journal_calls {
namespace {

std::recursive_mutex& insertMutex() {
  static std::recursive_mutex mutex;
  return mutex;
}

}  // namespace

InsertLock::InsertLock() { insertMutex().lock(); }
InsertLock::~InsertLock() { insertMutex().unlock(); }

unsigned long eventBackOffset() { return CDbLog::getInstance()->getEventLogBackOffset(); }
unsigned long streamBackOffset() { return CDbLog::getInstance()->getStreamLogBackOffset(); }

bool insertEvent(const DB_EVENT* record) { return CDbLog::getInstance()->insertEvent(record); }
bool updateEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* record) {
  return CDbLog::getInstance()->updateEvent(mask, record);
}
bool deleteEvent(unsigned long eventID) { return CDbLog::getInstance()->deleteEvent(eventID); }
bool insertStream(const DB_STREAM* record) { return CDbLog::getInstance()->insertStream(record); }
bool updateStream(DB_STREAM_REG_BIT mask, const DB_STREAM* record) {
  return CDbLog::getInstance()->updateStream(mask, record);
}
bool deleteStream(unsigned long streamID) { return CDbLog::getInstance()->deleteStream(streamID); }
bool lastChangeOnCard() { return CDbLog::lastChangeOnCard(); }

}  // namespace tarn::journal_calls
