#include "media/serve/RowAnswers.h"

#include <algorithm>
#include <ctime>

#include "media/serve/JsonText.h"
#include "media/serve/QueryReader.h"
#include "media/serve/RowJson.h"

namespace tarn {
namespace {

constexpr int64_t kMostBins = 4096;
constexpr int64_t kUsualBins = 512;
constexpr size_t kMostGaps = 200;
constexpr int64_t kMostRows = 1000;
constexpr int64_t kUsualRows = 200;
constexpr int64_t kMostTrigger = 0xFFFF;
constexpr int64_t kMostKey = 0xFFFFFFFF;

void addCounts(JsonText* json, const std::vector<uint32_t>& counts) {
  int64_t sum = 0;
  json->key("events").beginArray();
  for (uint32_t count : counts) {
    json->number(count);
    sum += count;
  }
  json->end().key("eventCount").number(sum);
}

void addSpans(JsonText* json, const std::vector<TimeSpan>& spans) {
  json->beginArray();
  for (const TimeSpan& span : spans) {
    json->beginObject().key("fromMs").thousandths(span.fromUs);
    json->key("toMs").thousandths(span.toUs).end();
  }
  json->end();
}

void addNext(JsonText* json, bool more, uint32_t key) {
  json->key("next");
  more ? json->text(std::to_string(key)) : json->null();
}

HttpResponse done(JsonText* json) {
  HttpResponse response;
  response.body = json->take();
  return response;
}

}  // namespace

int64_t wallClockUs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

int64_t RowAnswers::endOf(const ServedRecording& recording) {
  if (!recording.isRunning()) return recording.endUs();
  return std::max(recording.startUs(), follower_->safe(recording.row.streamID).lastUs);
}

std::vector<TimeSpan> RowAnswers::covered(const ServedRows& rows,
                                          const std::vector<uint32_t>& places) {
  return Timeline::covered(rows, places,
                           [this](const ServedRecording& running) { return endOf(running); });
}

TimeSpan RowAnswers::periodOf(QueryReader* query, const ServedRows& rows) {
  TimeSpan period = {INT64_MAX, wallClockUs()};
  for (const ServedRecording& one : rows.recordings) {
    period.fromUs = std::min(period.fromUs, one.startUs());
    if (!one.isRunning()) period.toUs = std::max(period.toUs, one.endUs() + 1000);
  }
  if (rows.recordings.empty()) period.fromUs = period.toUs - 1000000;
  period.fromUs = query->timeUs("from").value_or(period.fromUs);
  period.toUs = query->timeUs("to").value_or(std::max(period.toUs, period.fromUs + 1));
  if (period.toUs <= period.fromUs) query->fail("the period ends before it begins");
  return period;
}

HttpResponse RowAnswers::timeline(const HttpRequest& request) {
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  QueryReader query(request, {"from", "to", "bins", "channel"});
  const TimeSpan period = periodOf(&query, *rows);
  const auto bins = static_cast<uint32_t>(query.number("bins", 1, kMostBins, kUsualBins));
  const std::optional<int> wanted = query.channel();
  if (!query.ok()) return errorResponse(400, query.error());
  JsonText json;
  json.beginObject().key("fromMs").thousandths(period.fromUs);
  json.key("toMs").thousandths(period.toUs);
  json.key("binMs").thousandths((period.toUs - period.fromUs) / bins).key("bins").number(bins);
  json.key("channels").beginArray();
  for (const auto& channel : rows->videoOf) {
    if (wanted && *wanted != channel.first) continue;
    const std::vector<TimeSpan> spans = covered(*rows, channel.second);
    size_t left = 0;
    json.beginObject().key("channel").number(channel.first).key("covered").beginArray();
    for (uint16_t share : Timeline::shares(spans, period, bins)) json.thousandths(share);
    json.end().key("gaps");
    addSpans(&json, Timeline::gaps(spans, period, kMostGaps, &left));
    json.key("gapsLeftOut").number(static_cast<int64_t>(left)).end();
  }
  json.end();
  addCounts(&json, Timeline::events(*rows->events, period, bins));
  json.end();
  return done(&json);
}

HttpResponse RowAnswers::recordings(const HttpRequest& request) {
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  QueryReader query(request, {"from", "to", "channel", "limit", "cursor"});
  const TimeSpan period = periodOf(&query, *rows);
  const std::optional<int> wanted = query.channel();
  const int64_t behind = query.number("cursor", 0, kMostKey, 0);
  int64_t room = query.number("limit", 1, kMostRows, kUsualRows);
  if (!query.ok()) return errorResponse(400, query.error());
  JsonText json;
  uint32_t last = 0;
  bool more = false;
  json.beginObject().key("recordings").beginArray();
  for (const ServedRecording& one : rows->recordings) {
    if (one.row.streamID <= behind || (wanted && *wanted != one.channel)) continue;
    if (one.startUs() > period.toUs || (!one.isRunning() && one.endUs() < period.fromUs)) continue;
    more = room-- == 0;
    if (more) break;
    addRecording(&json, one);
    last = one.row.streamID;
  }
  json.end();
  addNext(&json, more, last);
  json.end();
  return done(&json);
}

HttpResponse RowAnswers::events(const HttpRequest& request) {
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  QueryReader query(request, {"from", "to", "trigger", "limit", "cursor"});
  const TimeSpan period = periodOf(&query, *rows);
  const std::optional<int64_t> wanted = query.number("trigger", 0, kMostTrigger);
  const int64_t behind = query.number("cursor", 0, kMostKey, 0);
  int64_t room = query.number("limit", 1, kMostRows, kUsualRows);
  if (!query.ok()) return errorResponse(400, query.error());
  JsonText json;
  uint32_t last = 0;
  bool more = false;
  json.beginObject().key("events").beginArray();
  for (const DB_EVENT& event : *rows->events) {
    if (event.eventID <= behind || (wanted && *wanted != event.extTrg)) continue;
    if (startUs(event) > period.toUs) continue;
    if (startUs(event) < period.fromUs && event.endDate != 0 && endUs(event) < period.fromUs)
      continue;
    more = room-- == 0;
    if (more) break;
    addEvent(&json, event);
    last = event.eventID;
  }
  json.end();
  addNext(&json, more, last);
  json.end();
  return done(&json);
}

}  // namespace tarn
