#include "video/LibraryAnswers.h"

#include <algorithm>

#include "CardView.h"
#include "RowFacts.h"
#include "db/CApiDb.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/recording/RecordingZone.h"
#include "recorder/recording/SoundBlock.h"
#include "recorder/rows/RecorderDatabase.h"
#include "recorder/rows/RowQueries.h"

namespace tarn {
namespace {

constexpr size_t kMostOpen = 8;  // recordings that are read in turns
constexpr char kCardGone[] = "the card cannot be read any more";
constexpr char kSqlEvents[] = "SELECT * FROM EVENT ORDER BY startDate, startMSec, eventID";

int64_t microsOf(uint32_t seconds, uint16_t milliseconds) {
  return int64_t{seconds} * 1000000 + int64_t{milliseconds} * 1000;
}

// Of a row's end, where 0 stands for one that is not there yet.
int64_t endOf(uint32_t seconds, uint16_t milliseconds) {
  return seconds == 0 ? TARN_NO_TIME : microsOf(seconds, milliseconds);
}

uint32_t secondsOr(int64_t micros, uint32_t none) {
  return micros == TARN_NO_TIME ? none : PictureTime::fromMicros(micros).seconds;
}

// Rows know the millisecond, any part of which may be meant.
bool showsAnyOf(int64_t startUs, int64_t endUs, const ListQuestion& question) {
  if (question.toUs != TARN_NO_TIME && startUs > question.toUs) return false;
  return question.fromUs == TARN_NO_TIME || endUs == TARN_NO_TIME || endUs + 999 >= question.fromUs;
}

int32_t stateOf(const DB_STREAM& row) {
  StreamHeader header;
  if (row.endDate == 0) return TARN_RUNNING;
  if (RecordingIndex(row).header(&header) != Delivery::kGood) return TARN_UNREADABLE;
  return header.marker == kMarkerOpen ? TARN_INTERRUPTED : TARN_COMPLETE;
}

// What a card does not give that was pulled out, or whose view has ended, says nothing about the
// recording: the question fails.
bool isCardGone(const DB_STREAM& row) {
  const RecordingIndex again(row);
  return !again.isOpen() && !again.isPlaceless();
}

}  // namespace

bool LibraryAnswers::answer(const Message& question) {
  const auto with = [&](auto facts, auto member) {
    return question.take(&facts) ? (this->*member)(facts) : failed("the question makes no sense");
  };
  switch (question.kind) {
    case MessageKind::kListRecordings:
      return with(ListQuestion(), &LibraryAnswers::listRecordings);
    case MessageKind::kListEvents:
      return with(ListQuestion(), &LibraryAnswers::listEvents);
    case MessageKind::kRead:
      return with(ReadQuestion(), &LibraryAnswers::read);
    case MessageKind::kSeek:
      return with(SeekQuestion(), &LibraryAnswers::seek);
    case MessageKind::kExport:
      return with(ExportQuestion(), &LibraryAnswers::exportFiles);
    case MessageKind::kVerify:
      return with(VerifyQuestion(), &LibraryAnswers::verify);
    case MessageKind::kStop:
      return true;  // of an export that had ended by itself
    default:
      return failed("a question that nobody knows");
  }
}

bool LibraryAnswers::failed(const std::string& text) const {
  return tell(MessageKind::kFailed, FailureFacts{text});
}

int32_t LibraryAnswers::zoneOf(const DB_STREAM& row) {
  const auto known = zones_.find(row.streamID);
  if (known != zones_.end()) return known->second;
  const int32_t zone = zoneOfRecording(row).value_or(TARN_NO_ZONE);
  if (zone != TARN_NO_ZONE || row.endDate != 0) zones_[row.streamID] = zone;
  return zone;
}

RecordingFacts LibraryAnswers::factsOf(const DB_STREAM& row, const std::vector<DB_STREAM>& copies) {
  RecordingFacts facts;
  facts.id = row.streamID;
  facts.kind = isSound(row) ? TARN_SOUND : TARN_VIDEO;
  facts.state = stateOf(row);
  facts.startUs = microsOf(row.startDate, row.startMSec);
  facts.endUs = endOf(row.endDate, row.endMSec);
  facts.zoneSeconds = zoneOf(row);
  facts.trigger = row.inTrg;
  facts.pictures = isSound(row) ? 0 : row.recSize;
  facts.copyOf = isKept(row) ? originalKey(row) : 0;
  facts.kept = isWholeCopy(row) || isKeptIn(copies, row);
  facts.bytes = recordedBytes(row).value_or(0);
  facts.codec = isSound(row) ? soundCodecName(soundCodecOf(row)) : "h264";
  return facts;
}

bool LibraryAnswers::listRecordings(const ListQuestion& question) {
  CApiDb database;
  std::vector<DB_STREAM> rows;
  std::vector<DB_STREAM> copies;
  ChunkChannels channels;
  std::string error;
  if (!readWholeCopies(&database, &copies) ||
      !streamsOfPeriod(secondsOr(question.fromUs, 0), secondsOr(question.toUs, UINT32_MAX), 0,
                       &rows))
    return failed(kDatabaseUnread);
  if (channels.read(&error) != 0) return failed("channels are not known: " + error);
  std::stable_sort(rows.begin(), rows.end(), [](const DB_STREAM& a, const DB_STREAM& b) {
    return microsOf(a.startDate, a.startMSec) < microsOf(b.startDate, b.startMSec);
  });
  for (const DB_STREAM& row : rows) {
    const int channel = isKept(row) ? keptChannel(row) : channels.of(row.chunkID);
    if (question.channel != TARN_NO_CHANNEL && question.channel != channel) continue;
    if (!showsAnyOf(microsOf(row.startDate, row.startMSec), endOf(row.endDate, row.endMSec),
                    question))
      continue;
    RecordingFacts facts = factsOf(row, copies);
    if ((facts.state == TARN_UNREADABLE || facts.bytes == 0) && isCardGone(row))
      return failed(kCardGone);
    facts.channel = channel == ChunkChannels::kUnknown ? TARN_NO_CHANNEL : channel;
    if (!tell(MessageKind::kRecording, facts)) return false;
  }
  return done();
}

// An event has no zone of its own: that of the pictures of its time is.
EventFacts LibraryAnswers::factsOf(const DB_EVENT& event, const std::vector<DB_STREAM>& copies) {
  EventFacts facts;
  facts.id = event.eventID;
  facts.trigger = event.extTrg;
  facts.preSeconds = event.preSec;
  facts.startUs = microsOf(event.startDate, event.startMSec);
  facts.endUs = endOf(event.endDate, event.endMSec);
  facts.kept = isKeptIn(copies, event);
  std::vector<DB_STREAM> rows;
  if (!streamsOfEvent(event, &rows)) return facts;
  for (const DB_STREAM& row : rows) {
    if (facts.zoneSeconds == TARN_NO_ZONE) facts.zoneSeconds = zoneOf(row);
  }
  return facts;
}

bool LibraryAnswers::listEvents(const ListQuestion& question) {
  CApiDb database;
  std::vector<DB_EVENT> events;
  std::vector<DB_STREAM> copies;
  if (!RowQueries(&database, nullptr).events(kSqlEvents, &events) ||
      !readWholeCopies(&database, &copies))
    return failed(kDatabaseUnread);
  for (const DB_EVENT& event : events) {
    const int64_t startUs =
        microsOf(event.startDate, event.startMSec) - int64_t{event.preSec} * 1000000;
    if (!showsAnyOf(startUs, endOf(event.endDate, event.endMSec), question)) continue;
    if (!tell(MessageKind::kEvent, factsOf(event, copies))) return false;
  }
  return done();
}

RecordingReader* LibraryAnswers::open(uint32_t id, std::string* error) {
  const auto found = std::find_if(open_.begin(), open_.end(),
                                  [id](const OpenRecording& one) { return one.id == id; });
  if (found != open_.end()) {
    open_.splice(open_.begin(), open_, found);
    return &open_.front().reader;
  }
  CApiDb database;
  DB_STREAM row{};
  const uint32_t rows = database.selectStream(id, &row);
  if (!statementWasDone(database, error)) return nullptr;
  open_.emplace_front();
  open_.front().id = id;
  if (rows == 1 && open_.front().reader.open(row) == 0) {
    if (open_.size() > kMostOpen) open_.pop_back();
    return &open_.front().reader;
  }
  open_.pop_front();
  *error = rows != 1 ? "there is no recording " + std::to_string(id)
                     : "recording " + std::to_string(id) +
                           " cannot be read: the card does not give what it begins with";
  return nullptr;
}

// Each frame of a block by itself. A recording that was given another time keeps that of its blocks
// and has its own in the entries.
bool LibraryAnswers::tellSound(const SampleFacts& block, uint64_t* bytes) const {
  SoundBlock parts;
  if (!parts.decode(block.bytes.data(), block.bytes.size())) {
    SampleFacts lost = block;
    lost.bytes.clear();
    lost.flags |= TARN_LOST;
    return tell(MessageKind::kSample, lost);
  }
  const int64_t later = block.timeUs - parts.start().totalMicros();
  uint32_t flags = block.flags | TARN_KEY;
  for (const SoundFrame& frame : parts.frames()) {
    SampleFacts facts;
    facts.index = block.index;
    facts.timeUs = facts.decodeUs = frame.time.totalMicros() + later;
    facts.flags = flags;
    facts.samples = frame.samples;
    facts.codec = soundCodecName(parts.format().codec);
    facts.channels = parts.format().channels;
    facts.sampleRate = parts.format().sampleRate;
    facts.config = parts.format().config;
    facts.bytes.assign(frame.data, frame.data + frame.size);
    *bytes += frame.size;
    if (!tell(MessageKind::kSample, facts)) return false;
    flags &= ~uint32_t{TARN_DISCONTINUITY};
  }
  return true;
}

bool LibraryAnswers::tellPicture(RecordingReader* reader, uint32_t index, uint64_t* bytes,
                                 bool* gone) const {
  SampleFacts facts;
  PictureEntry entry;
  facts.index = index;
  const bool known = reader->picture(index, &entry);
  if (known) {
    facts.timeUs = entry.presentation.totalMicros();
    facts.decodeUs = entry.decodeTime().totalMicros();
    if (entry.isKey()) facts.flags |= TARN_KEY;
    if (entry.isDiscontinuity()) facts.flags |= TARN_DISCONTINUITY;
  }
  if (!known || !reader->readPicture(entry, &facts.bytes)) {
    *gone = isCardGone(reader->row());
    if (*gone) return failed(kCardGone);
    facts.bytes.clear();
    facts.flags |= TARN_LOST;
    return tell(MessageKind::kSample, facts);
  }
  if (reader->isDamaged()) facts.flags |= TARN_DAMAGED;
  if (isSound(reader->row())) return tellSound(facts, bytes);
  *bytes += facts.bytes.size();
  return tell(MessageKind::kSample, facts);
}

bool LibraryAnswers::read(const ReadQuestion& question) {
  std::string error;
  RecordingReader* reader = open(question.recording, &error);
  if (reader == nullptr) return failed(error);
  uint32_t count = reader->pictureCount();
  if (question.index >= count) count = reader->refresh();
  uint32_t index = question.index;
  bool gone = false;
  for (uint64_t bytes = 0; index < count && bytes < Message::kBatchBytes; ++index) {
    if (!tellPicture(reader, index, &bytes, &gone)) return false;
    if (gone) return true;
  }
  return tell(MessageKind::kDone, ReadPlace{index});
}

bool LibraryAnswers::seek(const SeekQuestion& question) {
  std::string error;
  RecordingReader* reader = open(question.recording, &error);
  if (reader == nullptr) return failed(error);
  const int64_t index =
      question.timeUs == TARN_NO_TIME
          ? 0
          : reader->findKeyPictureBefore(PictureTime::fromMicros(question.timeUs));
  return tell(MessageKind::kDone, ReadPlace{static_cast<uint32_t>(std::max<int64_t>(index, 0))});
}

std::string LibraryAnswers::pathOf(const std::string& path) const {
  return inView_ ? CardView::pathInside(path) : path;
}

}  // namespace tarn
