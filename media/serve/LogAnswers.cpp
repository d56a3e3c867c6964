#include "media/serve/LogAnswers.h"

#include <deque>

#include "media/serve/JsonText.h"
#include "media/serve/QueryReader.h"
#include "recorder/log/LogFormat.h"
#include "recorder/log/LogLines.h"

namespace tarn {
namespace {

constexpr int64_t kMostLines = 5000;
constexpr int64_t kUsualLines = 500;
constexpr char kNoLog[] = "the system log cannot be read right now";

// Lines of a period, the newest of them.
class NewestLines {
 public:
  NewestLines(int64_t fromUs, int64_t toUs, size_t room)
      : fromUs_(fromUs), toUs_(toUs), room_(room) {}

  void take(const std::string& text) {
    LogLine line = parseLogLine(text);
    const int64_t us = line.seconds * 1000000;
    // A line without a time belongs to those around it.
    if (line.filling || (line.seconds >= 0 && (us < fromUs_ || us > toUs_))) return;
    lines_.push_back(std::move(line));
    if (lines_.size() <= room_) return;
    lines_.pop_front();
    leftOut_ = true;
  }

  void addTo(JsonText* json) const {
    json->beginObject().key("lines").beginArray();
    for (const LogLine& line : lines_) {
      json->beginObject().key("timeMs");
      line.seconds < 0 ? json->null() : json->number(line.seconds * 1000);
      json->key("text").text(line.text).end();
    }
    json->end().key("leftOut").boolean(leftOut_).end();
  }

 private:
  const int64_t fromUs_;
  const int64_t toUs_;
  const size_t room_;
  std::deque<LogLine> lines_;
  bool leftOut_ = false;
};

}  // namespace

HttpResponse LogAnswers::log(const HttpRequest& request) {
  QueryReader query(request, {"from", "to", "limit"});
  const int64_t fromUs = query.timeUs("from").value_or(0);
  const int64_t toUs = query.timeUs("to").value_or(INT64_MAX);
  const auto room = static_cast<size_t>(query.number("limit", 1, kMostLines, kUsualLines));
  if (!query.ok()) return errorResponse(400, query.error());
  NewestLines lines(fromUs, toUs, room);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!readLogLines([&](const std::string& line) { lines.take(line); }))
      return errorResponse(503, kNoLog);
  }
  JsonText json;
  lines.addTo(&json);
  HttpResponse response;
  response.body = json.take();
  return response;
}

}  // namespace tarn
