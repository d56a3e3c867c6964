#include "video/ExportOutput.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Console.h"
#include "media/OutputFormat.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/card/TimeText.h"

namespace tarn {
namespace {

constexpr size_t kDamagesNamed = 20;

using Json = nlohmann::ordered_json;

std::string clockText(PictureTime time) { return TimeText::of(time.seconds, time.milliseconds()); }
std::string jsonTime(PictureTime time) { return TimeText::iso(time.seconds, time.milliseconds()); }

uint32_t countOf(const DamagedRun& run) { return run.lastIndex - run.firstIndex + 1; }

void tellDamage(const ExportTotals& totals) {
  if (totals.damaged == 0) return;
  for (size_t i = 0; i < std::min(totals.damages.size(), kDamagesNamed); ++i) {
    const DamagedRun& run = totals.damages[i];
    const uint32_t count = countOf(run);
    warn(fmt::format("recording {}: {} damaged between {} and {}", run.streamID,
                     count == 1 ? "1 picture is" : fmt::format("{} pictures are", count),
                     clockText(run.from), clockText(run.to)));
  }
  if (totals.damages.size() > kDamagesNamed) {
    warn(fmt::format("and {} more places", totals.damages.size() - kDamagesNamed));
  }
  warn(fmt::format("{} of {} pictures are damaged on the card and were written as they are",
                   totals.damaged, totals.written));
}

// Why there are fewer pictures than were recorded: a recording that goes on with the one before it
// may begin between two key pictures.
void tellMissing(const ExportTotals& totals) {
  if (totals.undecodable > 0)
    warn(fmt::format("{} pictures need a key picture that is not among them and are left out",
                     totals.undecodable));
  if (totals.lost > 0)
    warn(fmt::format("{} pictures could not be read and are missing", totals.lost));
}

std::string pixelsText(PictureSize size) { return fmt::format("{}x{}", size.width, size.height); }

// Not wrong, but not to be overlooked by whoever hands on the file.
void tellChanges(const ExportTotals& totals) {
  for (const FormatChange& change : totals.changes) {
    const std::string before = pixelsText(change.before);
    const std::string after = pixelsText(change.after);
    warn(fmt::format("the format of the pictures changes at {}, {}: {}", clockText(change.time),
                     before == after ? "their size stays " + before
                                     : fmt::format("from {} to {}", before, after),
                     change.next.empty() ? "the stream goes on with both"
                                         : "what follows is in " + asUserSees(change.next)));
  }
}

std::string soundChangeText(const SoundChange& change) {
  const std::string before = soundCodecText(change.before.codec);
  const std::string after = soundCodecText(change.after.codec);
  if (before != after) return "from " + before + " to " + after;
  const auto shape = [](const SoundFormat& format) {
    return fmt::format("{} Hz, {} channels", format.sampleRate, format.channels);
  };
  if (shape(change.before) != shape(change.after))
    return fmt::format("from {} to {}", shape(change.before), shape(change.after));
  return before + " coded in another way";
}

void tellSoundFaults(const SoundTotals& sound) {
  if (sound.leftOut) warn("the sound is left out: a .h264 holds none");
  if (sound.damaged > 0)
    warn(fmt::format("{} blocks of sound are damaged on the card and were written as they are",
                     sound.damaged));
  for (const SoundChange& change : sound.changes)
    warn(fmt::format("the sound changes at {}, {}: what follows is in {}", clockText(change.time),
                     soundChangeText(change), asUserSees(change.next)));
  if (sound.lost > 0)
    warn(fmt::format("{} blocks of sound could not be read and are missing", sound.lost));
}

Json soundChangesJson(const SoundTotals& sound) {
  Json changes = Json::array();
  for (const SoundChange& change : sound.changes) {
    changes.push_back({{"at", jsonTime(change.time)},
                       {"codec", soundCodecName(change.after.codec)},
                       {"sampleRate", change.after.sampleRate},
                       {"channels", change.after.channels},
                       {"output", asUserSees(change.next)}});
  }
  return changes;
}

Json soundJson(const SoundTotals& sound) {
  if (sound.frames == 0) return nullptr;
  return {{"codec", soundCodecName(sound.codec)},
          {"frames", sound.frames},
          {"from", jsonTime(sound.first)},
          {"to", jsonTime(sound.last)},
          {"bytes", sound.bytes},
          {"damaged", sound.damaged},
          {"missing", sound.lost},
          {"changes", soundChangesJson(sound)}};
}

Json changesJson(const ExportTotals& totals) {
  Json changes = Json::array();
  for (const FormatChange& change : totals.changes) {
    changes.push_back(
        {{"at", jsonTime(change.time)},
         {"width", change.after.width},
         {"height", change.after.height},
         {"output", change.next.empty() ? Json(nullptr) : Json(asUserSees(change.next))}});
  }
  return changes;
}

Json zonesJson(const ExportTotals& totals) {
  Json zones = Json::array();
  for (const int32_t zone : totals.zones) zones.push_back(TimeText::offset(zone));
  return zones;
}

// Times are shown as this machine counts them; the recorder's own may have been others.
std::string zonesText(const ExportTotals& totals) {
  std::string text;
  for (const int32_t zone : totals.zones)
    text += (text.empty() ? ", recorded in " : " and ") + TimeText::offset(zone);
  return text;
}

Json damagesJson(const ExportTotals& totals) {
  Json damages = Json::array();
  for (const DamagedRun& run : totals.damages) {
    damages.push_back({{"streamID", run.streamID},
                       {"pictures", countOf(run)},
                       {"from", jsonTime(run.from)},
                       {"to", jsonTime(run.to)}});
  }
  return damages;
}

Json channelJson(const ExportedChannel& exported) {
  const ExportTotals& t = exported.totals;
  const bool known = exported.channel != ChunkChannels::kUnknown;
  return {{"output", asUserSees(exported.path)},
          {"channel", known ? Json(exported.channel) : Json(nullptr)},
          {"pictures", t.written},
          {"width", t.size.width == 0 ? Json(nullptr) : Json(t.size.width)},
          {"height", t.size.height == 0 ? Json(nullptr) : Json(t.size.height)},
          {"from", t.written == 0 ? Json(nullptr) : Json(jsonTime(t.first))},
          {"to", t.written == 0 ? Json(nullptr) : Json(jsonTime(t.last))},
          {"zones", zonesJson(t)},
          {"bytes", t.bytes},
          {"damaged", t.damaged},
          {"missing", t.lost},
          {"leftOut", t.undecodable},
          {"sound", soundJson(exported.sound)},
          {"damages", damagesJson(t)},
          {"changes", changesJson(t)}};
}

}  // namespace

// Which channel is meant, where there are several.
std::string ExportOutput::label(const ExportedChannel& channel, const char* behind) const {
  return channels_.size() == 1 ? "" : fmt::format("channel {}{}", channel.channel, behind);
}

void ExportOutput::tellContents(const ExportedChannel& channel) const {
  const ExportTotals& t = channel.totals;
  const SoundTotals& s = channel.sound;
  // What goes to standard output has it for itself.
  FILE* const out = channel.path == kStandardOutput ? stderr : stdout;
  if (t.written == 0) {
    fmt::print(out, "{}: {}{} sound, {} to {}, {:.1f} MB\n", asUserSees(channel.path),
               label(channel, ", "), soundCodecText(s.codec), clockText(s.first), clockText(s.last),
               static_cast<double>(s.bytes) / 1e6);
    return;
  }
  const std::string sound =
      s.frames == 0 ? "" : fmt::format(", with {} sound", soundCodecText(s.codec));
  fmt::print(out, "{}: {}{} pictures, {} to {}, {:.1f} MB{}{}\n", asUserSees(channel.path),
             label(channel, ", "), t.written, clockText(t.first), clockText(t.last),
             static_cast<double>(t.bytes + s.bytes) / 1e6, sound, zonesText(t));
}

void ExportOutput::tell(bool quiet) const {
  for (const ExportedChannel& channel : channels_) {
    if (!channel.error.empty()) {
      complain(label(channel, ": ") + channel.error);
      continue;
    }
    if (!quiet) tellContents(channel);
    tellChanges(channel.totals);
    tellDamage(channel.totals);
    tellMissing(channel.totals);
    tellSoundFaults(channel.sound);
  }
}

void ExportOutput::printJson(bool tracks) const {
  Json written = Json::array();
  for (const ExportedChannel& channel : channels_) {
    if (channel.error.empty()) written.push_back(channelJson(channel));
  }
  if (written.empty()) return;
  Json json = {{"schema", 1}};
  if (channels_.size() == 1) {
    json.update(written[0]);
  } else {
    json[tracks ? "tracks" : "files"] = written;
  }
  fmt::print("{}\n", json.dump(2, ' ', false, Json::error_handler_t::replace));
}

}  // namespace tarn
