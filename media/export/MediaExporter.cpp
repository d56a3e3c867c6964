#include "video/Export.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Console.h"
#include "RecorderDatabase.h"
#include "db/CApiDb.h"
#include "media/MediaOutput.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/recording/RecordingReader.h"
#include "video/ChannelExport.h"

namespace tarn::tool {
namespace {

constexpr size_t kDamagesNamed = 20;

constexpr PictureTime kBeginning{0, 0};
constexpr PictureTime kForEver{UINT32_MAX, 999999};

std::string clockText(PictureTime time) { return timeText(time.seconds, time.milliseconds()); }

using Json = nlohmann::ordered_json;

Json channelJson(int channel) {
  return channel == ChunkChannels::kUnknown ? Json(nullptr) : Json(channel);
}

class Exporter {
 public:
  explicit Exporter(const ExportRequest& request) : request_(request) {}
  int run();

 private:
  bool fail(const std::string& text) {
    complain(text);
    return false;
  }
  bool choose();
  bool chooseEvent();
  bool chooseStream();
  bool done(CApiDb* database);
  bool group();
  bool exportFile(ChannelExport* channel, const std::string& path);
  bool exportTracks();
  bool advance(ChannelExport* channel, bool* more);
  bool isEmpty(const ChannelExport& channel);
  std::string pathOf(int channel) const;
  void tell(const std::string& path, const ChannelExport& channel);
  bool tellFaults(const ChannelExport& channel) const;
  void tellDamage(const ExportTotals& totals) const;

  const ExportRequest& request_;
  std::vector<DB_STREAM> rows_;
  std::list<ChannelExport> channels_;  // in the order of their numbers
  PictureTime from_ = kBeginning;
  PictureTime to_ = kForEver;
  Json told_ = Json::array();
};

// Why there are fewer pictures than were recorded: a recording that goes on with the one before it
// may begin between two key pictures.
std::string leftOutText(uint64_t pictures) {
  return fmt::format("{} pictures need a key picture that is not among them and are left out",
                     pictures);
}

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

// Pictures of two channels have nothing to do with each other.
bool Exporter::group() {
  ChunkChannels chunks;
  std::string error;
  // One recording is of one channel, whichever that is.
  if (chunks.read(&error) != 0 && !request_.streamID) return fail(error);
  std::map<int, std::vector<DB_STREAM>> rows;
  for (const DB_STREAM& row : rows_) {
    const int channel = chunks.of(row.chunkID);
    if (!request_.channel || *request_.channel == channel) rows[channel].push_back(row);
  }
  for (auto& [channel, list] : rows) channels_.emplace_back(channel, std::move(list), from_, to_);
  return !channels_.empty() || fail("nothing was recorded on that channel in that time");
}

// NAME.mp4, of several channels NAME-chN.mp4.
std::string Exporter::pathOf(int channel) const {
  if (channels_.size() == 1) return request_.output;
  const size_t dot = request_.output.rfind('.');
  if (dot == std::string::npos) return request_.output;
  const std::string name =
      channel == ChunkChannels::kUnknown ? "-unknown" : fmt::format("-ch{}", channel);
  return request_.output.substr(0, dot) + name + request_.output.substr(dot);
}

bool Exporter::advance(ChannelExport* channel, bool* more) {
  const ChannelExport::Result result = channel->next();
  *more = result == ChannelExport::Result::kPicture;
  return result != ChannelExport::Result::kError || fail(channel->error());
}

bool Exporter::isEmpty(const ChannelExport& channel) {
  if (channel.totals().written > 0) return false;
  const std::string label =
      channels_.size() == 1 ? "" : fmt::format("channel {}: ", channel.channel());
  const uint64_t undecodable = channel.totals().undecodable;
  fail(label + (undecodable > 0
                    ? leftOutText(undecodable) + "; no other picture of that time can be read"
                    : "no picture of that time can be read"));
  return true;
}

bool Exporter::exportFile(ChannelExport* channel, const std::string& path) {
  std::string error;
  const auto output = MediaOutput::create(path, request_.overwrite, &error);
  if (output == nullptr) return fail(error);
  bool more = false;
  while (advance(channel, &more) && more) {
    if (!output->write(channel->picture())) return fail(output->error());
  }
  if (!channel->error().empty() || isEmpty(*channel)) return false;
  if (!output->finish()) return fail(output->error());
  tell(path, *channel);
  return tellFaults(*channel);
}

// Each track's next picture is at hand; the one that is decoded first is written.
bool Exporter::exportTracks() {
  std::vector<ChannelExport*> tracks;
  bool good = true;
  for (ChannelExport& channel : channels_) {
    bool more = false;
    if (!advance(&channel, &more)) return false;
    good = !isEmpty(channel) && good;
    if (more) tracks.push_back(&channel);
  }
  if (tracks.empty()) return false;
  std::string error;
  const auto output =
      MediaOutput::create(request_.output, request_.overwrite, &error, tracks.size());
  if (output == nullptr) return fail(error);
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (!output->describe(i, tracks[i]->picture())) return fail(output->error());
  }
  const std::vector<ChannelExport*> all = tracks;
  std::vector<bool> more(tracks.size(), true);
  for (;;) {
    size_t next = all.size();
    int64_t first = 0;
    for (size_t i = 0; i < all.size(); ++i) {
      const OutputPicture& picture = all[i]->picture();
      const int64_t decode = picture.presentation.totalMicros() + picture.decodeOffsetUs;
      if (!more[i] || (next < all.size() && decode >= first)) continue;
      next = i;
      first = decode;
    }
    if (next == all.size()) break;
    if (!output->write(all[next]->picture(), next)) return fail(output->error());
    bool hasMore = false;
    if (!advance(all[next], &hasMore)) return false;
    more[next] = hasMore;
  }
  if (!output->finish()) return fail(output->error());
  for (const ChannelExport* channel : all) {
    tell(request_.output, *channel);
    good = tellFaults(*channel) && good;
  }
  return good;
}

void Exporter::tellDamage(const ExportTotals& totals) const {
  if (totals.damaged == 0) return;
  for (size_t i = 0; i < std::min(totals.damages.size(), kDamagesNamed); ++i) {
    const DamagedRun& run = totals.damages[i];
    const uint32_t count = run.lastIndex - run.firstIndex + 1;
    complain(fmt::format("recording {}: {} damaged between {} and {}", run.streamID,
                         count == 1 ? "1 picture is" : fmt::format("{} pictures are", count),
                         clockText(run.from), clockText(run.to)));
  }
  if (totals.damages.size() > kDamagesNamed) {
    complain(fmt::format("and {} more places", totals.damages.size() - kDamagesNamed));
  }
  complain(fmt::format("{} of {} pictures are damaged on the card and were written as they are",
                       totals.damaged, totals.written));
}

// False when pictures are missing.
bool Exporter::tellFaults(const ChannelExport& channel) const {
  const ExportTotals& totals = channel.totals();
  tellDamage(totals);
  if (totals.undecodable > 0) complain(leftOutText(totals.undecodable));
  if (totals.lost == 0) return true;
  complain(fmt::format("{} pictures could not be read and are missing", totals.lost));
  return false;
}

void Exporter::tell(const std::string& path, const ChannelExport& channel) {
  const std::string output = asUserSees(path);
  const ExportTotals& t = channel.totals();
  if (!request_.json) {
    const std::string which =
        channels_.size() == 1 ? "" : fmt::format("channel {}, ", channel.channel());
    fmt::print("{}: {}{} pictures, {} to {}, {:.1f} MB\n", output, which, t.written,
               clockText(t.first), clockText(t.last), static_cast<double>(t.bytes) / 1e6);
    return;
  }
  Json json = {{"output", output},
               {"channel", channelJson(channel.channel())},
               {"pictures", t.written},
               {"from", isoTime(t.first.seconds, t.first.milliseconds())},
               {"to", isoTime(t.last.seconds, t.last.milliseconds())},
               {"bytes", t.bytes},
               {"damaged", t.damaged},
               {"missing", t.lost},
               {"leftOut", t.undecodable},
               {"damages", Json::array()}};
  for (const DamagedRun& run : t.damages) {
    json["damages"].push_back({{"streamID", run.streamID},
                               {"pictures", run.lastIndex - run.firstIndex + 1},
                               {"from", isoTime(run.from.seconds, run.from.milliseconds())},
                               {"to", isoTime(run.to.seconds, run.to.milliseconds())}});
  }
  told_.push_back(json);
}

int Exporter::run() {
  if (!choose() || !group()) return 1;
  bool good = true;
  if (request_.tracks) {
    good = exportTracks();
  } else {
    // One channel that cannot be read is no reason to leave out the others.
    for (ChannelExport& channel : channels_)
      good = exportFile(&channel, pathOf(channel.channel())) && good;
  }
  if (request_.json && !told_.empty()) {
    Json json = {{"schema", 1}};
    if (channels_.size() == 1) {
      json.update(told_[0]);
    } else {
      json[request_.tracks ? "tracks" : "files"] = told_;
    }
    fmt::print("{}\n", json.dump(2, ' ', false, Json::error_handler_t::replace));
  }
  return good ? 0 : 1;
}

}  // namespace

int exportMedia(const ExportRequest& request) { return Exporter(request).run(); }

}  // namespace tarn::tool
