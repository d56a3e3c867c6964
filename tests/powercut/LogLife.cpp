#include "powercut/LogLife.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "recorder/card/CardInfo.h"
#include "recorder/log/LogFormat.h"
#include "recorder/log/LogWriter.h"

namespace powercut {
namespace {

constexpr int64_t kLogStart = 1700000000;
constexpr char kLineHead[] = "line ";
constexpr uint32_t kLogChunks = 5;

// Texts of many lengths, and no two alike.
std::string lineText(uint32_t number) {
  char head[32];
  snprintf(head, sizeof head, "%s%06u ", kLineHead, number);
  return head + std::string(20 + number * 131 % 700, static_cast<char>('a' + number % 26));
}

// The lines of one chunk, in their order; false when there is something that is none.
bool readLines(uint32_t chunk, uint32_t end, std::vector<uint32_t>* numbers, std::string* strange) {
  const auto* text = reinterpret_cast<const char*>(Card::get().bytes()) +
                     cardLayout().chunkByte(tarn::kFileSyslog, chunk);
  const std::string all(text, end);
  for (size_t start = 0; start < all.size();) {
    const size_t feed = std::min(all.find('\n', start), all.size());
    const std::string line = all.substr(start, feed - start);
    start = feed + 1;
    if (tarn::parseLogLine(line).filling) continue;
    const size_t head = line.find(kLineHead);
    const uint32_t number =
        head == std::string::npos
            ? 0
            : static_cast<uint32_t>(atoi(line.c_str() + head + sizeof kLineHead - 1));
    std::string wanted = tarn::logStamp(kLogStart + number) + " " + lineText(number);
    std::string found = line;
    // Blanks may fill what is too little of a sector.
    while (!found.empty() && found.back() == ' ') found.pop_back();
    while (!wanted.empty() && wanted.back() == ' ') wanted.pop_back();
    if (found != wanted) {
      *strange = line.substr(0, 60);
      return false;
    }
    numbers->push_back(number);
  }
  return true;
}

}  // namespace

void logLife(Recorded* out, uint32_t variant) {
  tarn::LogWriter writer;
  if (writer.open() != 0) throw std::runtime_error(writer.errorText());
  std::vector<uint32_t> firstOfChunk = {0};  // of each chunk taken so far, in order
  int chunk = writer.chunk();
  uint32_t confirmed = 0;
  const uint32_t lines = 130 + variant % 40;
  auto mark = [&](uint32_t accepted, bool goingOn) {
    // The next chunk's text may go at any moment.
    const size_t kept = kLogChunks - (goingOn ? 1 : 0);
    const uint32_t first =
        firstOfChunk.size() < kept ? 0 : firstOfChunk[firstOfChunk.size() - kept];
    out->log.push_back({Card::get().trace()->ops.size(), first, confirmed, accepted});
  };
  for (uint32_t number = 0; number < lines; ++number) {
    mark(number + 1, true);
    const std::string text = lineText(number);
    if (writer.append(text.data(), text.size(), kLogStart + number) != 0)
      throw std::runtime_error(writer.errorText());
    if (writer.chunk() != chunk) {
      chunk = writer.chunk();
      firstOfChunk.push_back(number);
    }
    // A full chunk is written out before the next one is taken.
    if (writer.collectedBytes() != 0 && number % (3 + variant % 3) != 0) continue;
    if (writer.flush() != 0) throw std::runtime_error(writer.errorText());
    confirmed = number + 1;
    mark(confirmed, false);
  }
  if (writer.close() != 0) throw std::runtime_error(writer.errorText());
  confirmed = lines;
  mark(lines, false);
}

std::string checkLog(const Recorded& life, size_t at) {
  if (life.log.empty()) return "";
  LogMark now = {0, 0, 0, 0};
  for (const LogMark& mark : life.log) {
    if (mark.when <= at) now = mark;
  }
  tarn::CardInfo info;
  std::string error;
  if (info.read(kCardPath, &error) != 0) return "log: " + error;
  const auto& records = info.management(tarn::kFileSyslogManage).records;
  const auto active = static_cast<uint32_t>(records.at(0).chType);
  std::vector<uint32_t> numbers;
  for (uint32_t i = 1; i <= kLogChunks; ++i) {
    const uint32_t chunk = (active + i) % kLogChunks;
    std::string strange;
    if (!readLines(chunk, records.at(chunk).streamFreeOffset, &numbers, &strange))
      return "I1: in chunk " + std::to_string(chunk) + " of the log: " + strange;
  }
  for (size_t i = 1; i < numbers.size(); ++i) {
    if (numbers[i] != numbers[i - 1] + 1) {
      return "I1: line " + std::to_string(numbers[i]) + " of the log follows " +
             std::to_string(numbers[i - 1]);
    }
  }
  const uint32_t first = numbers.empty() ? 0 : numbers.front();
  const uint32_t end = numbers.empty() ? 0 : numbers.back() + 1;
  if (end < now.confirmed || end > now.accepted || (now.confirmed > 0 && first > now.first)) {
    return "I1: lines " + std::to_string(first) + " to " + std::to_string(end) +
           " of the log came back, of " + std::to_string(now.first) + " to " +
           std::to_string(now.confirmed) + " that were safe";
  }
  return "";
}

}  // namespace powercut
