#include "media/evidence/RecordingsExtract.h"

#include <fcntl.h>

#include <algorithm>

#include "db/CApiDb.h"
#include "db/DbRecordFormat.h"
#include "dblog/JournalFormat.h"
#include "fat/ChunkFiles.h"
#include "media/evidence/EvidenceFolder.h"
#include "media/evidence/GapFinder.h"
#include "media/export/ExportSelection.h"
#include "recorder/card/Source.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/rows/RecorderDatabase.h"
#include "recorder/rows/RowQueries.h"

namespace tarn {
namespace {

constexpr int64_t kMinuteUs = 60000000;
constexpr uint32_t kPieceBytes = 64 * 1024;
constexpr uint32_t kSectorBytes = 512;
// Pictures are stored in the order of decoding: one behind the end may stand in front of one before
// it, but no decoder holds back more.
constexpr uint32_t kMostReordered = 16;
constexpr char kSqlEvents[] = "SELECT * FROM EVENT ORDER BY eventID";
constexpr char kErrStopped[] = "stopped before its end";

// Rows as the journal stores them.
void addStored(const DB_STREAM& row, std::string* out) {
  char record[kStreamRecordSize];
  encodeStreamRecord(row, record);
  out->append(record + kJournalBodyOff, kStoredStreamSize);
}

void addStored(const DB_EVENT& event, std::string* out) {
  char record[kEventRecordSize];
  encodeEventRecord(event, record);
  out->append(record + kJournalBodyOff, kStoredEventSize);
}

}  // namespace

bool RecordingsExtract::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool RecordingsExtract::readEvents() {
  CApiDb database;
  RowQueries queries(&database, nullptr);
  std::vector<DB_EVENT> events;
  if (!queries.events(kSqlEvents, &events)) return fail(queries.failure());
  const PictureTime from = PictureTime::fromMicros(story_->fromUs);
  const PictureTime to = PictureTime::fromMicros(story_->toUs);
  for (const DB_EVENT& event : events) {
    const EventPeriod period = periodOf(event);
    if (to < period.from || (event.endDate != 0 && period.to < from)) continue;
    story_->events.push_back(event);
    addStored(event, &events_);
  }
  return true;
}

// What a gap at the period's begin is to be judged by.
bool RecordingsExtract::readBefore() {
  const PictureTime from = PictureTime::fromMicros(story_->fromUs);
  if (!streamsOfPeriod(0, from.seconds, 0, &before_)) return fail(kDatabaseUnread);
  before_.erase(std::remove_if(before_.begin(), before_.end(),
                               [&](const DB_STREAM& row) {
                                 return row.endDate == 0 || row.endDate >= from.seconds ||
                                        isSound(row);
                               }),
                before_.end());
  return true;
}

const DB_STREAM* RecordingsExtract::lastBefore(int channel) const {
  const DB_STREAM* last = nullptr;
  for (const DB_STREAM& row : before_) {
    const int own = isKept(row) ? keptChannel(row) : chunks_.of(row.chunkID);
    if (own == channel && (last == nullptr || last->endDate <= row.endDate)) last = &row;
  }
  return last;
}

// Around what the device does not give, sector by sector.
void RecordingsExtract::copyPiece(ChunkSource* chunk, uint32_t at, uint32_t length,
                                  EvidenceRecording* recording, std::vector<uint8_t>* bytes) {
  bytes->assign(length, 0);
  if (chunk->read(at, bytes->data(), length) == Delivery::kGood) return;
  for (uint32_t done = 0; done < length;) {
    const uint32_t piece = std::min(kSectorBytes - (at + done) % kSectorBytes, length - done);
    if (chunk->readOnce((at + done) % chunk->size(), bytes->data() + done, piece) !=
        Delivery::kGood) {
      std::fill_n(bytes->begin() + done, piece, uint8_t{0});
      recording->entriesMissing += piece;
    }
    done += piece;
  }
}

// Header and entries as they lie in the picture chunk, from the header on.
bool RecordingsExtract::copyEntries(EvidenceRecording* recording, uint32_t pictures) {
  const DB_STREAM& row = recording->row;
  ChunkSource chunk(kFilePicture, row.chunkID, O_RDONLY);
  recording->entriesAt = entriesBytes_;
  if (!chunk.isOpen() || row.chunkOffset >= chunk.size()) return true;
  const uint64_t wanted = (uint64_t{pictures} + 1) * kRecordSize;
  const auto length = static_cast<uint32_t>(std::min<uint64_t>(wanted, chunk.size()));
  std::vector<uint8_t> bytes;
  for (uint32_t done = 0; done < length; done += static_cast<uint32_t>(bytes.size())) {
    const auto at = static_cast<uint32_t>((uint64_t{row.chunkOffset} + done) % chunk.size());
    copyPiece(&chunk, at, std::min(kPieceBytes, length - done), recording, &bytes);
    if (!entries_.write(bytes.data(), bytes.size())) return fail(entries_.error());
  }
  recording->entriesBytes = length;
  entriesBytes_ += length;
  return true;
}

void RecordingsExtract::notePicture(const PictureEntry& entry, uint32_t index,
                                    EvidenceRecording* recording, EvidenceChannel* channel) {
  const PictureTime time = entry.presentation;
  if (recording->pictures == 0 || time < recording->first) recording->first = time;
  if (recording->pictures == 0 || recording->last < time) recording->last = time;
  ++recording->pictures;
  if (!entry.isKey() || isSound(recording->row)) return;
  const auto minuteOf = [](PictureTime one) { return one.totalMicros() / kMinuteUs; };
  std::vector<EvidencePicture>& minutes = channel->minutes;
  if (minutes.empty() || minuteOf(minutes.back().time) < minuteOf(time))
    minutes.push_back({recording->row, index, time});
}

void RecordingsExtract::walk(RecordingReader* reader, EvidenceRecording* recording,
                             EvidenceChannel* channel, GapFinder* gaps) {
  RecordingIndex index(recording->row);
  PictureEntry entry;
  uint32_t behind = 0;
  for (uint32_t i = 0; i < reader->pictureCount() && behind <= kMostReordered; ++i) {
    if (!reader->picture(i, &entry)) {
      const Delivery why = index.entry(i, &entry);
      ++(why == Delivery::kRefused ? recording->unreadable : recording->damaged);
      if (gaps != nullptr) gaps->missing(why);
      continue;
    }
    const int64_t us = entry.presentation.totalMicros();
    if (us > story_->toUs) ++behind;
    if (us > story_->toUs) continue;
    if (gaps != nullptr) gaps->picture(us);
    if (us >= story_->fromUs) notePicture(entry, i, recording, channel);
  }
}

bool RecordingsExtract::addRecording(const DB_STREAM& row, EvidenceChannel* channel,
                                     GapFinder* gaps) {
  EvidenceRecording recording;
  recording.row = row;
  addStored(row, &rows_);
  // Only pictures are looked for: sound beside a gap does not fill it.
  GapFinder* const ofPictures = isSound(row) ? nullptr : gaps;
  if (ofPictures != nullptr) ofPictures->recording(&row);
  RecordingReader reader;
  recording.readable = reader.open(row) == 0;
  if (recording.readable) {
    walk(&reader, &recording, channel, ofPictures);
  } else if (ofPictures != nullptr) {
    StreamHeader header;
    ofPictures->missing(RecordingIndex(row).header(&header));
  }
  const bool good =
      copyEntries(&recording, recording.readable ? reader.pictureCount() : row.recSize);
  channel->recordings.push_back(recording);
  return good;
}

bool RecordingsExtract::writeChannel(int channel, const std::vector<DB_STREAM>& rows) {
  story_->channels.emplace_back();
  EvidenceChannel& story = story_->channels.back();
  story.channel = channel;
  GapFinder gaps(channel, story_->journal, chunks_, lastBefore(channel));
  gaps.beginAt(story_->fromUs);
  for (const DB_STREAM& row : rows) {
    if (stopAsked_ && stopAsked_()) return fail(kErrStopped);
    if (!addRecording(row, &story, &gaps)) return false;
  }
  gaps.endAt(story_->toUs);
  story.gaps = gaps.take();
  return true;
}

bool RecordingsExtract::write(const ExportSelection& selection) {
  std::string ignored;  // then every channel is unknown, as to the export
  chunks_.read(&ignored);
  if (!readEvents() || !readBefore()) return false;
  if (!entries_.open(folder_->pathOf("original/entries.bin"))) return fail(entries_.error());
  for (const auto& [channel, rows] : selection.rowsOfChannels()) {
    if (!writeChannel(channel, rows)) return false;
  }
  if (!entries_.close()) return fail(entries_.error());
  return (folder_->write("original/recordings.bin", rows_) &&
          folder_->write("original/events.bin", events_)) ||
         fail(folder_->error());
}

}  // namespace tarn
