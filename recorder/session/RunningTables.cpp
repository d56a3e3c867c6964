#include "recorder/session/RunningTables.h"

#include <cstdio>

namespace tarn {
namespace {

constexpr char kSqlNextKeys[] =
    "SELECT COALESCE((SELECT seq FROM sqlite_sequence WHERE name = '%s'), 0) + 1";
constexpr DB_STREAM_REG_BIT kStreamTimes =
    kStreamRegStatus | kStreamRegStartDate | kStreamRegEndDate;
constexpr DB_EVENT_REG_BIT kEventStart = kEventRegStartDate | kEventRegStartMSec;
constexpr DB_EVENT_REG_BIT kEventEnd = kEventRegEndDate | kEventRegEndMSec;

}  // namespace

bool RunningTables::streams(const std::string& sql, std::vector<DB_STREAM>* rows) {
  return asked(queries_.streams(sql.c_str(), rows));
}

bool RunningTables::events(const std::string& sql, std::vector<DB_EVENT>* rows) {
  return asked(queries_.events(sql.c_str(), rows));
}

bool RunningTables::change(const DB_STREAM& before, const DB_STREAM& after) {
  return done(rows_.update(kStreamTimes, before, after));
}

bool RunningTables::change(const DB_EVENT& before, const DB_EVENT& after) {
  return done(
      rows_.update(before.endDate != 0 ? kEventStart | kEventEnd : kEventStart, before, after));
}

int RunningTables::channelOf(uint32_t chunk) {
  signed char owner = -1;
  signed char type = 0;
  return chunk < manager_->getNumChunk() &&
                 manager_->getChType(static_cast<short>(chunk), &owner, &type) == 0
             ? owner
             : -1;
}

bool RunningTables::nextKey(const char* table, uint32_t* key) {
  char sql[sizeof kSqlNextKeys + 16];
  snprintf(sql, sizeof sql, kSqlNextKeys, table);
  return asked(queries_.number(sql, key));
}

bool RunningTables::nextKeys(ClockEras::Keys* keys) {
  return nextKey("STREAM", &keys->stream) && nextKey("EVENT", &keys->event);
}

bool RunningTables::asked(bool good) {
  return good || fail(RecordingError::kDatabase, queries_.failure());
}

bool RunningTables::done(JournaledRows::Outcome outcome) {
  if (outcome == JournaledRows::Outcome::kDone) return true;
  return fail(outcome == JournaledRows::Outcome::kJournal ? RecordingError::kJournal
                                                          : RecordingError::kDatabase,
              rows_.failure());
}

bool RunningTables::fail(RecordingError error, const char* text) {
  error_ = error;
  text_ = text;
  return false;
}

}  // namespace tarn
