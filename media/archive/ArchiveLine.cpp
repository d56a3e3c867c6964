#include "media/archive/ArchiveLine.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <tuple>

#include "media/archive/ArchiveNames.h"
#include "recorder/card/TimeText.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

std::string utc(int64_t ms) {
  return TimeText::iso(static_cast<uint32_t>(ms / 1000), static_cast<uint16_t>(ms % 1000), 0);
}

uint64_t numberIn(const Json& json, const char* name) {
  const auto found = json.find(name);
  return found != json.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

std::string textIn(const Json& json, const char* name) {
  const auto found = json.find(name);
  return found != json.end() && found->is_string() ? found->get<std::string>() : "";
}

// What there is to say of an object, and of what is in it.
void addObject(Json* json, const ArchiveLine& line) {
  (*json)["media"] = line.media;
  (*json)["object"] = line.object;
  if (line.part != 0) (*json)["part"] = line.part;
  if (line.parts != 0) (*json)["parts"] = line.parts;
  if (line.firstUs != 0) (*json)["firstUs"] = line.firstUs;
  (*json)["bytes"] = line.bytes;
  (*json)["sha256"] = line.hashes.sha256;
  (*json)["sha1"] = line.hashes.sha1;
  (*json)["md5"] = line.hashes.md5;
  (*json)["pictures"] = line.pictures;
  (*json)["soundFrames"] = line.soundFrames;
  (*json)["damaged"] = line.damaged;
  (*json)["missing"] = line.missing;
  (*json)["undecodable"] = line.undecodable;
  (*json)["soundLeftOut"] = line.soundLeftOut;
  if (!line.sealed) return;
  (*json)["sealed"] = true;
  (*json)["contentSha256"] = line.contentSha256;
}

// Where it has something to say: lines of former releases have less.
void addText(Json* json, const char* name, const std::string& text) {
  if (!text.empty()) (*json)[name] = text;
}

void takeObject(const Json& json, ArchiveLine* line) {
  line->media = textIn(json, "media");
  line->object = textIn(json, "object");
  line->part = static_cast<uint32_t>(numberIn(json, "part"));
  line->parts = static_cast<uint32_t>(numberIn(json, "parts"));
  line->firstUs = static_cast<int64_t>(numberIn(json, "firstUs"));
  line->bytes = numberIn(json, "bytes");
  line->hashes = {textIn(json, "md5"), textIn(json, "sha1"), textIn(json, "sha256")};
  line->pictures = numberIn(json, "pictures");
  line->soundFrames = numberIn(json, "soundFrames");
  line->damaged = numberIn(json, "damaged");
  line->missing = numberIn(json, "missing");
  line->undecodable = numberIn(json, "undecodable");
  line->soundLeftOut = numberIn(json, "soundLeftOut");
  line->sealed = json.find("sealed") != json.end();
  line->contentSha256 = textIn(json, "contentSha256");
}

bool isTime(int64_t value, int64_t ofSecond) {
  constexpr int64_t kSeconds = int64_t{UINT32_MAX} + 1;
  return value >= 0 && value < kSeconds * ofSecond;
}

// Whoever reads a line reckons with its numbers: they are those that a card can have.
bool isPossible(const ArchiveLine& line) {
  constexpr uint64_t kMostBytes = uint64_t{1} << 50;
  const uint64_t counts[] = {line.bytes,   line.pictures,    line.soundFrames, line.damaged,
                             line.missing, line.undecodable, line.soundLeftOut};
  return line.channel <= INT8_MAX && isTime(line.startMs, 1000) && isTime(line.endMs, 1000) &&
         isTime(line.firstUs, 1000000) && line.trigger <= UINT16_MAX &&
         line.preSeconds <= UINT16_MAX && line.pictures <= std::max(line.bytes, uint64_t{1}) &&
         std::all_of(std::begin(counts), std::end(counts),
                     [](uint64_t count) { return count <= kMostBytes; }) &&
         (line.object.empty() || isClipName(line));
}

}  // namespace

std::string ArchiveLine::text() const {
  Json json = {{"schema", kSchema},     {"kind", kind},
               {"recorder", recorder},  {"channel", channel < 0 ? Json(nullptr) : Json(channel)},
               {"start", utc(startMs)}, {"end", utc(endMs)},
               {"startMs", startMs},    {"endMs", endMs}};
  if (key != 0) json["key"] = key;
  if (copyOf != 0) json["copyOf"] = copyOf;
  if (key != 0 && kind != "finding") json["trigger"] = trigger;
  if (kind == "event") json["preSeconds"] = preSeconds;
  addText(&json, "reason", reason);
  addText(&json, "finding", finding);
  addText(&json, "consequence", consequence);
  addText(&json, "text", words);
  addText(&json, "meaning", meaning);
  if (!object.empty()) addObject(&json, *this);
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool ArchiveLine::parse(const std::string& text, ArchiveLine* line) {
  const Json json = Json::parse(text, nullptr, false);
  if (!json.is_object() || numberIn(json, "schema") != kSchema) return false;
  *line = ArchiveLine();
  line->kind = textIn(json, "kind");
  line->recorder = textIn(json, "recorder");
  const auto channel = json.find("channel");
  if (channel != json.end() && channel->is_number_unsigned()) line->channel = channel->get<int>();
  line->startMs = static_cast<int64_t>(numberIn(json, "startMs"));
  line->endMs = static_cast<int64_t>(numberIn(json, "endMs"));
  line->key = static_cast<uint32_t>(numberIn(json, "key"));
  line->copyOf = static_cast<uint32_t>(numberIn(json, "copyOf"));
  line->trigger = static_cast<uint32_t>(numberIn(json, "trigger"));
  line->preSeconds = static_cast<uint32_t>(numberIn(json, "preSeconds"));
  line->reason = textIn(json, "reason");
  line->finding = textIn(json, "finding");
  line->consequence = textIn(json, "consequence");
  line->words = textIn(json, "text");
  line->meaning = textIn(json, "meaning");
  takeObject(json, line);
  // A byte that turned over in it does not leave the line that it was.
  return isPossible(*line) && line->text() == text;
}

std::string ArchiveLine::identity() const {
  if (!object.empty()) return object;
  return kind + " " + std::to_string(channel) + " " + std::to_string(startMs) + " " +
         std::to_string(key) + (kind == "finding" ? " " + words : "");
}

bool ArchiveLine::operator<(const ArchiveLine& other) const {
  return std::make_tuple(startMs, identity()) < std::make_tuple(other.startMs, other.identity());
}

}  // namespace tarn
