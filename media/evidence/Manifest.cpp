#include "media/evidence/Manifest.h"

#include <cstdio>

#include "db/RowStatus.h"
#include "media/evidence/EvidenceFolder.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/card/TimeText.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

constexpr int64_t kSchema = 1;

int64_t startUs(const DB_STREAM& row) {
  return PictureTime{row.startDate, row.startMSec * 1000u}.totalMicros();
}
int64_t endUs(const DB_STREAM& row) {
  return PictureTime{row.endDate, row.endMSec * 1000u}.totalMicros();
}

}  // namespace

void Manifest::addTime(const char* key, bool known, int64_t us) {
  json_.key(key);
  known ? json_.text(evidenceIso(us)) : json_.null();
}

void Manifest::addChannelNumber(int channel) {
  json_.key("channel");
  channel == ChunkChannels::kUnknown ? json_.null() : json_.number(channel);
}

void Manifest::addMaking() {
  json_.key("kind").text(EvidenceFolder::kKind).key("schema").number(kSchema);
  addTime("made", true, making_.madeUs);
  json_.key("tool").text(making_.tool).key("unit").text(making_.unit);
  json_.key("sealed").boolean(making_.sealed);
  json_.key("operator").text(making_.operatorName).key("note").text(making_.note);
  json_.key("zone").beginObject().key("name").text(making_.zone).key("offsetAtBegin");
  json_.text(TimeText::offset(TimeText::offsetAt(story_.fromUs / 1000000))).key("offsetAtEnd");
  json_.text(TimeText::offset(TimeText::offsetAt(story_.toUs / 1000000))).end();
  json_.key("period").beginObject();
  addTime("from", true, story_.fromUs);
  addTime("to", true, story_.toUs);
  json_.end();
}

void Manifest::addCard() {
  char serial[16];
  snprintf(serial, sizeof serial, "%04X-%04X", static_cast<unsigned>(card_.volumeId() >> 16),
           static_cast<unsigned>(card_.volumeId() & 0xFFFF));
  const auto number = [this](const char* key, uint64_t value) {
    json_.key(key).number(static_cast<int64_t>(value));
  };
  json_.key("card").beginObject().key("volumeID").text(serial).key("label").text(card_.label());
  number("deviceBytes", card_.deviceBytes());
  number("volumeBytes", card_.volumeBytes());
  number("clusterBytes", card_.clusterBytes());
  number("clusters", card_.clusters());
  json_.key("whole");
  if (making_.card) {
    json_.beginObject().key("name").text(making_.card->name);
    number("bytes", making_.card->bytes);
    json_.key("sha256").text(making_.card->sha256).end();
  } else {
    json_.null();
  }
  json_.key("families").beginArray();
  for (int type = 0; type < kFileTypeCount; ++type) {
    const CardFamily& family = card_.family(type);
    json_.beginObject().key("name").text(CardLayout::familyName(type));
    number("chunks", family.chunks);
    number("chunkBytes", family.chunkSize);
    number("firstByte", family.startByte());
    json_.end();
  }
  json_.end().end();
}

void Manifest::addSound(const SoundTotals& sound) {
  json_.key("sound");
  if (sound.frames == 0) {
    json_.null();
    return;
  }
  json_.beginObject().key("codec").text(soundCodecName(sound.codec));
  json_.key("frames").number(static_cast<int64_t>(sound.frames));
  addTime("first", true, sound.first);
  addTime("last", true, sound.last);
  json_.key("lost").number(static_cast<int64_t>(sound.lost));
  json_.key("damaged").number(static_cast<int64_t>(sound.damaged)).end();
}

void Manifest::addVideo(const ExportedChannel& video) {
  const ExportTotals& totals = video.totals;
  json_.beginObject().key("file");
  video.error.empty() ? json_.text(video.path) : json_.null();
  json_.key("error").text(video.error);
  json_.key("pictures").number(static_cast<int64_t>(totals.written));
  addTime("first", totals.written != 0, totals.first);
  addTime("last", totals.written != 0, totals.last);
  json_.key("lost").number(static_cast<int64_t>(totals.lost));
  json_.key("damaged").number(static_cast<int64_t>(totals.damaged));
  json_.key("leftOut").number(static_cast<int64_t>(totals.undecodable));
  json_.key("goesOnIn").beginArray();
  for (const FormatChange& change : totals.changes) {
    json_.beginObject();
    addTime("time", true, change.time);
    json_.key("file").text(change.next).end();
  }
  for (const SoundChange& change : video.sound.changes) {
    json_.beginObject();
    addTime("time", true, change.time);
    json_.key("file").text(change.next).end();
  }
  json_.end().key("recorderZones").beginArray();
  for (const int32_t offset : totals.zones) json_.text(TimeText::offset(offset));
  json_.end().key("damages").beginArray();
  for (const DamagedRun& run : totals.damages) {
    json_.beginObject().key("recording").number(run.streamID);
    json_.key("firstIndex").number(run.firstIndex).key("lastIndex").number(run.lastIndex);
    addTime("from", true, run.from);
    addTime("to", true, run.to);
    json_.end();
  }
  json_.end();
  addSound(video.sound);
  json_.end();
}

void Manifest::addRecording(const EvidenceRecording& one) {
  const DB_STREAM& row = one.row;
  json_.beginObject().key("recording").number(row.streamID);
  json_.key("kind").text(isSound(row) ? "sound" : "video");
  addTime("start", true, startUs(row));
  addTime("end", row.endDate != 0, endUs(row));
  json_.key("interrupted").boolean((row.status & kStatusRepaired) != 0);
  json_.key("running").boolean(row.endDate == 0);
  json_.key("copyOf");
  isKept(row) ? json_.number(originalKey(row)) : json_.null();
  json_.key("readable").boolean(one.readable);
  json_.key(isSound(row) ? "blocks" : "pictures").number(one.pictures);
  addTime("first", one.pictures != 0, one.first);
  addTime("last", one.pictures != 0, one.last);
  json_.key("entriesDamaged").number(one.damaged).key("entriesUnreadable").number(one.unreadable);
  json_.key("entries").beginObject().key("at").number(static_cast<int64_t>(one.entriesAt));
  json_.key("bytes").number(static_cast<int64_t>(one.entriesBytes));
  json_.key("missing").number(static_cast<int64_t>(one.entriesMissing)).end().end();
}

void Manifest::addGap(const EvidenceGap& gap) {
  json_.beginObject();
  addTime("from", true, gap.fromUs);
  addTime("to", true, gap.toUs);
  json_.key("reason").text(gapReasonName(gap.reason)).key("text").text(gap.text).end();
}

void Manifest::addChannel(const EvidenceChannel& channel) {
  json_.beginObject();
  addChannelNumber(channel.channel);
  json_.key("videos").beginArray();
  for (const ExportedChannel& video : channel.videos) addVideo(video);
  json_.end();
  json_.key("recordings").beginArray();
  for (const EvidenceRecording& one : channel.recordings) addRecording(one);
  json_.end().key("gaps").beginArray();
  for (const EvidenceGap& gap : channel.gaps) addGap(gap);
  json_.end().end();
}

void Manifest::addEvent(const DB_EVENT& event) {
  const PictureTime start = {event.startDate, event.startMSec * 1000u};
  const PictureTime end = {event.endDate, event.endMSec * 1000u};
  json_.beginObject().key("event").number(event.eventID).key("trigger").number(event.extTrg);
  json_.key("secondsBefore").number(event.preSec);
  addTime("start", true, start);
  addTime("end", event.endDate != 0, end);
  json_.end();
}

void Manifest::addLog() {
  json_.key("log").beginObject().key("lines").number(static_cast<int64_t>(story_.log.size()));
  json_.key("error").text(story_.logError).end();
  json_.key("clockSteps").beginArray();
  for (const EvidenceLogLine& line : story_.clockSteps) {
    json_.beginObject();
    addTime("time", line.seconds >= 0, line.seconds * 1000000);
    json_.key("text").text(line.text).end();
  }
  json_.end();
}

void Manifest::addJournal() {
  const EvidenceJournal& journal = story_.journal;
  json_.key("journal").beginObject().key("recordings").number(journal.streamRecords);
  json_.key("events").number(journal.eventRecords);
  json_.key("unreadable").number(journal.unreadable).key("error").text(journal.error);
  json_.key("givenUp").beginArray();
  for (const GivenUpRecording& one : journal.givenUp) {
    json_.beginObject().key("recording").number(one.streamID).key("chunk").number(one.chunk);
    addTime("from", true, one.fromUs);
    addTime("to", true, one.toUs);
    json_.end();
  }
  json_.end().end();
}

std::string Manifest::text(const std::vector<FileSum>& sums) {
  json_.beginObject();
  addMaking();
  json_.key("missing").beginArray();
  for (const std::string& one : missing_) json_.text(one);
  json_.end();
  addCard();
  json_.key("channels").beginArray();
  for (const EvidenceChannel& channel : story_.channels) addChannel(channel);
  json_.end().key("events").beginArray();
  for (const DB_EVENT& event : story_.events) addEvent(event);
  json_.end();
  addJournal();
  addLog();
  json_.key("files").beginArray();
  for (const FileSum& sum : sums) {
    json_.beginObject().key("name").text(sum.name);
    json_.key("bytes").number(static_cast<int64_t>(sum.bytes));
    json_.key("sha256").text(sum.sha256).end();
  }
  json_.end().end();
  return json_.take() + "\n";
}

}  // namespace tarn
