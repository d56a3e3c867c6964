#include "media/archive/ArchivePlan.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "db/CApiDb.h"
#include "fat/ChunkFiles.h"
#include "manager/ManageFormat.h"
#include "media/archive/ArchiveNames.h"
#include "media/export/RecordingSound.h"
#include "recorder/card/CardInfo.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/rows/RecorderDatabase.h"
#include "recorder/rows/RowQueries.h"

namespace tarn {
namespace {

constexpr char kSqlEvents[] = "SELECT * FROM EVENT";

int64_t msOf(uint32_t seconds, uint16_t milliseconds) {
  return int64_t{seconds} * 1000 + milliseconds;
}

bool isRunning(const DB_STREAM& row) { return row.recSize == 0; }

bool anyRuns(const std::vector<DB_STREAM>& rows) {
  return std::any_of(rows.begin(), rows.end(), isRunning);
}

// Sound that an .mp4 does not hold.
bool isRaw(const DB_STREAM& row) {
  const SoundCodec codec = isSound(row) ? soundCodecOf(row) : SoundCodec::kUnknown;
  return codec == SoundCodec::kAlaw || codec == SoundCodec::kMulaw;
}

void sortNewestFirst(std::vector<ArchiveLine>* lines, size_t from) {
  std::sort(lines->begin() + static_cast<ptrdiff_t>(from), lines->end(),
            [](const ArchiveLine& a, const ArchiveLine& b) { return b < a; });
}

}  // namespace

bool ArchivePlan::readRows() {
  CApiDb database;
  RowQueries queries(&database, nullptr);
  if (!story_.read(&error_)) return false;
  if (streamsOfPeriod(0, UINT32_MAX, 0, &rows_) && queries.events(kSqlEvents, &events_))
    return true;
  error_ = kDatabaseUnread;
  return false;
}

bool ArchivePlan::read(const StopAsked& stopAsked) {
  if (!databaseIsGood(stopAsked, &error_) || !readRows()) return false;
  for (size_t i = 0; i < rows_.size(); ++i) rowOfKey_[rows_[i].streamID] = i;
  for (const DB_EVENT& event : events_) addEvent(event);
  sortNewestFirst(&clips_, 0);
  const size_t recordings = clips_.size();
  for (const DB_STREAM& row : rows_) addRecording(row);
  sortNewestFirst(&clips_, recordings);
  return true;
}

void ArchivePlan::addGaps() {
  story_.readJournal();
  const std::vector<ArchiveLine> gaps = story_.gapsBetween(rows_);
  others_.insert(others_.end(), gaps.begin(), gaps.end());
}

// Whether a recording may still get something from before this moment: pictures are stored in the
// order of decoding, and none is shown before it is decoded.
bool ArchivePlan::mayGrowBefore(const DB_STREAM& row, PictureTime time) {
  if (!isRunning(row)) return false;
  const auto [safe, isNew] = safeTo_.try_emplace(row.streamID, INT64_MIN);
  RecordingReader reader;
  if (isNew && reader.open(row) == 0) {
    PictureEntry entry;
    for (uint32_t left = reader.pictureCount(); left > 0; --left) {
      if (!reader.picture(left - 1, &entry)) continue;
      safe->second = entry.decodeTime().totalMicros();
      break;
    }
  }
  return safe->second <= time.totalMicros();
}

void ArchivePlan::addClip(ArchiveLine line, const std::vector<DB_STREAM>& rows) {
  const bool video =
      std::any_of(rows.begin(), rows.end(), [](const DB_STREAM& row) { return !isSound(row); });
  line.media = video ? "video" : "sound";
  line.object = clipName(line, std::any_of(rows.begin(), rows.end(), isRaw));
  clips_.push_back(std::move(line));
}

// What a row still gets of an event's time would make other bytes of the same clip.
void ArchivePlan::addEvent(const DB_EVENT& event) {
  const EventPeriod period = periodOf(event);
  std::map<int, std::vector<DB_STREAM>> rowsOf;
  bool running = event.endDate == 0;
  for (const DB_STREAM& row : rows_) {
    if (!showsAnyOf(row, period.from, period.to)) continue;
    running = running || mayGrowBefore(row, period.to);
    rowsOf[channelOf(row)].push_back(row);
  }
  ArchiveLine line;
  line.kind = "event";
  line.recorder = recorder_;
  line.key = event.eventID;
  line.startMs = msOf(event.startDate, event.startMSec);
  line.endMs = msOf(event.endDate, event.endMSec);
  line.trigger = event.extTrg;
  line.preSeconds = event.preSec;
  if (running) {
    waitingEvents_.insert(event.eventID);
  } else if (rowsOf.empty()) {
    others_.push_back(line);
  }
  for (const auto& [channel, rows] : rowsOf) {
    line.channel = channel;
    if (!running) addClip(line, rows);
  }
}

// The sound that a clip of these pictures takes along.
std::vector<DB_STREAM> ArchivePlan::soundBeside(const DB_STREAM& row) const {
  std::vector<DB_STREAM> beside;
  const PictureTime from = {row.startDate, row.startMSec * 1000u};
  const PictureTime to = {row.endDate + 1, row.endMSec * 1000u};
  std::copy_if(rows_.begin(), rows_.end(), std::back_inserter(beside), [&](const DB_STREAM& other) {
    return isSound(other) && channelOf(other) == channelOf(row) && showsAnyOf(other, from, to);
  });
  return soundOfRecording(row, beside);
}

void ArchivePlan::addRecording(const DB_STREAM& row) {
  std::vector<DB_STREAM> rows = {row};
  if (!isRunning(row) && !isSound(row)) {
    const std::vector<DB_STREAM> sound = soundBeside(row);
    rows.insert(rows.end(), sound.begin(), sound.end());
  }
  if (anyRuns(rows)) {
    ++waitingRecordings_;
    return;
  }
  ArchiveLine line;
  line.kind = "recording";
  line.recorder = recorder_;
  line.channel = channelOf(row);
  line.key = row.streamID;
  line.copyOf = isKept(row) ? originalKey(row) : 0;
  line.startMs = msOf(row.startDate, row.startMSec);
  line.endMs = msOf(row.endDate, row.endMSec);
  line.trigger = row.inTrg;
  addClip(line, rows);
}

const DB_STREAM* ArchivePlan::rowOf(uint32_t key) const {
  const auto found = rowOfKey_.find(key);
  return found != rowOfKey_.end() ? &rows_[found->second] : nullptr;
}

// Nothing is overwritten as long as there are chunks that belong to no channel.
bool ArchivePlan::isNearlyFull() const {
  constexpr uint32_t kFew = 10;  // of a hundred
  CardInfo info;
  std::string ignored;
  if (info.read(deviceName(kRecorderPartition), &ignored) != 0) return true;
  const auto& records = info.management(kFileStreamManage).records;
  const auto unused = std::count_if(records.begin(), records.end(), [](const auto& record) {
    return static_cast<int8_t>(record.chType) == kChannelUnused;
  });
  return static_cast<uint64_t>(unused) * 100 < records.size() * uint64_t{kFew};
}

// They go in the order of their keys.
std::vector<const ArchiveLine*> ArchivePlan::endangered(
    const std::set<std::string>& archived) const {
  constexpr uint64_t kPart = 10;
  std::vector<const ArchiveLine*> found;
  if (!isNearlyFull()) return found;
  uint64_t pictures = 0;
  std::map<uint32_t, uint64_t> recordings;
  for (const DB_STREAM& row : rows_) {
    if (isKept(row)) continue;
    recordings[row.streamID] = row.recSize;
    pictures += row.recSize;
  }
  std::set<uint32_t> next;
  uint64_t before = 0;
  for (const auto& [key, count] : recordings) {
    if (before >= pictures / kPart) break;
    before += count;
    next.insert(key);
  }
  for (auto line = clips_.rbegin(); line != clips_.rend(); ++line) {
    if (line->kind == "recording" && next.count(line->key) != 0 &&
        archived.count(line->object) == 0)
      found.push_back(&*line);
  }
  return found;
}

}  // namespace tarn
