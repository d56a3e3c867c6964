#include "media/evidence/LogExtract.h"

#include <string_view>

#include "media/evidence/EvidenceFolder.h"
#include "recorder/log/LogFormat.h"
#include "recorder/log/LogLines.h"
#include "recorder/session/RecordingMessages.h"

namespace tarn {
namespace {

constexpr char kErrNoLog[] = "the system log on the card could not be read";

// What a message always says: from behind the channel to the number.
std::string_view wordsOf(std::string_view message) {
  constexpr std::string_view kChannel = "%d:";
  const size_t begin = message.find(kChannel) + kChannel.size();
  return message.substr(begin, message.find('%', begin) - begin);
}

bool tellsOfTheClock(const std::string& text) {
  return text.find(wordsOf(kMsgClockStepped)) != std::string::npos ||
         text.find(wordsOf(kMsgClockKnown)) != std::string::npos;
}

}  // namespace

// A line without a time belongs to those around it.
void LogExtract::take(const std::string& line) {
  const LogLine parsed = parseLogLine(line);
  if (parsed.filling) return;
  const int64_t us = parsed.seconds * 1000000;
  if (parsed.seconds >= 0) inside_ = us / 1000000 >= story_->fromUs / 1000000 && us <= story_->toUs;
  if (!inside_) return;
  bytes_ += line;
  bytes_ += '\n';
  story_->log.push_back({parsed.seconds, parsed.text});
  if (tellsOfTheClock(parsed.text)) story_->clockSteps.push_back(story_->log.back());
}

bool LogExtract::write(EvidenceFolder* folder) {
  if (!readLogLines([this](const std::string& line) { take(line); })) story_->logError = kErrNoLog;
  return folder->write("log.txt", bytes_);
}

}  // namespace tarn
