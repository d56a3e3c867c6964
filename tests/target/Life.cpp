// target_life begin COPY | again
// A scripted piece of a recorder's life on the card of the view, with fixed times: whatever machine
// runs it, the card's bytes are the same afterwards. `begin` fills every ring more than once and
// leaves in COPY the card of a moment in the midst of recordings, as a killed recorder leaves it.
// `again` goes on with a card that holds what `begin` or a recovery left.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "fat/ChunkFiles.h"
#include "recorder/log/LogWriter.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/session/RecordingSession.h"

namespace {

constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kRate = 25;
constexpr uint32_t kGop = 15;
constexpr uint32_t kAgain = 5000;  // first picture of the second piece

void require(bool good, const std::string& what) {
  if (!good) throw std::runtime_error(what);
}

bool isKey(uint32_t number) { return number % kGop == 0; }

// Stream of pictures in the byte stream format, split into its access units: parameter sets and an
// IDR slice, or one other slice, with contents that follow from the number.
class AnnexBFixture {
 public:
  std::vector<uint8_t> accessUnit(uint32_t number) {
    unit_.clear();
    if (isKey(number)) {
      put({0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xF6, 0x84, 0x00});
      put({0x68, 0xCE, 0x3C, 0x80});
    }
    std::vector<uint8_t> slice = {static_cast<uint8_t>(isKey(number) ? 0x65 : 0x41)};
    uint32_t state = number * 2654435761U + 12345;
    const size_t size = 200 + number * 37 % 701 + (isKey(number) ? 1500 : 0);
    while (slice.size() < size) {
      state = state * 1664525U + 1013904223U;
      // Many zeros, so that some need emulation prevention.
      slice.push_back(static_cast<uint8_t>((state & 0x3000) == 0 ? 0 : state >> 24));
    }
    slice.push_back(0x80);
    put(slice);
    return unit_;
  }

 private:
  void put(const std::vector<uint8_t>& payload) {
    unit_.insert(unit_.end(), {0, 0, 0, 1});
    int zeros = 0;
    for (const uint8_t byte : payload) {
      if (zeros == 2 && byte <= 3) {
        unit_.push_back(3);
        zeros = 0;
      }
      unit_.push_back(byte);
      zeros = byte == 0 ? zeros + 1 : 0;
    }
  }

  std::vector<uint8_t> unit_;
};

tarn::PictureTime timeOf(uint32_t number) {
  return tarn::PictureTime::fromMicros(int64_t{kStart} * 1000000 +
                                       int64_t{number} * (1000000 / kRate));
}

class Channel {
 public:
  Channel(int8_t channel, uint32_t segmentSeconds) {
    tarn::RecordingOptions options;
    options.channel = channel;
    options.segmentSeconds = segmentSeconds;
    options.flushIntervalMs = 200;
    options.inTrg = static_cast<uint16_t>(7 + channel);
    require(session_.open(options) == 0, session_.errorText());
  }
  void pictures(uint32_t from, uint32_t to) {
    for (uint32_t number = from; number < to; ++number) {
      const std::vector<uint8_t> unit = fixture_.accessUnit(number);
      require(
          session_.writePicture(unit.data(), unit.size(), timeOf(number), 0, isKey(number)) == 0,
          session_.errorText());
    }
  }
  uint32_t beginEvent(uint16_t trigger, uint32_t number) {
    const uint32_t key = session_.beginEvent(trigger, timeOf(number), 2);
    require(key != 0, session_.errorText());
    return key;
  }
  void endEvent(uint32_t key, uint32_t number) {
    require(session_.endEvent(key, timeOf(number)) == 0, "an event does not end");
  }
  void gap() { session_.markDiscontinuity(); }
  void close() { require(session_.close() == 0, session_.errorText()); }
  tarn::RecordingStatistics statistics() const { return session_.statistics(); }

 private:
  tarn::RecordingSession session_;
  AnnexBFixture fixture_;
};

// Rows of a program that keeps events of its own: inserts, updates and deletions.
void ownEvents(uint32_t first, uint32_t count) {
  CApiDb db;
  require(db.connect(tarn::DatabaseSetup::defaultPath()) == 0, "no database");
  for (uint32_t i = 0; i < count; ++i) {
    DB_EVENT event = {};
    event.extTrg = static_cast<uint16_t>(100 + i % 5);
    event.preSec = static_cast<uint16_t>(i);
    event.startDate = timeOf(first + i).seconds;
    event.startMSec = timeOf(first + i).milliseconds();
    require(db.insertEvent(&event) != 0, "an event cannot be inserted");
    event.endDate = event.startDate + 1;
    event.endMSec = 500;
    require(db.updateEvent(kEventRegEndDate | kEventRegEndMSec, &event) == event.eventID,
            "an event cannot be updated");
    if (i % 3 == 0)
      require(db.deleteEvent(event.eventID) == event.eventID, "an event cannot be deleted");
  }
  db.finish();
}

void systemLog(uint32_t from, uint32_t to) {
  tarn::LogWriter log;
  require(log.open() == 0, log.errorText());
  for (uint32_t number = from; number < to; ++number) {
    char head[32];
    snprintf(head, sizeof head, "line %06u ", number);
    const std::string text = head + std::string(20 + number * 131 % 700, 'x');
    require(log.append(text.data(), text.size(), int64_t{kStart} + number) == 0, log.errorText());
    if (number % 5 == 0) require(log.flush() == 0, log.errorText());
  }
  require(log.close() == 0, log.errorText());
}

// Nothing would be shown by a script that has become too short.
void requireWraps(const tarn::RecordingStatistics& one, const tarn::RecordingStatistics& other) {
  require(one.streamWraps + other.streamWraps > 0, "no stream ring came round");
  require(one.pictureWraps + other.pictureWraps > 0, "no picture ring came round");
  require(one.recordingsDeleted > 0 && other.recordingsDeleted > 0, "no recording went");
  require(one.eventsDeleted + other.eventsDeleted > 0, "no event went");
}

void begin(const char* copy) {
  Channel first(0, 4);
  Channel second(1, 2);
  for (uint32_t number = 0; number < 900; number += 90) {
    const uint32_t event = first.beginEvent(3, number);
    first.pictures(number, number + 60);
    second.pictures(2000 + number, 2000 + number + 90);
    if (number == 450) first.gap();
    first.pictures(number + 60, number + 90);
    first.endEvent(event, number + 89);
  }
  ownEvents(800, 40);
  systemLog(0, 150);
  first.beginEvent(4, 900);
  first.pictures(900, 957);
  second.pictures(2900, 2933);
  std::filesystem::copy_file(tarn::deviceName(tarn::kRecorderPartition), copy,
                             std::filesystem::copy_options::overwrite_existing);
  first.pictures(957, 1000);
  second.close();
  first.close();
  requireWraps(first.statistics(), second.statistics());
}

void again() {
  systemLog(1000, 1020);
  Channel first(0, 3);
  const uint32_t event = first.beginEvent(9, kAgain);
  first.pictures(kAgain, kAgain + 200);
  first.endEvent(event, kAgain + 120);
  ownEvents(kAgain, 7);
  first.close();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string part = argc > 1 ? argv[1] : "";
  if (!(part == "begin" && argc == 3) && !(part == "again" && argc == 2)) {
    fputs("usage: target_life begin COPY | again\n", stderr);
    return 2;
  }
  int status = 0;
  try {
    if (part == "begin") {
      begin(argv[2]);
    } else {
      again();
    }
  } catch (const std::exception& failure) {
    fprintf(stderr, "target_life: %s\n", failure.what());
    status = 1;
  }
  CDbLog::getInstance()->finish();
  return status;
}
