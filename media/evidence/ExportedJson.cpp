#include "media/evidence/ExportedJson.h"

namespace tarn {
namespace {

using Json = nlohmann::json;

Json jsonOf(PictureTime time) { return time.totalMicros(); }
PictureTime timeOf(const Json& json) { return PictureTime::fromMicros(json.get<int64_t>()); }

Json jsonOf(PictureSize size) { return {size.width, size.height}; }
PictureSize sizeOf(const Json& json) { return {json.at(0), json.at(1)}; }

Json jsonOf(const SoundFormat& format) {
  return {static_cast<int>(format.codec), format.channels, format.sampleRate, format.config};
}
SoundFormat formatOf(const Json& json) {
  return {static_cast<SoundCodec>(json.at(0).get<int>()), json.at(1), json.at(2),
          json.at(3).get<std::vector<uint8_t>>()};
}

Json jsonOf(const DamagedRun& run) {
  return {run.streamID, run.firstIndex, run.lastIndex, jsonOf(run.from), jsonOf(run.to)};
}
DamagedRun runOf(const Json& json) {
  return {json.at(0), json.at(1), json.at(2), timeOf(json.at(3)), timeOf(json.at(4))};
}

Json jsonOf(const FormatChange& change) {
  return {jsonOf(change.time), jsonOf(change.before), jsonOf(change.after), change.next};
}
FormatChange formatChangeOf(const Json& json) {
  return {timeOf(json.at(0)), sizeOf(json.at(1)), sizeOf(json.at(2)),
          json.at(3).get<std::string>()};
}

Json jsonOf(const SoundChange& change) {
  return {jsonOf(change.time), jsonOf(change.before), jsonOf(change.after), change.next};
}
SoundChange soundChangeOf(const Json& json) {
  return {timeOf(json.at(0)), formatOf(json.at(1)), formatOf(json.at(2)),
          json.at(3).get<std::string>()};
}

template <typename Value>
Json listOf(const std::vector<Value>& values) {
  Json list = Json::array();
  for (const Value& value : values) list.push_back(jsonOf(value));
  return list;
}
template <typename Value>
std::vector<Value> valuesOf(const Json& list, Value (*valueOf)(const Json&)) {
  std::vector<Value> values;
  for (const Json& one : list) values.push_back(valueOf(one));
  return values;
}

Json jsonOf(const ExportTotals& totals) {
  return {{"written", totals.written},
          {"bytes", totals.bytes},
          {"lost", totals.lost},
          {"damaged", totals.damaged},
          {"undecodable", totals.undecodable},
          {"damages", listOf(totals.damages)},
          {"size", jsonOf(totals.size)},
          {"changes", listOf(totals.changes)},
          {"first", jsonOf(totals.first)},
          {"last", jsonOf(totals.last)},
          {"zones", totals.zones}};
}
ExportTotals totalsOf(const Json& json) {
  ExportTotals totals;
  totals.written = json.at("written");
  totals.bytes = json.at("bytes");
  totals.lost = json.at("lost");
  totals.damaged = json.at("damaged");
  totals.undecodable = json.at("undecodable");
  totals.damages = valuesOf(json.at("damages"), runOf);
  totals.size = sizeOf(json.at("size"));
  totals.changes = valuesOf(json.at("changes"), formatChangeOf);
  totals.first = timeOf(json.at("first"));
  totals.last = timeOf(json.at("last"));
  totals.zones = json.at("zones").get<std::vector<int32_t>>();
  return totals;
}

Json jsonOf(const SoundTotals& sound) {
  return {{"codec", static_cast<int>(sound.codec)},
          {"frames", sound.frames},
          {"bytes", sound.bytes},
          {"lost", sound.lost},
          {"damaged", sound.damaged},
          {"changes", listOf(sound.changes)},
          {"leftOut", sound.leftOut},
          {"first", jsonOf(sound.first)},
          {"last", jsonOf(sound.last)}};
}
SoundTotals soundOf(const Json& json) {
  SoundTotals sound;
  sound.codec = static_cast<SoundCodec>(json.at("codec").get<int>());
  sound.frames = json.at("frames");
  sound.bytes = json.at("bytes");
  sound.lost = json.at("lost");
  sound.damaged = json.at("damaged");
  sound.changes = valuesOf(json.at("changes"), soundChangeOf);
  sound.leftOut = json.at("leftOut");
  sound.first = timeOf(json.at("first"));
  sound.last = timeOf(json.at("last"));
  return sound;
}

}  // namespace

Json jsonOf(const ExportedChannel& exported) {
  return {{"path", exported.path},
          {"channel", exported.channel},
          {"totals", jsonOf(exported.totals)},
          {"sound", jsonOf(exported.sound)},
          {"error", exported.error}};
}

ExportedChannel exportedOf(const Json& json) {
  ExportedChannel exported;
  exported.path = json.at("path").get<std::string>();
  exported.channel = json.at("channel");
  exported.totals = totalsOf(json.at("totals"));
  exported.sound = soundOf(json.at("sound"));
  exported.error = json.at("error").get<std::string>();
  return exported;
}

}  // namespace tarn
