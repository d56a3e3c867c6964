#include "recorder/rows/Redating.h"

#include <syslog.h>

#include <algorithm>
#include <cinttypes>

#include "db/RowStatus.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RowCorrection.h"
#include "recorder/rows/RedatingRecord.h"
#include "recorder/rows/RowMessages.h"

namespace tarn {
namespace {

std::string number(int64_t value) { return std::to_string(value); }

std::string closedFrom(uint32_t key) {
  return "SELECT * FROM STREAM WHERE streamID >= " + number(key) +
         " AND recSize <> 0 ORDER BY streamID";
}

std::string markedRows() {
  return "SELECT * FROM STREAM WHERE status & " + number(kStatusRedating) + " ORDER BY streamID";
}

std::string eventsFrom(uint32_t key) {
  return "SELECT * FROM EVENT WHERE eventID >= " + number(key) + " ORDER BY eventID";
}

// In the order of what they show; a copy counts as what it is one of, which was recorded when its
// key was given.
void sortByOriginal(std::vector<DB_STREAM>* rows) {
  std::stable_sort(rows->begin(), rows->end(), [](const DB_STREAM& a, const DB_STREAM& b) {
    return originalKey(a) < originalKey(b);
  });
}

// Events that begin within these seconds and that no recording shows.
std::string orphansBetween(int64_t from, int64_t to) {
  return "SELECT * FROM EVENT AS e WHERE e.startDate >= " + number(from) +
         " AND e.startDate <= " + number(to) +
         " AND NOT EXISTS( SELECT 1 FROM STREAM AS s WHERE s.startDate <= e.startDate AND "
         "( s.recSize = 0 OR s.endDate >= e.startDate ) ) ORDER BY e.eventID";
}

std::string eventsBetween(int64_t from, int64_t to) {
  return "SELECT * FROM EVENT WHERE startDate >= " + number(from) +
         " AND startDate <= " + number(to) + " ORDER BY eventID";
}

}  // namespace

bool Redating::move(const DB_STREAM& row, int64_t seconds, uint32_t mark) {
  DB_STREAM moved = row;
  if (!moveRow(seconds, &moved)) return true;
  moved.status |= mark;
  if (!tables_->change(row, moved)) return false;
  ++recordings_;
  return true;
}

bool Redating::move(const DB_EVENT& row, int64_t seconds) {
  const int64_t start = row.startDate + seconds;
  const int64_t end = row.endDate == 0 ? 0 : row.endDate + seconds;
  if (start < 0 || end < 0 || std::max(start, end) > UINT32_MAX) return true;
  DB_EVENT moved = row;
  moved.startDate = static_cast<uint32_t>(start);
  moved.endDate = static_cast<uint32_t>(end);
  if (!tables_->change(row, moved)) return false;
  ++events_;
  return true;
}

int Redating::channelOf(const DB_STREAM& row) {
  return isKept(row) ? keptChannel(row) : tables_->channelOf(row.chunkID);
}

int Redating::familyOf(const DB_STREAM& row) {
  return family(channelOf(row), (row.frameSet & kFrameSetAudio) != 0);
}

bool Redating::recorded(int family, uint32_t firstStream, std::vector<DB_STREAM>* rows) {
  std::vector<DB_STREAM> all;
  if (!tables_->streams(closedFrom(firstStream), &all)) return false;
  for (const DB_STREAM& row : all) {
    if (familyOf(row) == family && originalKey(row) >= firstStream) rows->push_back(row);
  }
  sortByOriginal(rows);
  return true;
}

bool Redating::unmark(DB_STREAM row) {
  if ((row.status & kStatusRedating) == 0) return true;
  const DB_STREAM before = row;
  row.status &= ~kStatusRedating;
  return tables_->change(before, row);
}

// What follows the marked recording of its family that has its old times.
bool Redating::rest(const DB_STREAM& marked, int family, int64_t seconds) {
  std::vector<DB_STREAM> rows;
  if (!recorded(family, originalKey(marked), &rows)) return false;
  return std::all_of(rows.begin(), rows.end(), [&](const DB_STREAM& row) {
    return (row.status & kStatusRedated) != 0 || move(row, seconds, 0);
  });
}

bool Redating::run(int family, uint32_t firstStream, uint32_t firstEvent, int64_t seconds) {
  std::vector<DB_STREAM> rows;
  std::vector<DB_EVENT> events;
  if (!recorded(family, firstStream, &rows) || !tables_->events(eventsFrom(firstEvent), &events))
    return false;
  const auto first = std::find_if(rows.begin(), rows.end(), [&](const DB_STREAM& row) {
    DB_STREAM moved = row;
    return (row.status & kStatusRedated) == 0 && moveRow(seconds, &moved);
  });
  const bool any = first != rows.end();
  if (any && !move(*first, seconds, kStatusRedating)) return false;
  for (const DB_EVENT& event : events) {
    if (!move(event, seconds)) return false;
  }
  if (!any) return true;
  DB_STREAM marked = *first;
  moveRow(seconds, &marked);
  marked.status |= kStatusRedating;
  return rest(marked, family, seconds) && unmark(marked);
}

bool Redating::eventsOf(const DB_STREAM& marked, int family, int64_t seconds) {
  std::vector<DB_STREAM> rows;
  if (!recorded(family, originalKey(marked), &rows)) return false;
  const int64_t from = marked.startDate - seconds;
  int64_t to = from;
  for (const DB_STREAM& row : rows) {
    if ((row.status & kStatusRedated) != 0) to = std::max<int64_t>(to, row.endDate - seconds);
  }
  std::vector<DB_EVENT> events;
  if (!tables_->events(orphansBetween(from, to), &events)) return false;
  return std::all_of(events.begin(), events.end(),
                     [&](const DB_EVENT& event) { return move(event, seconds); });
}

// The record that whoever began it did not come to write: the events are those that begin within
// the times that the recordings have now.
bool Redating::logWhole(const DB_STREAM& marked, int family, int64_t seconds) {
  RedatingRecord record;
  record.channel = channelOf(marked);
  record.sound = (marked.frameSet & kFrameSetAudio) != 0;
  record.firstStream = originalKey(marked);
  record.lastStream = record.firstStream;
  record.firstEvent = 1;
  record.seconds = seconds;
  std::vector<DB_STREAM> rows;
  std::vector<DB_EVENT> events;
  if (!recorded(family, record.firstStream, &rows)) return false;
  uint32_t end = marked.endDate;
  for (const DB_STREAM& row : rows) {
    if ((row.status & kStatusRedated) == 0) continue;
    ++record.moved;
    record.lastStream = std::max(record.lastStream, originalKey(row));
    end = std::max(end, row.endDate);
  }
  if (!tables_->events(eventsBetween(marked.startDate, end), &events)) return false;
  if (!events.empty()) {
    record.movedEvents = static_cast<uint32_t>(events.size());
    record.firstEvent = events.front().eventID;
    record.lastEvent = events.back().eventID;
  }
  record.log();
  return true;
}

bool Redating::finishOne(const DB_STREAM& marked) {
  RecordingIndex index(marked);
  const int family = familyOf(marked);
  const int64_t seconds = rowCorrection(marked, &index);
  if (seconds == 0) {
    // Nothing of it can be read: the mark stays for a later start.
    syslog(LOG_WARNING, kMsgRedatingUnknown, marked.streamID);
    return true;
  }
  const uint32_t before = recordings_ + events_;
  if (!rest(marked, family, seconds) || !eventsOf(marked, family, seconds) || !unmark(marked))
    return false;
  syslog(LOG_NOTICE, kMsgRedatingFinished, channelOf(marked), recordings_ + events_ - before,
         seconds);
  return logWhole(marked, family, seconds);
}

bool Redating::finish(int family) {
  std::vector<DB_STREAM> rows;
  if (!tables_->streams(markedRows(), &rows)) return false;
  return std::all_of(rows.begin(), rows.end(), [&](const DB_STREAM& row) {
    return (family >= 0 && familyOf(row) != family) || finishOne(row);
  });
}

}  // namespace tarn
