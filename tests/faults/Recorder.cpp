// faults_recorder: what the rig of tests/faults runs beside the product's own programs.
//   life SESSION N [edit | stop-before-close]
//                       records N pictures of two channels, with events; reports on descriptor 3
//                       what has been promised. edit: also changes and deletes rows.
//   bad HOW             does what the rig must not overlook
//   read                reads every picture of every row
//   judge FILE A B STRICT LEFT
//                       what became of all that: recovery, check, all that FILE promises, a new
//                       recording, a start. Of the oldest session A and B pictures may be missing.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "Content.h"
#include "Judge.h"
#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/session/RecordingSession.h"

namespace faults {
namespace {

constexpr int kPromiseFd = 3;
constexpr uint16_t kNewTrigger = 99;

// Past all stand-ins: what was said here must be known whatever fails.
void promise(const char* format, ...) __attribute__((format(printf, 1, 2)));
void promise(const char* format, ...) {
  char line[128];
  va_list list;
  va_start(list, format);
  const int length = vsnprintf(line, sizeof line, format, list);
  va_end(list);
  syscall(SYS_write, kPromiseFd, line, length);
}

// Our own memory may be missing, too; what the library lets through ends the program at a noexcept.
bool makePicture(const Stamp& stamp, std::vector<uint8_t>* out) noexcept {
  try {
    *out = pictureBytes(stamp);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

int fail(const char* what, const char* why) {
  fprintf(stderr, "faults_recorder: %s: %s\n", what, why);
  return 1;
}

class Life {
 public:
  Life(uint32_t session, uint32_t pictures) : session_(session), pictures_(pictures) {}

  int run(bool edit, bool stop) noexcept {
    const int result = record(edit, stop);
    if (stop && result == 0) _exit(0);
    for (uint32_t channel = 0; channel < kChannels; ++channel) {
      if (sessions_[channel].isOpen() && sessions_[channel].close() != 0 && result == 0)
        return closeFailed(channel);
      tellSafe(channel);
    }
    if (result != 0) return result;
    if (safe_[0] != pictures_ || safe_[1] != pictures_) return fail("close", "not all is safe");
    promise("event %u 10 %u\n", events_[1], pictures_ - 1);
    CDbLog::getInstance()->finish();
    promise("done\n");
    return 0;
  }

 private:
  static constexpr uint32_t kChannels = 2;

  int closeFailed(uint32_t channel) {
    tellSafe(channel);
    return fail("close", sessions_[channel].errorText());
  }

  int record(bool edit, bool stop) {
    for (uint32_t channel = 0; channel < kChannels; ++channel) {
      tarn::RecordingOptions options;
      options.channel = static_cast<int8_t>(channel);
      options.segmentSeconds = 1;
      options.flushIntervalMs = kFlushPictures * 1000 / kRate;
      options.inTrg = 7;
      if (sessions_[channel].open(options) != 0)
        return fail("open", sessions_[channel].errorText());
    }
    for (uint32_t index = 0; index < pictures_; ++index) {
      for (uint32_t channel = 0; channel < kChannels; ++channel) {
        const int result = onePicture(channel, index, stop);
        if (result != 0) return result;
      }
      if (edit && index == pictures_ / 2 && editRows() != 0) return 1;
    }
    return 0;
  }

  int onePicture(uint32_t channel, uint32_t index, bool stop) {
    tarn::RecordingSession& session = sessions_[channel];
    if (!makePicture({session_, channel, index}, &bytes_)) return fail("picture", "out of memory");
    const tarn::PictureTime time = pictureTime(session_, index);
    if (session.writePicture(bytes_.data(), bytes_.size(), time, 0, isKeyPicture(index)) != 0)
      return fail("picture", session.errorText());
    if (session.streamID() != rows_[channel]) {
      rows_[channel] = session.streamID();
      promise("row %u %u %u\n", session_, channel, index);
    }
    tellSafe(channel);
    if (index == (channel == 0 ? 5 : 10)) {
      events_[channel] = session.beginEvent(static_cast<uint16_t>(3 + channel), time, 1);
      if (events_[channel] == 0) return fail("event", session.errorText());
      promise("begun %u %u %u %u\n", events_[channel], session_, channel, index);
    }
    if (channel == 0 && index == 20 && !stop) {
      if (session.endEvent(events_[0], time) != 0) return fail("event's end", session.errorText());
      promise("event %u 5 20\n", events_[0]);
    }
    return 0;
  }

  void tellSafe(uint32_t channel) {
    const auto confirmed = static_cast<uint32_t>(sessions_[channel].statistics().confirmed);
    if (confirmed == safe_[channel]) return;
    safe_[channel] = confirmed;
    promise("safe %u %u %u\n", session_, channel, confirmed);
  }

  // As a menu does: another trigger for the newest closed row, and the oldest row goes, with the
  // first event.
  int editRows() {
    CApiDb db;
    DB_STREAM row = {};
    db.setSql("SELECT * FROM STREAM WHERE recSize != 0 ORDER BY streamID DESC LIMIT 1");
    if (db.getNTuple() == 1 && db.getStreamValue(0, &row) == 0) {
      row.inTrg = kNewTrigger;
      if (db.updateStream(kStreamRegInTrg, &row) == row.streamID && db.getStatus() == 1)
        promise("updated %u %u\n", row.streamID, kNewTrigger);
    }
    DB_EVENT event = {};
    if (db.selectEvent(0, &event) == 1) {
      db.deleteEvent(event.eventID);
      if (db.getStatus() == 1) promise("event-deleted %u\n", event.eventID);
    }
    if (db.selectStreamOldest(&row) == 1) {
      db.deleteStream(row.streamID);
      if (db.getStatus() == 1) promise("deleted %u\n", row.streamID);
    }
    return 0;
  }

  uint32_t session_;
  uint32_t pictures_;
  uint32_t safe_[kChannels] = {};
  uint32_t events_[kChannels] = {};
  uint32_t rows_[kChannels] = {};
  std::vector<uint8_t> bytes_;
  tarn::RecordingSession sessions_[kChannels];
};

// Programs that the rig must not take for good ones.
int misbehave(const std::string& how) {
  if (how == "silent") return 3;
  if (how == "crash") abort();
  while (how == "hang") pause();
  volatile bool spins = how == "spin";
  while (spins) {
  }
  if (how == "early") promise("done, but not as it should be\n");
  if (how == "differ") printf("something else\n");
  if (how == "scribble") {
    FILE* card = fopen("/dev/sdblk0p1", "r+");
    if (card == nullptr || fseek(card, 1000, SEEK_SET) != 0 || fputs("x", card) < 0) return 0;
    fclose(card);
    printf("what it should print");
  }
  return 0;
}

// Prints what it read, a line for each row.
int readAll() noexcept {
  std::vector<DB_STREAM> rows;
  std::vector<uint8_t> bytes;
  std::vector<uint8_t> wanted;
  if (!tarn::streamsOfPeriod(0, 0xFFFFFFFF, 0, &rows)) return fail("read", "the database");
  for (const DB_STREAM& row : rows) {
    tarn::RecordingReader reader;
    if (reader.open(row) != 0) return fail("read", "a recording cannot be opened");
    for (uint32_t i = 0; i < row.recSize; ++i) {
      tarn::PictureEntry entry;
      if (!reader.picture(i, &entry) || !reader.readPicture(entry, &bytes))
        return fail("read", "a picture cannot be read");
      Stamp stamp;
      if (!readStamp(bytes, &stamp)) return fail("read", "a picture without a stamp");
      if (!makePicture(stamp, &wanted)) return fail("read", "out of memory");
      if (bytes != wanted) printf("wrong picture %u of %u\n", i, row.streamID);
    }
    printf("row %u pictures %u\n", row.streamID, row.recSize);
  }
  return fflush(stdout) == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  const auto number = [&](int i) {
    return i < argc ? static_cast<uint32_t>(strtoul(argv[i], nullptr, 10)) : 0;
  };
  const std::string extra = argc > 4 ? argv[4] : "";
  if (what == "bad") return misbehave(extra.empty() && argc > 2 ? argv[2] : "");
  if (what == "life") {
    Life life(number(2), number(3));
    return life.run(extra == "edit", extra == "stop-before-close");
  }
  if (what == "read") return readAll();
  if (what == "judge" && argc > 5)
    return Judge({argv[2], {number(3), number(4)}, number(5) != 0, number(6) != 0}).run();
  return 2;
}

}  // namespace
}  // namespace faults

int main(int argc, char** argv) {
  try {
    return faults::main(argc, argv);
  } catch (const std::bad_alloc&) {
    return faults::fail("start", "out of memory");
  }
}
