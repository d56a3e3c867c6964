#include "powercut/Workload.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "powercut/Checks.h"
#include "powercut/FaultLives.h"
#include "powercut/KeptLife.h"
#include "powercut/LogLife.h"
#include "powercut/ReadFaults.h"
#include "powercut/RedatedLife.h"
#include "powercut/Script.h"
#include "powercut/SoundLife.h"
#include "powercut/States.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/server/ManagementServer.h"

namespace powercut {
namespace {

constexpr uint64_t kCardBytes = 40 * 1024 * 1024;
constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kMostFlushPictures = 5;
constexpr uint32_t kGop = 10;

Shape g_shape;
uint32_t g_variant = 0;  // 0: as described; others differ in sizes and lengths
tarn::CardLayout g_layout;

tarn::CardRequest request() {
  tarn::CardRequest request;
  request.sizeBytes = kCardBytes;
  request.clusterBytes = 512;
  auto set = [&](int type, uint64_t size, uint64_t count) {
    request.families[static_cast<size_t>(type)] = {size, count};
  };
  set(tarn::kFileStream, g_shape.streamChunk, g_shape.streams);
  set(tarn::kFilePicture, g_shape.pictureChunk, g_shape.streams);
  set(tarn::kFileJournal, g_shape.journalChunk, 4);
  set(tarn::kFileSyslog, 8192, 5);
  set(tarn::kFileDbImage, 65536, 1);
  return request;
}

}  // namespace

Shape& shape() { return g_shape; }
uint32_t variant() { return g_variant; }
uint32_t flushPictures() { return kMostFlushPictures - g_variant % 3; }

void require(bool good, const std::string& what) {
  if (!good) throw std::runtime_error(what + "\n" + takeLog());
}

void begin(Recorded* out) {
  Card& card = Card::get();
  out->base.assign(card.bytes(), card.bytes() + card.size());
  card.record(&out->trace);
}

void boot() {
  const tarn::RecoveryReport report = bootCard();
  require(report.ok(), report.error);
}

void knowRows(Recorded* out) {
  for (const DB_STREAM& row : listStreams()) {
    RowMark mark{RowMark::kStreamPut, row.streamID};
    mark.stream = row;
    mark.end = 0;
    out->trace.rows.push_back(mark);
  }
  for (const DB_EVENT& row : listEvents()) {
    RowMark mark{RowMark::kEventPut, row.eventID};
    mark.event = row;
    mark.end = 0;
    out->trace.rows.push_back(mark);
  }
}

void cleanStop() {
  std::string error;
  require(tarn::Recovery().saveImage(&error) == 0, error);
}

namespace {

void longRecording(Recorded* out) {
  formatCard();
  boot();
  Server server;
  begin(out);
  Recorder recorder(out);
  const size_t session = recorder.open(0, 4);
  const uint32_t first = 60 + g_variant;
  const uint32_t last = 130 + g_variant * 3;
  recorder.pictures(session, 0, first);
  const uint32_t event = recorder.beginEvent(session, 3, first);
  recorder.pictures(session, first, last);
  recorder.endEvent(session, event, last);
  recorder.pictures(session, last, 250 + g_variant);
  recorder.close(session);
}

void chunkChange(Recorded* out) {
  g_shape = {65536, 16 * 1024, 3, 4096};
  formatCard();
  boot();
  Server server;
  begin(out);
  Recorder recorder(out);
  const size_t session = recorder.open(0);
  recorder.pictures(session, 0, 160 + g_variant * 3);
  recorder.close(session);
}

// Journals so small that they come round long before the space does: what was recorded first goes
// because its record's place is needed.
void smallJournal(Recorded* out) {
  g_shape = {256 * 1024, 16 * 1024, 3, 512};
  formatCard();
  boot();
  const Server server;
  begin(out);
  Recorder recorder(out);
  for (uint32_t number = 0; number < 360; number += 30) {
    const size_t session = recorder.open(0);
    recorder.picture(session, number);
    const uint32_t first = recorder.beginEvent(session, 5, number);
    const uint32_t second = recorder.beginEvent(session, 6, number);
    recorder.pictures(session, number + 1, number + 6 + g_variant % 4);
    recorder.endEvent(session, first, number + 55);
    recorder.endEvent(session, second, number + 30);
    recorder.close(session);
  }
}

// A recording that lost power is recovered, and later its chunk is used again from the start: the
// new recording, of a clock that was set back, begins where the old header and entries still lie.
void again(Recorded* out) {
  g_shape = {65536, 2048, 2, 1024};
  formatCard();
  boot();
  std::vector<uint8_t> cut;
  {
    const Server server;
    Recorder before(out);
    const size_t session = before.open(0);
    before.pictures(session, 1000, 1040 + g_variant % 7);
    cut.assign(Card::get().bytes(), Card::get().bytes() + Card::get().size());
  }
  Card::get().load(cut);
  boot();
  const Server server;
  begin(out);
  knowRows(out);
  Recorder recorder(out);
  const size_t session = recorder.open(1);
  recorder.pictures(session, 100, 200 + g_variant);
  recorder.close(session);
}

// Rings of stream, picture and both journals come round, and the oldest recordings go.
void wrap(Recorded* out) {
  g_shape = {65536, 2048, 2, 512};
  formatCard();
  boot();
  Server server;
  {
    // What the card holds before: full rings.
    Recorder before(out);
    const size_t session = before.open(0, 1);
    for (uint32_t number = 0; number < 300; number += 30) {
      const uint32_t event = before.beginEvent(session, 5, number);
      before.pictures(session, number, number + 30);
      before.endEvent(session, event, number + 29);
    }
    before.close(session);
  }
  // Those are all safe.
  out->safe.push_back({0, 0, 300, 300});
  begin(out);
  knowRows(out);
  Recorder recorder(out);
  const size_t session = recorder.open(0, 1);
  const uint32_t length = 60 - g_variant % 40;
  for (uint32_t number = 300; number < 660; number += length) {
    const uint32_t event = recorder.beginEvent(session, 5, number);
    recorder.pictures(session, number, number + length);
    recorder.endEvent(session, event, number + length - 1);
  }
  recorder.close(session);
}

void twoRecordings(Recorded* out) {
  formatCard();
  boot();
  Server server;
  begin(out);
  Recorder recorder(out);
  const size_t first = recorder.open(0);
  const size_t second = recorder.open(1);
  for (uint32_t number = 0; number < 60 + g_variant; ++number) {
    if (number < 40 + g_variant / 2) recorder.picture(first, number);
    recorder.picture(second, 1000 + number);
  }
  recorder.close(first);
  recorder.close(second);
}

// The system log comes round, beside a recording.
void systemLog(Recorded* out) {
  formatCard();
  boot();
  Server server;
  begin(out);
  Recorder recorder(out);
  const size_t session = recorder.open(0);
  recorder.pictures(session, 0, 13);
  logLife(out, g_variant);
  recorder.pictures(session, 13, 30);
  recorder.close(session);
}

// Clean stops, which leave the database on the card, and starts from it, on a card whose rings are
// full: what follows a start deletes rows before it adds any.
void databaseImage(Recorded* out) {
  g_shape = {65536, 2048, 2, 512};
  formatCard();
  boot();
  begin(out);
  for (uint32_t piece = 0; piece < 4; ++piece) {
    {
      const Server server;
      Recorder recorder(out);
      const size_t session = recorder.open(0, 1);
      const uint32_t first = piece * 100;
      const uint32_t event = recorder.beginEvent(session, 5, first);
      recorder.pictures(session, first, first + 70 + g_variant % 9);
      if (piece != 2) recorder.endEvent(session, event, first + 60);
      recorder.close(session);
    }
    cleanStop();
    if (piece < 3) boot();
  }
}

// Over a card that holds recordings.
void format(Recorded* out) {
  g_shape = {65536, 4096, 2, 1024};
  formatCard();
  boot();
  {
    Server server;
    Recorder recorder(out);
    const size_t session = recorder.open(0);
    recorder.pictures(session, 0, 40);
    recorder.close(session);
  }
  begin(out);
  // The whole volume is the format's, and nothing behind it.
  Card::get().allow({{0, g_layout.sizeBytes()}});
  out->isFormat = true;
  tarn::CardFormatter formatter;
  std::string error;
  tarn::FormatOptions options;
  options.force = true;
  require(formatter.format(kCardPath, request(), options, &error) == 0, error);
}

}  // namespace

struct Server::Impl {
  tarn::ManagementServer server;
  std::thread thread;
};

Server::Server() : impl_(std::make_unique<Impl>()) {
  require(impl_->server.start() == 0, "the server does not start");
  impl_->thread = std::thread([this] { impl_->server.run(); });
}

Server::~Server() {
  impl_->server.requestStop();
  impl_->thread.join();
}

std::vector<uint8_t> pictureBytes(uint32_t number) {
  const uint32_t spread = 701 + g_variant % 13 * 29;
  std::vector<uint8_t> bytes(200 + number * 37 % spread +
                             (isKeyPicture(number) ? 1500 + g_variant % 7 * 61 : 0));
  uint32_t state = number * 2654435761u + 12345;
  for (uint8_t& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<uint8_t>(state >> 24);
  }
  const uint8_t head[] = {0, 0, 0, 1, static_cast<uint8_t>(isKeyPicture(number) ? 0x65 : 0x41)};
  memcpy(bytes.data(), head, sizeof head);
  memcpy(bytes.data() + sizeof head, &number, sizeof number);
  return bytes;
}

tarn::PictureTime pictureTime(uint32_t number) {
  return tarn::PictureTime::fromMicros(int64_t{kStart} * 1000000 +
                                       int64_t{number} * (1000000 / kRate));
}

bool isKeyPicture(uint32_t number) { return number % kGop == 0; }

void formatCard() {
  Card& card = Card::get();
  card.allow({});
  card.create(kCardBytes);
  tarn::CardFormatter formatter;
  tarn::FormatOptions options;
  options.invariant = true;
  options.force = true;
  std::string error;
  require(formatter.format(kCardPath, request(), options, &error) == 0, error);
  g_layout = formatter.layout();
  card.settle();
  card.takeStray();
  card.allow(chunkExtents());
}

const tarn::CardLayout& cardLayout() { return g_layout; }

namespace {

constexpr int kCopiedFamilies[] = {tarn::kFileJournal, tarn::kFileStreamManage,
                                   tarn::kFileSyslogManage, tarn::kFileJournalManage};

}  // namespace

std::vector<std::pair<uint64_t, uint64_t>> copiedExtents() {
  std::vector<std::pair<uint64_t, uint64_t>> extents;
  for (int type : kCopiedFamilies) {
    const tarn::CardFamily& family = g_layout.family(type);
    extents.emplace_back(family.startByte(), family.startByte() + family.bytes());
  }
  return extents;
}

// The copies are neighbours: an even chunk and the odd one behind it.
uint64_t otherCopy(uint64_t byte) {
  for (int type : kCopiedFamilies) {
    const tarn::CardFamily& family = g_layout.family(type);
    if (byte < family.startByte() || byte >= family.startByte() + family.bytes()) continue;
    const uint64_t chunk = (byte - family.startByte()) / family.chunkSize;
    return chunk % 2 == 0 ? byte + family.chunkSize : byte - family.chunkSize;
  }
  throw std::logic_error("a byte that the card has once");
}

std::vector<std::pair<uint64_t, uint64_t>> chunkExtents() {
  std::vector<std::pair<uint64_t, uint64_t>> extents;
  for (int type = 1; type < tarn::kFileTypeCount; ++type) {
    for (uint32_t chunk = 0; chunk < g_layout.family(type).chunks; ++chunk) {
      const uint64_t start = g_layout.chunkByte(type, chunk);
      extents.emplace_back(start, start + g_layout.family(type).chunkSize);
    }
  }
  return extents;
}

namespace {

constexpr const char* kLives[] = {"recording", "chunk",   "wrap",  "two", "log",
                                  "image",     "journal", "again", "kept"};
// Lives with faults, or of a few writes: fewer variants show all of them.
constexpr const char* kShortLives[] = {"rows",  "refused", "lost",      "leftover", "resave",
                                       "stale", "sound",   "soundring", "redated",  "takenback"};
constexpr int kVariants = 42;
constexpr int kFewVariants = 2;
constexpr int kShortVariants = 6;
constexpr int kRecoveries = 60;  // moments of a life whose recovery is a life of its own
constexpr int kSmallRecoveries = 3;
constexpr int kReadRecoveries = 20;  // of those, that are tried with refused reads

void recordLife(const std::string& name, Recorded* out) {
  const size_t dot = name.find('.');
  const std::string kind = name.substr(0, dot);
  g_shape = Shape();
  g_variant = dot == std::string::npos ? 0 : static_cast<uint32_t>(atoi(name.c_str() + dot + 1));
  if (kind == "recording") return longRecording(out);
  if (kind == "chunk") return chunkChange(out);
  if (kind == "wrap") return wrap(out);
  if (kind == "two") return twoRecordings(out);
  if (kind == "log") return systemLog(out);
  if (kind == "image") return databaseImage(out);
  if (kind == "journal") return smallJournal(out);
  if (kind == "again") return again(out);
  if (kind == "kept") return keptEvents(out);
  if (kind == "format") return format(out);
  if (kind == "rows") return changedRows(out);
  if (kind == "refused") return refusedDelete(out);
  if (kind == "lost") return lostRow(out);
  if (kind == "leftover") return leftOvers(out);
  if (kind == "resave") return savedTwice(out);
  if (kind == "sound") return soundBesidePictures(out);
  if (kind == "redated") return clockBecomesKnown(out);
  if (kind == "takenback") return clockWasWrong(out);
  if (kind == "soundring") return soundRings(out);
  if (kind == "stale") return staleImage(out);
  throw std::runtime_error("there is no workload " + name);
}

// Lets a life lose power in one of its states and records the recovery. "recovery.wrap.3": the
// fourth of the states in which a wrap is cut, whatever it has and lacks of the unflushed writes.
void recordRecovery(const std::string& name, Recorded* out) {
  const size_t dot = name.find('.');
  const size_t last = name.rfind('.');
  if (dot == std::string::npos || last == dot) throw std::runtime_error("recovery of what?");
  Recorded life;
  recordLife(name.substr(dot + 1, last - dot - 1), &life);
  Card& card = Card::get();
  card.record(nullptr);
  card.settle();
  const auto moment = static_cast<uint64_t>(atoi(name.c_str() + last + 1));
  const uint64_t all = States::count(life, 1);
  const uint64_t chosen = std::min(all - 1, all * (2 * moment + 1) / (2 * kRecoveries));
  *out = life;
  out->trace.ops.clear();
  out->isRecovery = true;
  out->isRefusal = name.rfind("reads.", 0) == 0;
  States states(life, 1);
  states.walk([&](uint64_t, uint64_t distinct) { return distinct == chosen; },
              [&](const State& state) {
                out->cut = state.cut;
                out->base.assign(card.bytes(), card.bytes() + card.size());
                const uint64_t before = card.changesHash();
                Trace writes;
                card.record(&writes);
                card.recordReads(&out->reads);
                boot();
                card.recordReads(nullptr);
                card.record(nullptr);
                out->trace.ops = std::move(writes.ops);
                out->finalState = describeCard();
                out->finalSum = before ^ card.changesHash();
                out->finalCard.assign(card.bytes(), card.bytes() + card.size());
                out->finalStreams = listStreams();
                out->finalEvents = listEvents();
                if (out->isRefusal) out->finalPlaces = picturePlaces(out->finalStreams);
              });
}

}  // namespace

namespace {

void addMoments(const std::string& life, int count, std::vector<std::string>* names) {
  const int step = kRecoveries / count;
  for (int moment = step / 2; moment < kRecoveries; moment += step) {
    names->push_back(life + "." + std::to_string(moment));
  }
}

void addLife(const std::string& life, int variants, int recoveries,
             std::vector<std::string>* names) {
  names->push_back(life);
  for (int variant = 1; variant < variants; ++variant) {
    names->push_back(life + "." + std::to_string(variant));
  }
  addMoments("recovery." + life, recoveries, names);
}

}  // namespace

std::vector<std::string> workloadNames(bool all) {
  std::vector<std::string> names;
  for (const char* life : kLives) {
    addLife(life, all ? kVariants : kFewVariants, all ? kRecoveries : kSmallRecoveries, &names);
  }
  for (const char* life : kShortLives) {
    addLife(life, all ? kShortVariants : 1, all ? kShortVariants : 1, &names);
  }
  names.emplace_back("format");
  return names;
}

std::vector<std::string> readWorkloadNames(bool all) {
  std::vector<std::string> names;
  for (const char* life : kLives)
    addMoments("reads." + std::string(life), all ? kReadRecoveries : kSmallRecoveries, &names);
  for (const char* life : kShortLives)
    addMoments("reads." + std::string(life), all ? kShortVariants : 1, &names);
  return names;
}

Recorded recordWorkload(const std::string& name) {
  Recorded out;
  if (name.rfind("recovery.", 0) == 0 || name.rfind("reads.", 0) == 0) {
    recordRecovery(name, &out);
  } else {
    recordLife(name, &out);
  }
  Card::get().record(nullptr);
  Card::get().settle();
  const std::string stray = Card::get().takeStray();
  require(stray.empty(), "written outside: " + stray);
  return out;
}

}  // namespace powercut
