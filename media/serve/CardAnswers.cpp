#include "media/serve/CardAnswers.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>

#include "fat/ChunkFiles.h"
#include "fat/FailureMarker.h"
#include "media/ArchiveStatus.h"
#include "media/MonotonicTime.h"
#include "media/serve/JsonText.h"
#include "media/serve/QueryReader.h"
#include "media/serve/RecorderNumbers.h"
#include "recorder/card/TimeText.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

// Of the card's own numbers, which nobody needs newer.
constexpr int64_t kInfoUs = 5000000;
constexpr int64_t kSecondUs = 1000000;
constexpr int64_t kDaySeconds = 86400;
constexpr char kCardFailed[] = "the card failed while it was written to: check it";

HttpResponse done(JsonText* json, int status = 200) {
  HttpResponse response;
  response.status = status;
  response.body = json->take();
  return response;
}

void addTime(JsonText* json, const char* name, int64_t us) {
  json->key(name);
  us == 0 ? json->null() : json->thousandths(us);
}

// The first second with the offset that `end` has; `begin` has another.
int64_t changeBetween(int64_t begin, int64_t end) {
  while (end - begin > 1) {
    const int64_t middle = begin + (end - begin) / 2;
    (TimeText::offsetAt(middle) == TimeText::offsetAt(end) ? end : begin) = middle;
  }
  return end;
}

void addOffset(JsonText* json, int64_t second) {
  json->beginObject().key("fromMs").thousandths(second * kSecondUs);
  json->key("offsetMinutes").number(TimeText::offsetAt(second) / 60).end();
}

// The zone's offset at the beginning of a period, and wherever it changes in it: what was recorded
// in winter is shown with winter's hours in summer, too. No zone changes twice within a day.
void addZoneChanges(JsonText* json, const TimeSpan& held) {
  const int64_t last = held.toUs / kSecondUs;
  int64_t at = held.fromUs / kSecondUs;
  json->key("zoneChanges").beginArray();
  if (held.fromUs != 0) addOffset(json, at);
  while (at < last) {
    const int64_t next = std::min(at + kDaySeconds, last);
    if (TimeText::offsetAt(next) != TimeText::offsetAt(at))
      addOffset(json, changeBetween(at, next));
    at = next;
  }
  json->end();
}

// One number for Prometheus, with what it is.
void addMetric(std::string* text, const char* name, const char* type, const char* help) {
  *text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void addValue(std::string* text, const char* name, int channel, double value) {
  char line[160];
  if (channel < 0) {
    snprintf(line, sizeof line, "%s %.17g\n", name, value);
  } else {
    snprintf(line, sizeof line, "%s{channel=\"%d\"} %.17g\n", name, channel, value);
  }
  *text += line;
}

void addOne(std::string* text, const char* name, const char* type, const char* help, double value) {
  addMetric(text, name, type, help);
  addValue(text, name, -1, value);
}

// Nothing where nobody archives.
void addArchive(std::string* text) {
  ArchiveStatus archive;
  if (!archive.read()) return;
  addOne(text, "tarn_archive_missing", "gauge",
         "Recordings and events that are over and not in the archive.",
         static_cast<double>(archive.missing));
  addOne(text, "tarn_archive_endangered", "gauge",
         "Recordings that the ring overwrites next and that are not known to be archived.",
         static_cast<double>(archive.endangered));
  addOne(text, "tarn_archive_run_timestamp_seconds", "gauge", "When an archiving run ended last.",
         static_cast<double>(archive.endedMs) / 1000);
  addOne(text, "tarn_archive_complete_timestamp_seconds", "gauge",
         "When a run had archived all there was; 0 when none has yet.",
         static_cast<double>(archive.goodMs) / 1000);
}

}  // namespace

struct CardAnswers::Space {
  uint64_t deviceBytes = 0;
  uint64_t videoBytes = 0;
  uint64_t usedBytes = 0;
  uint32_t chunks = 0;
  uint32_t chunksInUse = 0;
  std::string problem;

  int64_t thousandths() const {
    return videoBytes == 0 ? 0 : static_cast<int64_t>(usedBytes * 1000 / videoBytes);
  }
  void addTo(JsonText* json) const {
    json->key("space").beginObject();
    json->key("deviceBytes").number(static_cast<int64_t>(deviceBytes));
    json->key("videoBytes").number(static_cast<int64_t>(videoBytes));
    json->key("usedBytes").number(static_cast<int64_t>(usedBytes));
    json->key("usedShare").thousandths(thousandths());
    json->key("chunks").number(chunks).key("chunksInUse").number(chunksInUse).end();
  }
};

// A card that cannot be asked right now is as it was.
CardAnswers::Space CardAnswers::space(std::string* name, std::string* identity) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const int64_t now = monotonicUs();
  if (readUs_ < 0 || now - readUs_ > kInfoUs) {
    CardInfo info;
    infoError_.clear();
    if (info.read(deviceName(kRecorderPartition), &infoError_) == 0) info_ = info;
    readUs_ = now;
  }
  char number[16];
  snprintf(number, sizeof number, "%04X-%04X", unsigned{info_.volumeId() >> 16},
           unsigned{info_.volumeId() & 0xFFFF});
  *identity = number;
  *name = info_.label().empty() ? *identity : info_.label();
  const CardFamily& family = info_.family(kFileStream);
  return {info_.deviceBytes(),       family.bytes(), info_.usedBytes(kFileStream), family.chunks,
          info_.streamChunksInUse(), infoError_};
}

bool CardAnswers::isLive(const ServedRows& rows) const {
  return std::any_of(rows.recordings.begin(), rows.recordings.end(),
                     [](const ServedRecording& one) { return one.isRunning(); });
}

// Of all recordings; 0 and 0 without one.
TimeSpan CardAnswers::holdings(const ServedRows& rows) {
  TimeSpan held = {0, 0};
  for (const ServedRecording& one : rows.recordings) {
    if (held.fromUs == 0 || one.startUs() < held.fromUs) held.fromUs = one.startUs();
    held.toUs = std::max(held.toUs, rows_->endOf(one));
  }
  return held;
}

void CardAnswers::addChannels(JsonText* json, const ServedRows& rows) {
  std::map<int, std::set<std::string>> withSound;
  for (const ServedRecording& one : rows.recordings) {
    if (isSound(one.row)) withSound[one.channel].insert(soundCodecName(soundCodecOf(one.row)));
  }
  json->key("channels").beginArray();
  for (const auto& channel : rows.videoOf) {
    TimeSpan held = {INT64_MAX, 0};
    bool running = false;
    for (uint32_t place : channel.second) {
      const ServedRecording& one = rows.recordings[place];
      held.fromUs = std::min(held.fromUs, one.startUs());
      held.toUs = std::max(held.toUs, rows_->endOf(one));
      running = running || one.isRunning();
    }
    json->beginObject().key("channel").number(channel.first).key("running").boolean(running);
    json->key("recordings").number(static_cast<int64_t>(channel.second.size()));
    json->key("sound").boolean(withSound.count(channel.first) != 0);
    json->key("soundCodecs").beginArray();
    for (const std::string& codec : withSound[channel.first]) json->text(codec);
    json->end();
    json->key("oldestMs").thousandths(held.fromUs).key("newestMs").thousandths(held.toUs).end();
  }
  json->end();
}

HttpResponse CardAnswers::card(const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  std::string name, identity;
  const Space card = space(&name, &identity);
  const int64_t nowUs = wallClockUs();
  const auto seconds = static_cast<time_t>(nowUs / 1000000);
  struct tm local = {};
  localtime_r(&seconds, &local);
  std::map<uint16_t, int64_t> triggers;
  for (const DB_EVENT& event : *rows->events) ++triggers[event.extTrg];
  JsonText json;
  json.beginObject().key("schema").number(1).key("name").text(name);
  json.key("identity").text(identity).key("version").text(settings_.version);
  json.key("readOnly").boolean(settings_.readOnly).key("live").boolean(isLive(*rows));
  json.key("seals").boolean(settings_.seals).key("downloads").boolean(settings_.maker != nullptr);
  json.key("nowMs").thousandths(nowUs).key("zoneOffsetMinutes").number(local.tm_gmtoff / 60);
  json.key("zone").text(local.tm_zone != nullptr ? local.tm_zone : "");
  addChannels(&json, *rows);
  card.addTo(&json);
  json.key("recordings").number(static_cast<int64_t>(rows->recordings.size()));
  json.key("events").number(static_cast<int64_t>(rows->events->size()));
  json.key("triggers").beginArray();
  for (const auto& one : triggers)
    json.beginObject().key("trigger").number(one.first).key("events").number(one.second).end();
  json.end();
  const TimeSpan held = holdings(*rows);
  addTime(&json, "oldestMs", held.fromUs);
  addTime(&json, "newestMs", held.toUs);
  addZoneChanges(&json, held);
  json.end();
  return done(&json);
}

HttpResponse CardAnswers::health(const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  std::string name, identity;
  const Space card = space(&name, &identity);
  const TimeSpan held = holdings(*rows);
  JsonText json;
  json.beginObject();
  card.addTo(&json);
  addTime(&json, "oldestMs", held.fromUs);
  addTime(&json, "newestMs", held.toUs);
  json.key("keepsSeconds").thousandths((held.toUs - held.fromUs) / 1000);
  json.key("problems").beginArray();
  const std::string unread = follower_->problem();
  if (!unread.empty()) json.text(unread);
  if (!card.problem.empty()) json.text(card.problem);
  if (access(kFailureMarkerPath, F_OK) == 0) json.text(kCardFailed);
  json.end();
  addRecorders(&json, toldStatuses());
  json.key("check");
  check_.addTo(&json);
  json.end();
  return done(&json);
}

HttpResponse CardAnswers::check(const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  JsonText json;
  check_.addTo(&json);
  return done(&json);
}

// What a recording has not saved yet would show as findings, and the check would take the card's
// time from it.
HttpResponse CardAnswers::beginCheck(const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  if (!settings_.mayCheck)
    return errorResponse(409, "this server was started to be looked at only");
  if (isLive(*follower_->rows()))
    return errorResponse(409, "a recording runs: the card is checked when it is at rest");
  if (!check_.begin()) return errorResponse(409, "a check is under way");
  JsonText json;
  check_.addTo(&json);
  return done(&json, 202);
}

HttpResponse CardAnswers::metrics(const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  std::string name, identity, text;
  const Space card = space(&name, &identity);
  const TimeSpan held = holdings(*rows);
  const auto seconds = [](int64_t us) { return static_cast<double>(us) / 1e6; };
  addOne(&text, "tarn_card_bytes", "gauge", "Bytes of the card.",
         static_cast<double>(card.deviceBytes));
  addOne(&text, "tarn_video_bytes", "gauge", "Room for pictures and sound.",
         static_cast<double>(card.videoBytes));
  addOne(&text, "tarn_video_used_bytes", "gauge", "Of that room, what is in use.",
         static_cast<double>(card.usedBytes));
  addOne(&text, "tarn_ring_age_seconds", "gauge", "Time from the oldest picture to the newest.",
         seconds(held.toUs - held.fromUs));
  addOne(&text, "tarn_recordings", "gauge", "Recordings that are listed.",
         static_cast<double>(rows->recordings.size()));
  addOne(&text, "tarn_events", "gauge", "Events that are listed.",
         static_cast<double>(rows->events->size()));
  addOne(&text, "tarn_database_unread", "gauge", "1 while the database cannot be read.",
         follower_->problem().empty() ? 0 : 1);
  addOne(&text, "tarn_card_failed", "gauge", "1 after a write that the card refused.",
         access(kFailureMarkerPath, F_OK) == 0 ? 1 : 0);
  addArchive(&text);
  addMetric(&text, "tarn_running_pictures", "gauge",
            "Pictures of the running recording that are safe on the card.");
  for (const ServedRecording& one : rows->recordings) {
    if (one.isRunning() && !isSound(one.row))
      addValue(&text, "tarn_running_pictures", one.channel,
               follower_->safe(one.row.streamID).pictures);
  }
  addMetric(&text, "tarn_safe_lag_seconds", "gauge",
            "How far the newest safe picture of the running recording is behind the clock.");
  for (const ServedRecording& one : rows->recordings) {
    if (!one.isRunning() || isSound(one.row)) continue;
    const int64_t last = follower_->safe(one.row.streamID).lastUs;
    if (last != 0)
      addValue(&text, "tarn_safe_lag_seconds", one.channel, seconds(wallClockUs() - last));
  }
  addRecorderMetrics(&text, toldStatuses());
  HttpResponse response;
  response.type = "text/plain; version=0.0.4; charset=utf-8";
  response.body = text;
  return response;
}

}  // namespace tarn
