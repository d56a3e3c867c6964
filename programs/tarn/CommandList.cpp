#include <fmt/format.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <optional>

#include "Command.h"
#include "Console.h"
#include "RecorderHint.h"
#include "RowFacts.h"
#include "db/CApiDb.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/CardText.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/card/TimeText.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/recording/StreamPages.h"
#include "recorder/rows/RecorderDatabase.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

constexpr unsigned long kPage = 500;
constexpr uint32_t kLastSecond = 0xFFFFFFFF;

Json timeJson(uint32_t seconds, uint16_t milliseconds) {
  // An end of 0 is a recording that still runs.
  return seconds == 0 ? Json(nullptr) : Json(TimeText::iso(seconds, milliseconds));
}

// Milliseconds from the first picture to the last; of a recording that runs nothing.
std::optional<int64_t> durationMs(const DB_STREAM& row) {
  if (row.endDate == 0) return std::nullopt;
  return (int64_t{row.endDate} - int64_t{row.startDate}) * 1000 + row.endMSec - row.startMSec;
}

// "video", or how the sound is coded.
std::string kindText(const DB_STREAM& row) {
  if (!isSound(row)) return "video";
  const SoundCodec codec = soundCodecOf(row);
  return codec == SoundCodec::kUnknown ? "sound" : soundCodecName(codec);
}

std::string channelText(int channel) {
  return channel == ChunkChannels::kUnknown ? "-" : std::to_string(channel);
}

Json streamJson(const DB_STREAM& row, int channel, uint64_t bytes, bool kept) {
  const std::optional<int64_t> duration = durationMs(row);
  return {{"streamID", row.streamID},
          {"channel", channel == ChunkChannels::kUnknown ? Json(nullptr) : Json(channel)},
          {"kind", isSound(row) ? "sound" : "video"},
          {"codec", isSound(row) ? Json(soundCodecName(soundCodecOf(row))) : Json("h264")},
          {"durationMs", duration ? Json(*duration) : Json(nullptr)},
          {"videoBytes", bytes == 0 ? Json(nullptr) : Json(bytes)},
          {"inTrg", row.inTrg},
          {"frameSet", row.frameSet},
          {"bitrateSet", row.bitrateSet},
          {"recSize", row.recSize},
          {"chunkID", row.chunkID},
          {"chunkOffset", row.chunkOffset},
          {"chunkSize", row.chunkSize},
          {"status", row.status},
          {"startDate", row.startDate},
          {"endDate", row.endDate},
          {"startMSec", row.startMSec},
          {"endMSec", row.endMSec},
          {"backOffset", row.backOffset},
          {"start", timeJson(row.startDate, row.startMSec)},
          {"end", timeJson(row.endDate, row.endMSec)},
          {"kept", kept},
          {"copyOf", isKept(row) ? Json(originalKey(row)) : Json(nullptr)}};
}

Json eventJson(const DB_EVENT& row, bool kept) {
  return {{"eventID", row.eventID},
          {"extTrg", row.extTrg},
          {"preSec", row.preSec},
          {"startDate", row.startDate},
          {"endDate", row.endDate},
          {"startMSec", row.startMSec},
          {"endMSec", row.endMSec},
          {"backOffset", row.backOffset},
          {"start", timeJson(row.startDate, row.startMSec)},
          {"end", timeJson(row.endDate, row.endMSec)},
          {"kept", kept}};
}

std::string endText(uint32_t seconds, uint16_t milliseconds) {
  return seconds == 0 ? "recording" : TimeText::of(seconds, milliseconds);
}

class CommandList : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("list", "List what is recorded");
    app->add_option("WHAT", words_, "streams (the default) or events; a CARD, as with --card");
    addTime(app, "--from", "streams that run at or start after this time, events that start after",
            TimeInput::Edge::kStart, &from_);
    addTime(app, "--to", "streams and events that start up to this time", TimeInput::Edge::kEnd,
            &to_);
    app->add_option("--trigger", trigger_, "only this trigger number")->check(CLI::Range(1, 65535));
    app->add_option("--channel", channel_, "only streams of this channel")
        ->check(CLI::Range(0, 127));
    app->add_flag("--long", long_, "where on the card each stream lies, too");
    app->add_flag("--json", json_, "print JSON");
    return app;
  }

  bool changesCard() const override { return false; }
  bool asksServer() const override { return false; }
  bool sortWords(const WordsAsGiven& /*given*/, std::string* error) override {
    bool known = false;
    for (const std::string& word : words_) {
      if (word == "streams" || word == "events") {
        if (known) *error = "list streams or events, one of them";
        known = true;
        what_ = word;
      } else if (!card_.empty() || access(word.c_str(), F_OK) != 0) {
        *error = "\"" + word + "\" is neither streams nor events, and no card";
      } else {
        card_ = word;
      }
    }
    return error->empty();
  }

  int run() override {
    if (what_ == "events" && (channel_ || long_)) {
      complain("events belong to no channel and lie nowhere: --channel and --long are for streams");
      return kExitUsage;
    }
    if (from_ && to_ && *to_ < *from_) {
      complain("--to lies before --from");
      return kExitUsage;
    }
    // Rows of a card that contradicts itself lead nowhere. Of one that cannot be read right now the
    // rows are all that there is to see.
    const GeometryReport geometry = CardGeometry::verifyRecorder();
    if (geometry.verdict == Delivery::kBad) {
      complain(geometry.text);
      return kExitFailed;
    }
    if (databaseIsGood(stopRequested, &error_) && channelsAreKnown()) {
      db_ = std::make_unique<CApiDb>();
      if (!readWholeCopies(db_.get(), &kept_)) {
        complain(kDatabaseUnread);
        return kExitFailed;
      }
      const bool listed = what_ == "events" ? listEvents() : listStreams();
      if (listed && refused_.empty()) return kExitGood;
      if (listed) error_ = refused_;
    }
    complain(withHint(error_));
    return kExitFailed;
  }

 private:
  // The database is asked for whole seconds; what a fraction leaves out of them goes afterwards.
  unsigned long firstSecond() const { return from_ ? from_->seconds : 0; }
  unsigned long lastSecond() const { return to_ ? to_->seconds : kLastSecond; }
  // A row's time is known to the millisecond, of which any part may be meant.
  bool isFrom(uint32_t seconds, uint16_t milliseconds) const {
    return !from_ || !(PictureTime{seconds, milliseconds * 1000u + 999} < *from_);
  }
  bool isUpTo(uint32_t seconds, uint16_t milliseconds) const {
    return !to_ || !(*to_ < PictureTime{seconds, milliseconds * 1000u});
  }

  // Without a card the rows of the database are all that there is to see. What a card that is there
  // refuses is told behind them, because it may come at the next try.
  bool channelsAreKnown() {
    if (what_ == "events") return true;
    hasCard_ = access(deviceName(kRecorderPartition), F_OK) == 0;
    std::string reason;
    if (channels_.read(&reason) == 0) return true;
    if (hasCard_) refused_ = "channels are not known: " + reason;
    if (!channel_) return true;
    error_ = reason;
    return false;
  }

  // Whether pictures of it are kept from being overwritten.
  bool isKeptRow(const DB_STREAM& row) const { return isWholeCopy(row) || isKeptIn(kept_, row); }
  bool isKeptEvent(const DB_EVENT& event) const { return isKeptIn(kept_, event); }
  // The last column, where anything is kept.
  void printKept(const std::string& text) const {
    if (kept_.empty()) return;
    fmt::print(" {}", text);
  }
  std::string keptText(const DB_STREAM& row) const {
    if (isKept(row))
      return (isWholeCopy(row) ? "copy of " : "copying ") + std::to_string(originalKey(row));
    return isKeptRow(row) ? "kept" : "-";
  }

  uint64_t sizeOf(const DB_STREAM& row) {
    if (!hasCard_) return 0;
    const std::optional<uint64_t> bytes = recordedBytes(row);
    if (!bytes && refused_.empty()) {
      refused_ = fmt::format("the card does not give the size of recording {}", row.streamID);
    }
    return bytes.value_or(0);
  }

  // A list is printed as a whole or, as JSON, not at all: an array that lacks what could not be
  // read would pass for all there is.
  bool listStreams() {
    Json list = Json::array();
    if (!json_) {
      fmt::print("{:>8} {:>3} {:<5} {:>5} {:<29} {:<29} {:>10} {:>8} {:>10}", "stream", "ch",
                 "kind", "trig", "start", "end", "duration", "pictures", "size");
      printPlace<std::string>("chunk", "offset", "entries");
      printKept("kept");
      fmt::print("\n");
    }
    std::vector<DB_STREAM> page(kPage);
    StreamPages pages(db_.get(), static_cast<uint32_t>(firstSecond()),
                      static_cast<uint32_t>(lastSecond()), static_cast<uint32_t>(trigger_));
    for (;;) {
      const int32_t count = pages.next(page.data(), kPage);
      if (!statementWasDone(*db_, &error_)) return false;
      for (int32_t i = 0; i < count; ++i) {
        const DB_STREAM& row = page[static_cast<size_t>(i)];
        const int channel = isKept(row) ? keptChannel(row) : channels_.of(row.chunkID);
        if (channel_ && *channel_ != channel) continue;
        if (!isUpTo(row.startDate, row.startMSec)) continue;
        if (row.endDate != 0 && !isFrom(row.endDate, row.endMSec)) continue;
        const uint64_t bytes = sizeOf(row);
        if (json_) {
          list.push_back(streamJson(row, channel, bytes, isKeptRow(row)));
        } else {
          printStream(row, channel, bytes);
        }
      }
      if (count < static_cast<int32_t>(kPage)) break;
    }
    if (json_ && refused_.empty()) {
      fmt::print("{}\n", Json{{"schema", 1}, {"streams", list}}.dump(2));
    }
    return true;
  }

  template <typename Value>
  void printPlace(const Value& chunk, const Value& offset, const Value& entries) const {
    if (long_) fmt::print(" {:>6} {:>10} {:>10}", chunk, offset, entries);
  }

  void printStream(const DB_STREAM& row, int channel, uint64_t bytes) const {
    const std::optional<int64_t> duration = durationMs(row);
    fmt::print("{:>8} {:>3} {:<5} {:>5} {:<29} {:<29} {:>10} {:>8} {:>10}", row.streamID,
               channelText(channel), kindText(row), row.inTrg,
               TimeText::of(row.startDate, row.startMSec), endText(row.endDate, row.endMSec),
               duration ? fmt::format("{:.1f} s", static_cast<double>(*duration) / 1e3) : "-",
               isSound(row) ? "-" : std::to_string(row.recSize),
               bytes == 0 ? "-" : sizeText(bytes));
    printPlace(row.chunkID, row.chunkOffset, row.chunkSize);
    printKept(keptText(row));
    fmt::print("\n");
  }

  bool listEvents() {
    Json list = Json::array();
    if (!json_) {
      fmt::print("{:>8} {:>5} {:>4} {:<29} {:<29}", "event", "trig", "pre", "start", "end");
      printKept("kept");
      fmt::print("\n");
    }
    const auto show = [&](const DB_EVENT& row) {
      if (json_) {
        list.push_back(eventJson(row, isKeptEvent(row)));
      } else {
        fmt::print("{:>8} {:>5} {:>4} {:<29} {:<29}", row.eventID, row.extTrg, row.preSec,
                   TimeText::of(row.startDate, row.startMSec), endText(row.endDate, row.endMSec));
        printKept(isKeptEvent(row) ? "kept" : "-");
        fmt::print("\n");
      }
    };
    const bool all = !from_ && !to_ ? walkEvents(show) : walkEventsOfPeriod(show);
    if (all && json_) fmt::print("{}\n", Json{{"schema", 1}, {"events", list}}.dump(2));
    return all;
  }

  // In key order, so the last key of a page leads to the next one.
  template <typename Show>
  bool walkEvents(Show show) {
    std::vector<DB_EVENT> page(kPage);
    uint32_t after = 0;
    for (;;) {
      const uint32_t count = events(page.data(), kPage, 0, 0, after);
      if (!statementWasDone(*db_, &error_)) return false;
      for (uint32_t i = 0; i < count; ++i) show(page[i]);
      if (count < kPage) return true;
      after = page[count - 1].eventID;
    }
  }

  // A period comes in order of time, where keys lead nowhere: the count says how much to fetch.
  template <typename Show>
  bool walkEventsOfPeriod(Show show) {
    std::vector<DB_EVENT> all(events(nullptr, 0, firstSecond(), lastSecond(), 0));
    if (!statementWasDone(*db_, &error_)) return false;
    if (all.empty()) return true;
    all.resize(events(all.data(), all.size(), firstSecond(), lastSecond(), 0));
    if (!statementWasDone(*db_, &error_)) return false;
    for (const DB_EVENT& row : all) {
      if (isFrom(row.startDate, row.startMSec) && isUpTo(row.startDate, row.startMSec)) show(row);
    }
    return true;
  }

  uint32_t events(DB_EVENT* out, unsigned long limit, unsigned long from, unsigned long to,
                  unsigned long after) {
    return db_->selectViewerList(out, limit, &trigger_, trigger_ != 0 ? 1 : 0, from, to, after, 0,
                                 0);
  }

  std::vector<std::string> words_;
  std::string what_ = "streams";
  std::optional<PictureTime> from_;
  std::optional<PictureTime> to_;
  unsigned short trigger_ = 0;
  std::optional<int> channel_;
  bool long_ = false;
  bool json_ = false;
  ChunkChannels channels_;
  std::vector<DB_STREAM> kept_;  // whole copies
  bool hasCard_ = false;
  std::string refused_;  // what the card did not deliver of what is shown; empty: nothing
  std::string error_;
  // Made when it is needed: it joins the machine's semaphore.
  std::unique_ptr<CApiDb> db_;
};

}  // namespace

std::unique_ptr<Command> makeListCommand() { return std::make_unique<CommandList>(); }

}  // namespace tarn
