// fleet FOLDER --recorders N --first F --days D --rows R --seed S [--from MS --to MS --trigger T
// --answer FILE]
//
// Makes the indexes of a fleet that never was: N recorders (r00000 and on) with four cameras each,
// D days from 2026-03-01 on, R lines a day, the same for the same seed. They are written by the
// archive's own index, so that what engines read here is what they read of real ones. Clips and
// sidecars are not made.
//
// With --answer, FILE gets what a question has for an answer, from the numbers that lines were made
// of and not from what was written: of each event of trigger T that starts between two moments its
// object and each gap of its channel that comes within a minute of it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <vector>

#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/ArchiveStore.h"
#include "media/archive/DayIndex.h"

namespace {

constexpr int64_t kFirstDayMs = 1772323200000;  // 2026-03-01
constexpr int64_t kDayMs = 86400000;
constexpr int64_t kAroundMs = 60000;
constexpr int kChannels = 4;

struct Order {
  std::string folder;
  uint64_t recorders = 20;
  uint64_t first = 0;
  uint64_t days = 2;
  uint64_t rows = 333;
  uint64_t seed = 1;
  int64_t from = 0;
  int64_t to = 0;
  uint64_t trigger = 7;
  std::string answer;
};

// Numbers that are the same everywhere: a counter, well mixed.
class Numbers {
 public:
  explicit Numbers(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15u) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
  }
  int64_t below(int64_t most) { return static_cast<int64_t>(next() % static_cast<uint64_t>(most)); }
  std::string hex(size_t digits) {
    std::string text;
    char piece[17];
    while (text.size() < digits) {
      snprintf(piece, sizeof piece, "%016llx", static_cast<unsigned long long>(next()));
      text += piece;
    }
    return text.substr(0, digits);
  }

 private:
  uint64_t state_;
};

// A folder that is not flushed, or read again: nothing here is worth it.
class QuickFolder : public tarn::ArchiveStore {
 public:
  explicit QuickFolder(const std::string& root) : root_(root + "/") { trustSize(true); }
  bool list(const std::string& /*folder*/, std::vector<Object>* /*objects*/) override {
    return false;
  }
  bool get(const std::string& /*name*/, const tarn::ByteSink& /*take*/) override { return false; }
  bool look(const std::string& name, Object* object) override {
    struct stat status = {};
    if (stat((root_ + name).c_str(), &status) != 0) return fail("cannot find " + name);
    *object = {name, static_cast<int64_t>(status.st_size), {}};
    return true;
  }
  bool holds(const std::string& name, bool* there) override {
    *there = access((root_ + name).c_str(), F_OK) == 0;
    return true;
  }

 private:
  bool begin(const std::string& name) override {
    for (size_t at = name.find('/'); at != std::string::npos; at = name.find('/', at + 1))
      mkdir((root_ + name.substr(0, at)).c_str(), 0777);
    file_.open(root_ + name, std::ios::binary | std::ios::trunc);
    return file_.good() || fail("cannot write " + name);
  }
  bool add(const uint8_t* data, size_t size) override {
    file_.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    return file_.good() || fail("cannot write");
  }
  bool finish() override {
    file_.close();
    return file_.good() || fail("cannot write");
  }
  void abandon() override { file_.close(); }
  bool rename(const std::string& from, const std::string& to) override {
    return ::rename((root_ + from).c_str(), (root_ + to).c_str()) == 0 || fail("cannot name " + to);
  }
  bool remove(const std::string& name) override {
    return unlink((root_ + name).c_str()) == 0 || errno == ENOENT;
  }
  bool readsBack() const override { return false; }

  const std::string root_;
  std::ofstream file_;
};

// One recorder's day, as lines.
class Day {
 public:
  Day(const Order& order, uint64_t recorder, uint64_t day)
      : numbers_((order.seed * 100003 + recorder) * 1009 + day),
        start_(kFirstDayMs + static_cast<int64_t>(day) * kDayMs) {
    char name[32];
    snprintf(name, sizeof name, "r%05llu", static_cast<unsigned long long>(recorder));
    recorder_ = name;
    // Of a hundred lines six are events, six gaps, one a finding, and the rest recordings.
    const auto rows = static_cast<int64_t>(order.rows);
    events_ = rows * 6 / 100;
    for (int64_t i = 0; i < rows; ++i) {
      if (i < events_) {
        add("event", i);
      } else if (i < 2 * events_) {
        add("gap", i);
      } else {
        add(i < 2 * events_ + rows / 100 ? "finding" : "recording", i);
      }
    }
  }
  const std::vector<tarn::ArchiveLine>& lines() const { return lines_; }
  const std::string& recorder() const { return recorder_; }
  int64_t start() const { return start_; }

 private:
  void add(const char* kind, int64_t i) {
    tarn::ArchiveLine line;
    line.kind = kind;
    line.recorder = recorder_;
    line.channel = static_cast<int>(numbers_.below(kChannels));
    line.startMs = start_ + numbers_.below(kDayMs - 600000);
    line.endMs = line.startMs + 2000 + numbers_.below(598000);
    if (line.kind == "gap") {
      if (i % 2 == 0) moveNear(lines_[static_cast<size_t>(i - events_)], &line);
      line.reason = numbers_.below(4) == 0 ? "interrupted" : "noRecording";
      line.words = "Nothing was recorded during this time.";
    } else {
      line.key = static_cast<uint32_t>(i + 1);
      line.trigger = static_cast<uint32_t>(numbers_.below(16));
    }
    if (line.kind == "finding") {
      line.finding = "data";
      line.consequence = "damaged";
      line.words = "A picture is not what was recorded.";
      line.meaning = "It is shown as it is.";
    }
    if (line.kind == "event" || line.kind == "recording") addClip(&line);
    lines_.push_back(line);
  }
  // Where a question tells gaps that it is to find from those that it is not. No two near one
  // event: they would be one.
  void moveNear(const tarn::ArchiveLine& event, tarn::ArchiveLine* gap) {
    const int64_t length = gap->endMs - gap->startMs;
    const int64_t away = kAroundMs - 2 + numbers_.below(4);
    gap->startMs = numbers_.below(2) == 0 ? event.endMs + away : event.startMs - away - length;
    if (gap->startMs < start_) gap->startMs = event.endMs + away;
    if (gap->startMs >= start_ + kDayMs) gap->startMs = event.startMs - away - length;
    gap->endMs = gap->startMs + length;
    if (numbers_.below(4) != 0) gap->channel = event.channel;
  }
  void addClip(tarn::ArchiveLine* line) {
    line->media = "video";
    if (line->kind == "event") line->preSeconds = 5;
    line->object = tarn::clipName(*line, false);
    line->bytes = 1000000 + static_cast<uint64_t>(numbers_.below(50000000));
    line->hashes = {numbers_.hex(32), numbers_.hex(40), numbers_.hex(64)};
    line->pictures = static_cast<uint64_t>((line->endMs - line->startMs) / 66);
  }

  Numbers numbers_;
  const int64_t start_;
  int64_t events_ = 0;
  std::string recorder_;
  std::vector<tarn::ArchiveLine> lines_;
};

// What the question is to find. A gap stands in the day that it begins on, and may be near an event
// of another one.
class Answer {
 public:
  explicit Answer(const Order& order) : order_(order) {}
  void take(const Day& day) {
    for (const tarn::ArchiveLine& line : day.lines()) {
      if (line.kind == "gap") gaps_.push_back(line);
      if (line.kind == "event" && line.trigger == order_.trigger && line.startMs >= order_.from &&
          line.startMs <= order_.to)
        events_.push_back(line);
    }
  }
  void endRecorder() {
    for (const tarn::ArchiveLine& event : events_) takeEvent(event);
    events_.clear();
    gaps_.clear();
  }
  void write() {
    std::sort(rows_.begin(), rows_.end());
    std::ofstream file(order_.answer);
    for (const std::string& row : rows_) file << row << "\n";
  }

 private:
  void takeEvent(const tarn::ArchiveLine& event) {
    const size_t before = rows_.size();
    for (const tarn::ArchiveLine& gap : gaps_) {
      if (gap.channel == event.channel && gap.startMs < event.endMs + kAroundMs &&
          gap.endMs > event.startMs - kAroundMs)
        rows_.push_back(event.object + " " + std::to_string(gap.startMs) + " " +
                        std::to_string(gap.endMs));
    }
    if (rows_.size() == before) rows_.push_back(event.object + " null null");
  }

  const Order& order_;
  std::vector<tarn::ArchiveLine> events_;
  std::vector<tarn::ArchiveLine> gaps_;
  std::vector<std::string> rows_;
};

bool read(int argc, char** argv, Order* order) {
  if (argc < 2 || argc % 2 != 0) return false;
  order->folder = argv[1];
  const std::map<std::string, uint64_t*> counts = {
      {"--recorders", &order->recorders}, {"--first", &order->first},
      {"--days", &order->days},           {"--rows", &order->rows},
      {"--seed", &order->seed},           {"--trigger", &order->trigger}};
  for (int i = 2; i < argc; i += 2) {
    const auto count = counts.find(argv[i]);
    if (count != counts.end()) {
      *count->second = strtoull(argv[i + 1], nullptr, 10);
    } else if (strcmp(argv[i], "--from") == 0) {
      order->from = strtoll(argv[i + 1], nullptr, 10);
    } else if (strcmp(argv[i], "--to") == 0) {
      order->to = strtoll(argv[i + 1], nullptr, 10);
    } else if (strcmp(argv[i], "--answer") == 0) {
      order->answer = argv[i + 1];
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Order order;
  if (!read(argc, argv, &order)) {
    fprintf(stderr, "usage: fleet FOLDER [--recorders N] [--days D] [--rows R] [--seed S] ...\n");
    return 2;
  }
  QuickFolder store(order.folder);
  Answer answer(order);
  for (uint64_t recorder = 0; recorder < order.recorders; ++recorder) {
    for (uint64_t number = order.first; number < order.first + order.days; ++number) {
      const Day day(order, recorder, number);
      tarn::DayIndex index(&store, tarn::folderOfDay(day.recorder(), day.start()));
      for (const tarn::ArchiveLine& line : day.lines()) index.add(line);
      bool written = false;
      if (!index.write(&written)) {
        fprintf(stderr, "fleet: %s\n", store.error().c_str());
        return 1;
      }
      answer.take(day);
    }
    answer.endRecorder();
  }
  if (!order.answer.empty()) answer.write();
  return 0;
}
