#include "media/serve/LogAnswers.h"

#include <deque>

#include "api/CApiTarnSyslogRead.h"
#include "chunk/LogChunks.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNSyslogManager.h"
#include "media/serve/JsonText.h"
#include "media/serve/QueryReader.h"
#include "recorder/log/LogFormat.h"

namespace tarn {
namespace {

constexpr int64_t kMostLines = 5000;
constexpr int64_t kUsualLines = 500;
constexpr size_t kReadBytes = 64 * 1024;
// No line of the log is longer; what has no line feed for so long is none.
constexpr size_t kLongestLine = 64 * 1024;
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

bool readChunk(CApiTarnSyslogRead* reader, int chunk, NewestLines* lines) {
  CHUNK_USAGE usage = {};
  if (reader->getUsage(static_cast<short>(chunk), &usage) != 0) return false;
  if (usage.freeAddr == 0) return true;  // an empty range is not opened
  if (reader->openChunk(0, static_cast<unsigned char>(chunk)) != 0) return false;
  std::string bytes(kReadBytes, '\0');
  std::string rest;
  long got = 0;
  while ((got = reader->read(bytes.data(), kReadBytes)) > 0) {
    rest.append(bytes, 0, static_cast<size_t>(got));
    size_t start = 0;
    for (size_t feed; (feed = rest.find('\n', start)) != std::string::npos; start = feed + 1)
      lines->take(rest.substr(start, feed - start));
    rest.erase(0, start);
    if (rest.size() > kLongestLine) rest.clear();
  }
  reader->close();
  return got == 0;
}

// The reader complains on standard output, so it is asked only where a server answers.
bool serverAnswers() {
  CTARNSyslogManager manager(kRecorderPartition);
  const bool answers = manager.openManageData() == 0;
  manager.closeManageData();
  return answers;
}

bool readLog(NewestLines* lines) {
  if (!serverAnswers()) return false;
  CApiTarnSyslogRead reader;
  const int active = reader.getActiveChunk(0);
  if (active < 0 || active >= kLogChunks) return false;
  // From the oldest chunk, the one that is written next, to the active one.
  for (int i = 1; i <= kLogChunks; ++i) {
    if (!readChunk(&reader, (active + i) % kLogChunks, lines)) return false;
  }
  return true;
}

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
    if (!readLog(&lines)) return errorResponse(503, kNoLog);
  }
  JsonText json;
  lines.addTo(&json);
  HttpResponse response;
  response.body = json.take();
  return response;
}

}  // namespace tarn
