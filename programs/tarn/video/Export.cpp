#include "video/Export.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Console.h"
#include "RecorderDatabase.h"
#include "db/CApiDb.h"
#include "media/MediaOutput.h"
#include "recorder/recording/RecordingReader.h"

namespace tarn::tool {
namespace {

constexpr size_t kDamagesNamed = 20;

constexpr PictureTime kBeginning{0, 0};
constexpr PictureTime kForEver{UINT32_MAX, 999999};

std::string clockText(PictureTime time) { return timeText(time.seconds, time.milliseconds()); }

// Pictures of one recording, back to back, whose bytes are not the ones that were recorded.
struct DamagedRun {
  uint32_t streamID;
  uint32_t firstIndex;
  uint32_t lastIndex;
  PictureTime from;
  PictureTime to;
};

class Exporter {
 public:
  explicit Exporter(const ExportRequest& request) : request_(request) {}
  int run();

 private:
  bool fail(const std::string& text) {
    complain(text);
    return false;
  }
  // Why there are fewer pictures than were recorded: a recording that goes on with the one before
  // it may begin between two key pictures.
  std::string leftOut() const {
    return fmt::format("{} pictures need a key picture that is not among them and are left out",
                       undecodable_);
  }
  bool choose();
  bool chooseEvent();
  bool chooseStream();
  bool done(CApiDb* database);
  bool exportRow(const DB_STREAM& row, MediaOutput* output);
  bool writePicture(RecordingReader* reader, uint32_t index, const PictureEntry& entry,
                    MediaOutput* output);
  void noteDamage(const RecordingReader& reader, uint32_t index, const PictureEntry& entry);
  void tellDamage() const;
  void tell() const;
  uint32_t firstPicture(RecordingReader* reader) const;
  bool neededLater(RecordingReader* reader, uint32_t index) const;

  const ExportRequest& request_;
  std::vector<DB_STREAM> rows_;
  PictureTime from_ = kBeginning;
  PictureTime to_ = kForEver;
  OutputPicture picture_;
  uint64_t written_ = 0;
  uint64_t bytes_ = 0;
  uint64_t lost_ = 0;     // pictures that could not be read
  uint64_t damaged_ = 0;  // of those written
  std::vector<DamagedRun> damages_;
  uint64_t undecodable_ =
      0;  // pictures left out, because the key picture that they need is not there
  bool waitForKey_ = true;
  PictureTime first_;
  PictureTime last_;
};

// Whether the last statement says anything.
bool Exporter::done(CApiDb* database) {
  std::string error;
  return statementWasDone(*database, &error) || fail(error);
}

bool Exporter::chooseStream() {
  CApiDb database;
  DB_STREAM row{};
  const uint32_t found = database.selectStream(*request_.streamID, &row);
  if (!done(&database)) return false;
  if (found != 1) return fail(fmt::format("there is no recording {}", *request_.streamID));
  rows_.push_back(row);
  return true;
}

bool Exporter::chooseEvent() {
  CApiDb database;
  DB_EVENT event{};
  // 0 and 0xFFFFFFFF have a meaning of their own to the look-up: the first and the last event.
  const uint32_t key = *request_.eventID;
  const bool known = key != 0 && key != UINT32_MAX;
  const bool found = known && database.selectEvent(key, &event) == 1;
  if (known && !done(&database)) return false;
  if (!found) return fail(fmt::format("there is no event {}", key));
  if (!streamsOfEvent(event, &rows_)) return fail(kDatabaseUnread);
  from_ = PictureTime::fromMicros((int64_t{event.startDate} - event.preSec) * 1000000 +
                                  int64_t{event.startMSec} * 1000);
  if (event.endDate != 0) to_ = {event.endDate, event.endMSec * 1000u + 999u};
  return true;
}

bool Exporter::choose() {
  std::string error;
  if (!databaseIsGood(&error)) return fail(error);
  if (request_.eventID) {
    if (!chooseEvent()) return false;
  } else if (request_.streamID) {
    if (!chooseStream()) return false;
  } else {
    from_ = request_.from.value_or(kBeginning);
    to_ = request_.to.value_or(kForEver);
    if (!streamsOfPeriod(from_.seconds, to_.seconds, request_.trigger.value_or(0), &rows_))
      return fail(kDatabaseUnread);
  }
  std::sort(rows_.begin(), rows_.end(), [](const DB_STREAM& a, const DB_STREAM& b) {
    return std::make_pair(a.startDate, a.streamID) < std::make_pair(b.startDate, b.streamID);
  });
  return !rows_.empty() || fail("nothing was recorded in that time");
}

// Only a key picture can begin a file; the one before the wanted time comes along.
uint32_t Exporter::firstPicture(RecordingReader* reader) const {
  if (written_ > 0) return 0;
  const int64_t key = reader->findKeyPictureBefore(from_);
  return key > 0 ? static_cast<uint32_t>(key) : 0;
}

// Pictures are stored in decode order, so one that is presented after the end may still be needed
// by one before it. No decoder holds back more than 16 pictures.
bool Exporter::neededLater(RecordingReader* reader, uint32_t index) const {
  constexpr uint32_t kMostReordered = 16;
  PictureEntry entry;
  for (uint32_t ahead = 1; ahead <= kMostReordered; ++ahead) {
    if (!reader->picture(index + ahead, &entry) || entry.isKey()) return false;
    if (!(to_ < entry.presentation)) return true;
  }
  return false;
}

void Exporter::noteDamage(const RecordingReader& reader, uint32_t index,
                          const PictureEntry& entry) {
  ++damaged_;
  const uint32_t key = reader.row().streamID;
  const PictureTime at = entry.presentation;
  if (damages_.empty() || damages_.back().streamID != key ||
      damages_.back().lastIndex + 1 != index) {
    damages_.push_back({key, index, index, at, at});
    return;
  }
  DamagedRun& run = damages_.back();
  run.lastIndex = index;
  run.from = std::min(run.from, at);
  run.to = std::max(run.to, at);
}

bool Exporter::writePicture(RecordingReader* reader, uint32_t index, const PictureEntry& entry,
                            MediaOutput* output) {
  if (!reader->readPicture(entry, &picture_.annexB)) {
    ++lost_;
    waitForKey_ = true;  // what follows cannot be decoded without it
    return true;
  }
  // Most of a damaged picture is still to be seen, and what follows is decoded with it.
  if (reader->isDamaged()) noteDamage(*reader, index, entry);
  picture_.presentation = entry.presentation;
  picture_.decodeOffsetUs = entry.decodeOffsetUs;
  picture_.key = entry.isKey();
  if (!output->write(picture_)) return fail(output->error());
  if (written_ == 0 || entry.presentation < first_) first_ = entry.presentation;
  if (last_ < entry.presentation) last_ = entry.presentation;
  ++written_;
  bytes_ += picture_.annexB.size();
  return true;
}

bool Exporter::exportRow(const DB_STREAM& row, MediaOutput* output) {
  RecordingReader reader;
  if (reader.open(row) != 0) return fail(fmt::format("recording {} cannot be read", row.streamID));
  PictureEntry entry;
  for (uint32_t index = firstPicture(&reader); index < reader.pictureCount(); ++index) {
    if (!reader.picture(index, &entry)) {
      ++lost_;
      waitForKey_ = true;
      continue;
    }
    if (to_ < entry.presentation && !neededLater(&reader, index)) return true;
    if (waitForKey_ && !entry.isKey()) {
      if (!(entry.presentation < from_)) ++undecodable_;
      continue;
    }
    waitForKey_ = false;
    if (!writePicture(&reader, index, entry, output)) return false;
  }
  return true;
}

void Exporter::tellDamage() const {
  if (damaged_ == 0) return;
  for (size_t i = 0; i < std::min(damages_.size(), kDamagesNamed); ++i) {
    const DamagedRun& run = damages_[i];
    const uint32_t count = run.lastIndex - run.firstIndex + 1;
    complain(fmt::format("recording {}: {} damaged between {} and {}", run.streamID,
                         count == 1 ? "1 picture is" : fmt::format("{} pictures are", count),
                         clockText(run.from), clockText(run.to)));
  }
  if (damages_.size() > kDamagesNamed) {
    complain(fmt::format("and {} more places", damages_.size() - kDamagesNamed));
  }
  complain(fmt::format("{} of {} pictures are damaged on the card and were written as they are",
                       damaged_, written_));
}

void Exporter::tell() const {
  const std::string output = asUserSees(request_.output);
  if (!request_.json) {
    fmt::print("{}: {} pictures, {} to {}, {:.1f} MB\n", output, written_, clockText(first_),
               clockText(last_), static_cast<double>(bytes_) / 1e6);
    return;
  }
  nlohmann::ordered_json json = {{"schema", 1},
                                 {"output", output},
                                 {"pictures", written_},
                                 {"from", isoTime(first_.seconds, first_.milliseconds())},
                                 {"to", isoTime(last_.seconds, last_.milliseconds())},
                                 {"bytes", bytes_},
                                 {"damaged", damaged_},
                                 {"missing", lost_},
                                 {"leftOut", undecodable_},
                                 {"damages", nlohmann::ordered_json::array()}};
  for (const DamagedRun& run : damages_) {
    json["damages"].push_back({{"streamID", run.streamID},
                               {"pictures", run.lastIndex - run.firstIndex + 1},
                               {"from", isoTime(run.from.seconds, run.from.milliseconds())},
                               {"to", isoTime(run.to.seconds, run.to.milliseconds())}});
  }
  fmt::print("{}\n", json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

int Exporter::run() {
  if (!choose()) return 1;
  std::string error;
  const auto output = MediaOutput::create(request_.output, request_.overwrite, &error);
  if (output == nullptr) {
    fail(error);
    return 1;
  }
  for (const DB_STREAM& row : rows_) {
    if (!exportRow(row, output.get())) return 1;
  }
  if (written_ == 0) {
    fail(undecodable_ > 0 ? fmt::format("{}; no other picture of that time can be read", leftOut())
                          : "no picture of that time can be read");
    return 1;
  }
  if (!output->finish()) {
    fail(output->error());
    return 1;
  }
  tell();
  tellDamage();
  if (undecodable_ > 0) complain(leftOut());
  if (lost_ > 0) {
    complain(fmt::format("{} pictures could not be read and are missing", lost_));
    return 1;
  }
  return 0;
}

}  // namespace

int exportMedia(const ExportRequest& request) { return Exporter(request).run(); }

}  // namespace tarn::tool
