#include "media/export/ExportSelection.h"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

#include "db/CApiDb.h"
#include "media/export/PeriodEnds.h"
#include "media/export/RecordingSound.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/rows/RecorderDatabase.h"

namespace tarn {
namespace {

// A copy stands where what it is a copy of stood.
auto placeInTime(const DB_STREAM& row) {
  return std::make_tuple(row.startDate, originalKey(row), row.startMSec);
}

}  // namespace

bool ExportSelection::fail(const std::string& text) {
  error_ = text;
  return false;
}

// Whether the last statement says anything.
bool ExportSelection::done(CApiDb* database) { return statementWasDone(*database, &error_); }

bool ExportSelection::chooseStream() {
  CApiDb database;
  DB_STREAM row{};
  const uint32_t found = database.selectStream(*request_.streamID, &row);
  if (!done(&database)) return false;
  if (found != 1) return fail("there is no recording " + std::to_string(*request_.streamID));
  rows_.push_back(row);
  return true;
}

bool ExportSelection::chooseEvent() {
  CApiDb database;
  DB_EVENT event{};
  // 0 and 0xFFFFFFFF have a meaning of their own to the look-up: the first and the last event.
  const uint32_t key = *request_.eventID;
  const bool known = key != 0 && key != UINT32_MAX;
  const bool found = known && database.selectEvent(key, &event) == 1;
  if (known && !done(&database)) return false;
  if (!found) return fail("there is no event " + std::to_string(key));
  if (!streamsOfEvent(event, &rows_)) return fail(kDatabaseUnread);
  from_ = PictureTime::fromMicros((int64_t{event.startDate} - event.preSec) * 1000000 +
                                  int64_t{event.startMSec} * 1000);
  if (event.endDate != 0) to_ = soundTo_ = {event.endDate, event.endMSec * 1000u + 999u};
  return true;
}

bool ExportSelection::choosePeriod() {
  from_ = request_.from.value_or(from_);
  to_ = soundTo_ = request_.to.value_or(to_);
  return streamsOfPeriod(from_.seconds, to_.seconds, request_.trigger.value_or(0), &rows_) ||
         fail(kDatabaseUnread);
}

bool ExportSelection::chooseRows() {
  if (request_.eventID) return chooseEvent();
  return request_.streamID ? chooseStream() : choosePeriod();
}

// The sound that was recorded beside the pictures of a recording, from its first picture on.
bool ExportSelection::addSoundOf(const DB_STREAM& row, const ChunkChannels& chunks) {
  if (row.recSize != 0) soundTo_ = soundEndBeside(row);
  from_ = {row.startDate, row.startMSec * 1000u};
  std::vector<DB_STREAM> beside;
  if (!streamsOfPeriod(row.startDate, soundTo_.seconds, 0, &beside)) return fail(kDatabaseUnread);
  const int channel = chunks.of(row.chunkID);
  std::vector<DB_STREAM> sound;
  std::copy_if(beside.begin(), beside.end(), std::back_inserter(sound),
               [&](const DB_STREAM& other) {
                 return isSound(other) && chunks.of(other.chunkID) == channel;
               });
  const std::vector<DB_STREAM> own = soundOfRecording(row, sound);
  rows_.insert(rows_.end(), own.begin(), own.end());
  return true;
}

// Pictures of two channels have nothing to do with each other.
bool ExportSelection::group() {
  ChunkChannels chunks;
  std::string error;
  // One recording is of one channel, whichever that is.
  const bool known = chunks.read(&error) == 0;
  if (!known && !request_.streamID) return fail(error);
  const bool pictures = request_.streamID && !isSound(rows_.front());
  if (known && pictures && request_.sound && !addSoundOf(DB_STREAM(rows_.front()), chunks))
    return false;
  for (const DB_STREAM& row : rows_) {
    const int channel = isKept(row) ? keptChannel(row) : chunks.of(row.chunkID);
    if (!request_.channel || *request_.channel == channel) rowsOfChannels_[channel].push_back(row);
  }
  return !rowsOfChannels_.empty() || fail("nothing was recorded on that channel in that time");
}

bool ExportSelection::choose(const StopAsked& stopAsked) {
  if (!databaseIsGood(stopAsked, &error_) || !chooseRows()) return false;
  std::sort(rows_.begin(), rows_.end(),
            [](const DB_STREAM& a, const DB_STREAM& b) { return placeInTime(a) < placeInTime(b); });
  if (rows_.empty()) return fail("nothing was recorded in that time");
  return group();
}

}  // namespace tarn
