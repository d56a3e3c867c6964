#include "media/serve/RowReader.h"

#include <algorithm>

#include "recorder/card/ChunkChannels.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/rows/RowQueries.h"

namespace tarn {
namespace {

// Changes with every write of another process, and costs nothing to ask.
constexpr char kSqlVersion[] = "PRAGMA data_version";
constexpr char kSqlStreams[] = "SELECT * FROM STREAM ORDER BY streamID";
// A page holds the database's lock for some milliseconds: a recorder does not feel it.
constexpr uint32_t kPage = 4000;
constexpr char kSqlEventCount[] = "SELECT COUNT(*) FROM EVENT";
constexpr char kSqlFirstEvent[] = "SELECT COALESCE(MIN(eventID), 0) FROM EVENT";

std::string sqlEventsBehind(uint32_t key) {
  return "SELECT * FROM EVENT WHERE eventID > " + std::to_string(key) + " ORDER BY eventID LIMIT " +
         std::to_string(kPage);
}

std::string sqlEvent(uint32_t key) {
  return "SELECT * FROM EVENT WHERE eventID = " + std::to_string(key);
}

int channelOf(const DB_STREAM& row, const ChunkChannels& chunks) {
  return isKept(row) ? keptChannel(row) : chunks.of(row.chunkID);
}

void sortByTime(ServedRows* rows) {
  for (uint32_t i = 0; i < rows->recordings.size(); ++i) {
    const ServedRecording& one = rows->recordings[i];
    if (one.channel == ChunkChannels::kUnknown) continue;
    (isSound(one.row) ? rows->soundOf : rows->videoOf)[one.channel].push_back(i);
  }
  for (auto* all : {&rows->videoOf, &rows->soundOf}) {
    for (auto& channel : *all) {
      std::stable_sort(channel.second.begin(), channel.second.end(), [&](uint32_t a, uint32_t b) {
        return rows->recordings[a].startUs() < rows->recordings[b].startUs();
      });
    }
  }
}

}  // namespace

RowReader::RowReader() = default;

bool RowReader::fail(const char* text) {
  error_ = text;
  return false;
}

// A database that was put in the other's place is read from its beginning.
bool RowReader::connect() {
  if (db_ != nullptr && watch_.check() == DatabaseWatch::Verdict::kGood) return true;
  db_ = std::make_unique<CApiDb>();
  watch_ = DatabaseWatch();
  whole_ = true;
  if (watch_.begin()) return true;
  db_.reset();
  return fail(DatabaseWatch::text(DatabaseWatch::Verdict::kGone));
}

bool RowReader::isUnchanged(bool* unchanged) {
  RowQueries queries(db_.get(), &watch_);
  uint32_t version = 0;
  if (!queries.number(kSqlVersion, &version)) return fail(queries.failure());
  *unchanged = !whole_ && version == version_;
  version_ = version;
  return true;
}

bool RowReader::readStreams(ServedRows* rows) {
  RowQueries queries(db_.get(), &watch_);
  std::vector<DB_STREAM> listed;
  if (!queries.streams(kSqlStreams, &listed)) return fail(queries.failure());
  if (!leaveOutCopies(db_.get(), &listed)) return fail(queries.failure());
  // A card that does not tell whose its chunks are still has recordings.
  ChunkChannels chunks;
  std::string ignored;
  chunks.read(&ignored);
  rows->recordings.reserve(listed.size());
  for (const DB_STREAM& row : listed) rows->recordings.push_back({row, channelOf(row, chunks)});
  sortByTime(rows);
  return true;
}

bool RowReader::addEvents(std::vector<DB_EVENT>* events) {
  RowQueries queries(db_.get(), &watch_);
  for (std::vector<DB_EVENT> page(kPage); page.size() == kPage;) {
    const uint32_t last = events->empty() ? 0 : events->back().eventID;
    page.clear();
    if (!queries.events(sqlEventsBehind(last).c_str(), &page)) return fail(queries.failure());
    events->insert(events->end(), page.begin(), page.end());
  }
  return true;
}

// An event is written once when it begins and once when it ends.
bool RowReader::renewOpenEvents(std::vector<DB_EVENT>* events) {
  RowQueries queries(db_.get(), &watch_);
  for (DB_EVENT& event : *events) {
    if (event.endDate != 0) continue;
    DB_EVENT now = {};
    const auto answer = queries.event(sqlEvent(event.eventID).c_str(), &now);
    if (answer == RowQueries::Answer::kFailed) return fail(queries.failure());
    if (answer == RowQueries::Answer::kRow) event = now;
  }
  return true;
}

// Events go at the oldest end and come at the newest. Where their number tells that others went,
// all are read again.
bool RowReader::readEvents(const std::vector<DB_EVENT>* before, std::vector<DB_EVENT>* events) {
  RowQueries queries(db_.get(), &watch_);
  uint32_t first = 0;
  uint32_t count = 0;
  if (before != nullptr && !whole_) {
    if (!queries.number(kSqlFirstEvent, &first)) return fail(queries.failure());
    const auto oldest = std::find_if(before->begin(), before->end(), [&](const DB_EVENT& event) {
      return first != 0 && event.eventID >= first;
    });
    events->assign(oldest, before->end());
    if (!renewOpenEvents(events)) return false;
  }
  if (!addEvents(events)) return false;
  if (!queries.number(kSqlEventCount, &count)) return fail(queries.failure());
  if (count == events->size()) return true;
  events->clear();
  return addEvents(events);
}

bool RowReader::refresh(std::shared_ptr<const ServedRows>* rows) {
  bool unchanged = false;
  if (!connect() || !isUnchanged(&unchanged)) return false;
  if (unchanged) return true;
  auto read = std::make_shared<ServedRows>();
  auto events = std::make_shared<std::vector<DB_EVENT>>();
  const std::vector<DB_EVENT>* before = *rows != nullptr ? (*rows)->events.get() : nullptr;
  // What is not read now is read again, whatever the version says.
  const bool good = readStreams(read.get()) && readEvents(before, events.get());
  whole_ = !good;
  if (!good) return false;
  events->shrink_to_fit();
  read->events = events;
  *rows = read;
  return true;
}

}  // namespace tarn
