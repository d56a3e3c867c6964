#include "media/serve/RecorderNumbers.h"

#include <cstdio>

namespace tarn {
namespace {

// A flush that takes longer makes pictures wait that a power loss then takes along.
constexpr int64_t kSlowUs = 500000;

struct Flushes {
  uint64_t all = 0;
  uint64_t slow = 0;
};

Flushes flushesOf(const FlushTimes& times) {
  Flushes flushes;
  for (int i = 0; i < FlushTimes::kClasses; ++i) {
    flushes.all += times.counts[i];
    const bool slow = i == FlushTimes::kClasses - 1 || FlushTimes::kLongest[i] > kSlowUs;
    if (slow) flushes.slow += times.counts[i];
  }
  return flushes;
}

void addHead(std::string* text, const char* name, const char* type, const char* help) {
  *text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

std::string processLabel(const RecordingStatus& status) {
  return "process=\"" + std::to_string(status.process) + "\"";
}

// Names come from a file: what could end a label is left out.
std::string plain(const std::string& name) {
  std::string text;
  for (const char letter : name) {
    if (letter >= 'a' && letter <= 'z') text += letter;
  }
  return text;
}

void addLine(std::string* text, const char* name, const std::string& labels, double value) {
  char number[40];
  snprintf(number, sizeof number, " %.17g\n", value);
  *text += name + ("{" + labels + "}") + number;
}

void addCauses(std::string* text, const char* name, const char* help,
               uint64_t RecordingStatus::Cause::*value,
               const std::vector<RecordingStatus>& statuses) {
  addHead(text, name, "counter", help);
  for (const RecordingStatus& status : statuses) {
    for (const RecordingStatus::Cause& cause : status.causes)
      addLine(text, name, processLabel(status) + ",cause=\"" + plain(cause.name) + "\"",
              static_cast<double>(cause.*value));
  }
}

void addHistogram(std::string* text, const RecordingStatus& status) {
  const std::string process = processLabel(status);
  uint64_t count = 0;
  for (int i = 0; i < FlushTimes::kClasses; ++i) {
    count += status.flushes.counts[i];
    char longest[24] = "+Inf";
    if (i < FlushTimes::kClasses - 1)
      snprintf(longest, sizeof longest, "%g", static_cast<double>(FlushTimes::kLongest[i]) / 1e6);
    addLine(text, "tarn_flush_seconds_bucket", process + ",le=\"" + longest + "\"",
            static_cast<double>(count));
  }
  addLine(text, "tarn_flush_seconds_sum", process, static_cast<double>(status.flushes.allUs) / 1e6);
  addLine(text, "tarn_flush_seconds_count", process, static_cast<double>(count));
}

}  // namespace

void addRecorders(JsonText* json, const std::vector<RecordingStatus>& statuses) {
  json->key("recorders").beginArray();
  for (const RecordingStatus& status : statuses) {
    const Flushes flushes = flushesOf(status.flushes);
    json->beginObject().key("process").number(status.process).key("wear").beginArray();
    for (const RecordingStatus::Cause& cause : status.causes) {
      json->beginObject().key("cause").text(plain(cause.name));
      json->key("bytes").number(static_cast<int64_t>(cause.bytes));
      json->key("flushes").number(static_cast<int64_t>(cause.flushes)).end();
    }
    json->end().key("flushes").number(static_cast<int64_t>(flushes.all));
    json->key("slowFlushes").number(static_cast<int64_t>(flushes.slow));
    json->key("failedChannels").number(status.failed).end();
  }
  json->end();
}

void addRecorderMetrics(std::string* text, const std::vector<RecordingStatus>& statuses) {
  if (statuses.empty()) return;
  using Cause = RecordingStatus::Cause;
  addCauses(text, "tarn_written_bytes_total", "Bytes that the process gave to the card.",
            &Cause::bytes, statuses);
  addCauses(text, "tarn_flushes_total", "Flushes of the card, the server's for it included.",
            &Cause::flushes, statuses);
  addHead(text, "tarn_flush_seconds", "histogram", "How long the process's own flushes took.");
  for (const RecordingStatus& status : statuses) addHistogram(text, status);
  addHead(text, "tarn_failed_channels", "gauge",
          "Channels of the process whose recording ended with an error.");
  for (const RecordingStatus& status : statuses)
    addLine(text, "tarn_failed_channels", processLabel(status), status.failed);
}

}  // namespace tarn
