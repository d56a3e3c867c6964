// board-recorder: what a recorder's program does on the board of tests/board/run, and the check of
// what it finds after the power was cut. Reports on standard output, which is the serial console.
//
//   board-recorder record SESSION SECONDS BITRATE [burst]   as a camera delivers; burst: at once
//   board-recorder early SESSION SECONDS BITRATE            as a camera delivers, from now on, and
//                                                           until so long after a server is there
//   board-recorder first SESSION BITRATE cut|stop           the same until the first picture is
//   safe;
//                                                           cut: leaves the rest to the power
//   board-recorder verify                                   every picture of every row, to the byte

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/Endian.h"
#include "dblog/CDbLog.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/rows/ServerPatience.h"
#include "recorder/rows/ServerProbe.h"
#include "recorder/session/PictureQueue.h"
#include "recorder/session/RecordingSession.h"

namespace {

constexpr uint32_t kRate = 25;
constexpr uint32_t kFixturePictures = 2 * kRate;
constexpr uint32_t kFirstSession = 1767225600;  // seconds; an hour for each
constexpr uint32_t kSessionSeconds = 3600;
constexpr int64_t kMicros = 1000000;

// A picture begins with its slice's start code, then the stamp that makes it one of its kind:
// session, number and bit rate, four bits in a byte so that no byte is 0.
constexpr uint8_t kKeyHead[] = {0, 0, 0,    1,    0x67, 0x42, 0xE0, 0x1E, 0xA6, 0, 0,
                                0, 1, 0x68, 0xCE, 0x3C, 0x80, 0,    0,    0,    1, 0x65};
constexpr uint8_t kOtherHead[] = {0, 0, 0, 1, 0x41};
constexpr size_t kStampSize = 24;

struct Stamp {
  uint32_t session = 0, number = 0, bitrate = 0;
};

void putStamp(const Stamp& stamp, uint8_t* out) {
  for (const uint32_t value : {stamp.session, stamp.number, stamp.bitrate}) {
    for (int shift = 28; shift >= 0; shift -= 4)
      *out++ = static_cast<uint8_t>(0x10 | ((value >> shift) & 0xF));
  }
}

Stamp getStamp(const uint8_t* in) {
  Stamp stamp;
  for (uint32_t* value : {&stamp.session, &stamp.number, &stamp.bitrate}) {
    for (int i = 0; i < 8; ++i) *value = *value << 4 | (*in++ & 0xFU);
  }
  return stamp;
}

bool isKey(uint32_t number) { return number % kRate == 0; }
size_t headSize(bool key) { return key ? sizeof kKeyHead : sizeof kOtherHead; }

// Two seconds of video, split into pictures: the same bytes in every program, for a bit rate.
class Fixture {
 public:
  explicit Fixture(uint32_t bitrate) : bitrate_(bitrate) {
    const size_t mean = bitrate / 8 / kRate;
    uint32_t noise = bitrate;
    for (uint32_t i = 0; i < kFixturePictures; ++i) {
      const bool key = isKey(i);
      // A key picture is as large as four of the mean.
      const size_t size = std::max<size_t>(64, key ? 4 * mean : mean * (kRate - 4) / (kRate - 1));
      const uint8_t* head = key ? kKeyHead : kOtherHead;
      std::vector<uint8_t> picture(head, head + headSize(key));
      picture.resize(size);
      for (size_t at = headSize(key); at < size; ++at) {
        noise = static_cast<uint32_t>(noise * uint64_t{1664525} + 1013904223);
        picture[at] = static_cast<uint8_t>(noise >> 24 | 2);  // never 0 or 1: no start code
      }
      pictures_.push_back(std::move(picture));
    }
  }

  // The picture of this number, until the next call.
  const std::vector<uint8_t>& picture(uint32_t session, uint32_t number) {
    std::vector<uint8_t>& picture = pictures_[number % kFixturePictures];
    putStamp({session, number, bitrate_}, picture.data() + headSize(isKey(number)));
    return picture;
  }

 private:
  uint32_t bitrate_;
  std::vector<std::vector<uint8_t>> pictures_;
};

tarn::PictureTime timeOf(uint32_t session, uint32_t number) {
  return tarn::PictureTime::fromMicros(
      (int64_t{kFirstSession} + int64_t{session} * kSessionSeconds) * kMicros +
      int64_t{number} * kMicros / kRate);
}

int64_t now() {
  struct timespec time = {};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return int64_t{time.tv_sec} * kMicros + time.tv_nsec / 1000;
}

// What it and the libraries take of the memory: resident, and its share of what others use too.
void reportMemory(const char* when) {
  std::ifstream file("/proc/self/smaps_rollup");
  std::string text;
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("Rss:", 0) == 0 || line.rfind("Pss:", 0) == 0) text += " " + line;
  }
  printf("BOARD memory recorder %s%s\n", when, text.c_str());
}

int fail(const char* what, const tarn::RecordingSession& session) {
  printf("BOARD wrong %s: %s\n", what, session.errorText());
  return 1;
}

int record(uint32_t number, uint32_t seconds, uint32_t bitrate, bool burst) {
  Fixture fixture(bitrate);
  tarn::RecordingSession session;
  tarn::RecordingOptions options;
  options.inTrg = 1;
  options.bitrate = bitrate;
  options.segmentSeconds = 3;
  if (session.open(options) != 0) return fail("open", session);

  printf("BOARD recording\n");
  const int64_t begin = now();
  int64_t worst = 0;
  uint32_t event = 0;
  const uint32_t pictures = seconds * kRate;
  for (uint32_t i = 0; i < pictures; ++i) {
    const int64_t due = begin + int64_t{i} * kMicros / kRate;
    const int64_t wait = due - now();
    if (!burst && wait > 0) usleep(static_cast<useconds_t>(wait));
    const std::vector<uint8_t>& picture = fixture.picture(number, i);
    if (session.writePicture(picture.data(), picture.size(), timeOf(number, i), 0, isKey(i)) != 0)
      return fail("write", session);
    worst = std::max(worst, now() - due);
    // An event of two seconds in every five.
    if (i % (5 * kRate) == kRate) event = session.beginEvent(7, timeOf(number, i), 1);
    if (i % (5 * kRate) == 3 * kRate && session.endEvent(event, timeOf(number, i)) != 0)
      return fail("event", session);
    if (i % 5 == 4) {
      const tarn::RecordingStatistics done = session.statistics();
      printf("BOARD accepted %" PRIu64 " confirmed %" PRIu64 "\n", done.pictures, done.confirmed);
    }
  }
  reportMemory("recording");
  if (session.close() != 0) return fail("close", session);
  const int64_t took = now() - begin;
  CDbLog::getInstance()->finish();
  const tarn::RecordingStatistics done = session.statistics();
  printf("BOARD closed pictures %" PRIu64 " confirmed %" PRIu64 " bytes %" PRIu64 " ms %" PRId64,
         done.pictures, done.confirmed, done.bytes, took / 1000);
  if (!burst) printf(" worst-lag-ms %" PRId64, worst / 1000);
  printf(" deleted %" PRIu32 " wraps %" PRIu32 "\n", done.recordingsDeleted, done.streamWraps);
  return 0;
}

// An encoder that sends from the first moment on, in a thread of its own.
class Encoder {
 public:
  Encoder(uint32_t session, uint32_t bitrate, tarn::PictureQueue* queue)
      : session_(session), fixture_(bitrate), queue_(queue), thread_([this] { run(); }) {}
  ~Encoder() { stop(); }
  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  uint32_t sent() const { return sent_; }

 private:
  void run() {
    for (const int64_t begin = now(); !stop_; ++sent_) {
      const int64_t wait = begin + int64_t{sent_} * kMicros / kRate - now();
      if (wait > 0) usleep(static_cast<useconds_t>(wait));
      tarn::PictureQueue::Picture picture;
      picture.annexB = fixture_.picture(session_, sent_);
      picture.presentation = timeOf(session_, sent_);
      picture.key = isKey(sent_);
      queue_->add(std::move(picture));
    }
  }

  const uint32_t session_;
  Fixture fixture_;
  tarn::PictureQueue* queue_;
  std::atomic<uint32_t> sent_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Of a recorder whose start-up is still at work: nothing of the card is touched before there is a
// server. 0, or what the program ends with.
int openBehindStart(uint32_t bitrate, tarn::RecordingSession* session) {
  const std::atomic<bool> never{false};
  tarn::waitForServerForever(true);
  tarn::awaitServer(never);
  tarn::RecordingOptions options;
  options.bitrate = bitrate;
  return session->open(options) == 0 ? 0 : fail("open", *session);
}

// All that the encoder has sent.
int closeBehind(Encoder* encoder, tarn::PictureQueue* queue, tarn::RecordingSession* session) {
  encoder->stop();
  if (queue->handOver(session) != 0 || session->close() != 0) return fail("close", *session);
  CDbLog::getInstance()->finish();
  return 0;
}

int recordEarly(uint32_t number, uint32_t seconds, uint32_t bitrate) {
  const int64_t begin = now();
  tarn::PictureQueue queue;
  Encoder encoder(number, bitrate, &queue);
  tarn::RecordingSession session;
  if (const int code = openBehindStart(bitrate, &session); code != 0) return code;
  printf("BOARD early waited-ms %" PRId64 " pictures %zu KiB %zu\n", (now() - begin) / 1000,
         queue.pictures(), queue.bytes() / 1024);
  reportMemory("waited");
  const int64_t opened = now();
  while (now() - opened < seconds * kMicros) {
    if (queue.handOver(&session) != 0) return fail("write", session);
    usleep(20000);
  }
  if (const int code = closeBehind(&encoder, &queue, &session); code != 0) return code;
  printf("BOARD early sent %" PRIu32 " confirmed %" PRIu64 " dropped %" PRIu64 "\n", encoder.sent(),
         session.statistics().confirmed, queue.dropped().pictures);
  return 0;
}

// Leaves the recording open where the power is to end it.
int recordFirst(uint32_t number, uint32_t bitrate, bool cut) {
  tarn::PictureQueue queue;
  Encoder encoder(number, bitrate, &queue);
  tarn::RecordingSession session;
  if (const int code = openBehindStart(bitrate, &session); code != 0) return code;
  while (session.statistics().confirmed == 0) {
    if (queue.handOver(&session) != 0) return fail("write", session);
    if (session.statistics().confirmed == 0) usleep(5000);
  }
  printf("BOARD clock safe %.2f\n", static_cast<double>(now()) / kMicros);
  if (cut) _exit(0);
  return closeBehind(&encoder, &queue, &session);
}

// Pictures of a session that came back.
struct Found {
  uint32_t first = 0, last = 0, rows = 0;
};

class Verifier {
 public:
  int run() {
    for (const DB_STREAM& row : tarn::streamsOfPeriod(0, 0xFFFFFFFF)) {
      ++rows_;
      verifyRow(row);
    }
    for (const auto& [session, found] : sessions_)
      printf("BOARD session %" PRIu32 " first %" PRIu32 " last %" PRIu32 " rows %" PRIu32 "\n",
             session, found.first, found.last, found.rows);
    printf("BOARD verified rows %" PRIu32 " pictures %" PRIu32 " wrong %" PRIu32 "\n", rows_,
           pictures_, wrong_);
    return wrong_ == 0 ? 0 : 1;
  }

 private:
  void verifyRow(const DB_STREAM& row) {
    tarn::RecordingReader reader;
    if (reader.open(row) != 0 || reader.pictureCount() == 0) return wrong("row", 0, 0);
    for (uint32_t i = 0; i < reader.pictureCount(); ++i) verifyPicture(&reader, i);
  }

  void verifyPicture(tarn::RecordingReader* reader, uint32_t index) {
    ++pictures_;
    tarn::PictureEntry entry;
    if (!reader->picture(index, &entry) || !reader->readPicture(entry, &bytes_))
      return wrong("entry", reader->row().streamID, index);
    const size_t head = headSize(entry.isKey());
    if (bytes_.size() < head + kStampSize) return wrong("size", reader->row().streamID, index);
    const Stamp stamp = getStamp(bytes_.data() + head);
    if (bytes_ != expected(stamp)) return wrong("bytes", stamp.session, stamp.number);
    if (!(entry.presentation == timeOf(stamp.session, stamp.number)))
      return wrong("time", stamp.session, stamp.number);
    const auto place = sessions_.try_emplace(stamp.session, Found{stamp.number, stamp.number, 0});
    Found& found = place.first->second;
    if (!place.second && stamp.number != found.last + 1) wrong("gap", stamp.session, stamp.number);
    found.last = stamp.number;
    if (index == 0) ++found.rows;
  }

  const std::vector<uint8_t>& expected(const Stamp& stamp) {
    static const std::vector<uint8_t> none;
    const bool known = stamp.bitrate >= 8 * kRate && stamp.bitrate <= 100000000;
    if (!known) return none;
    return fixtures_.try_emplace(stamp.bitrate, stamp.bitrate)
        .first->second.picture(stamp.session, stamp.number);
  }

  void wrong(const char* what, uint32_t session, uint32_t number) {
    ++wrong_;
    printf("BOARD wrong %s %" PRIu32 " %" PRIu32 "\n", what, session, number);
  }

  std::map<uint32_t, Fixture> fixtures_;  // by bit rate
  std::map<uint32_t, Found> sessions_;
  std::vector<uint8_t> bytes_;
  uint32_t rows_ = 0, pictures_ = 0, wrong_ = 0;
};

uint32_t numberOf(const char* text) { return static_cast<uint32_t>(strtoul(text, nullptr, 10)); }

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc >= 5 && strcmp(argv[1], "record") == 0)
    return record(numberOf(argv[2]), numberOf(argv[3]), numberOf(argv[4]), argc > 5);
  if (argc == 5 && strcmp(argv[1], "early") == 0)
    return recordEarly(numberOf(argv[2]), numberOf(argv[3]), numberOf(argv[4]));
  if (argc == 5 && strcmp(argv[1], "first") == 0)
    return recordFirst(numberOf(argv[2]), numberOf(argv[3]), strcmp(argv[4], "cut") == 0);
  if (argc == 2 && strcmp(argv[1], "verify") == 0) return Verifier().run();
  return 2;
}
