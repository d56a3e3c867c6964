#include "media/seal/SealBoxes.h"

#include <ctime>

#include "api/Version.h"
#include "media/seal/BoxWriter.h"
#include "media/seal/SealingKey.h"

namespace tarn {
namespace {

constexpr uint32_t kScheme = 0x6F656666;  // "oeff"
constexpr uint32_t kSchemeVersion = 1u << 16;

void writeStarts(BoxWriter* out, const std::vector<TrackStart>& starts) {
  if (starts.empty()) return;
  out->begin("cstb");
  out->u32(static_cast<uint32_t>(starts.size()));
  for (const TrackStart& start : starts) {
    out->u32(start.track);
    out->u64(start.time);
  }
  out->end();
}

void writeStatement(BoxWriter* out, const ExportStatement& statement) {
  out->beginFull("suep", 1);
  out->text(statement.unitName);
  out->text(statement.unitUrl);
  out->text(statement.unitMac);
  out->u64(statement.time);
  out->text(statement.operatorName);
  out->u32(static_cast<uint32_t>(statement.sources.size()));
  for (const ExportStatement::Source& source : statement.sources) {
    out->u16(source.track);
    out->text(source.name);
    out->text(source.url);
    out->text(source.mac);
    out->text(source.line);
  }
  out->end();
}

// A line holds no other.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return text;
}

}  // namespace

std::string utcText(int64_t unixSeconds) {
  const auto seconds = static_cast<time_t>(unixSeconds);
  tm utc{};
  char text[40];
  if (seconds != unixSeconds || gmtime_r(&seconds, &utc) == nullptr) return "";
  const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return std::string(text, length);
}

std::string sealWords(const SealRequest& request, int64_t unixSeconds) {
  std::string words = "sealed: " + utcText(unixSeconds) + "\n";
  words += std::string("program: tarn ") + tarn_version() + "\n";
  if (!request.operatorName.empty()) words += "operator: " + oneLine(request.operatorName) + "\n";
  if (!request.note.empty()) words += "note: " + oneLine(request.note) + "\n";
  return words;
}

std::string wordOf(const std::string& words, const std::string& name) {
  const std::string wanted = name + ": ";
  for (size_t at = 0; at < words.size();) {
    const size_t end = std::min(words.find('\n', at), words.size());
    if (words.compare(at, wanted.size(), wanted) == 0)
      return words.substr(at + wanted.size(), end - at - wanted.size());
    at = end + 1;
  }
  return "";
}

std::vector<uint8_t> makeSeal(const SealingKey& key, const std::string& words,
                              const std::vector<TrackStart>& starts, size_t* signatureAt) {
  BoxWriter out;
  out.begin("sinf");
  writeStarts(&out, starts);
  out.beginFull("schm", 0);
  out.u32(kScheme);
  out.u32(kSchemeVersion);
  out.end();
  out.begin("schi");
  out.begin("sibo");
  *signatureAt = out.all().size();
  out.zeros(key.signatureSize());
  out.end();
  out.begin("cert");
  out.bytes(key.certificate());
  out.end();
  out.begin("auib");
  out.text(words);
  out.end();
  out.end();
  out.end();
  return out.all();
}

std::vector<uint8_t> makeMeta(const ExportStatement& statement, const std::vector<uint8_t>& seal,
                              size_t* sealAt) {
  BoxWriter out;
  out.beginFull("meta", 0);
  out.beginFull("hdlr", 0);
  out.u32(0);
  out.u32(0x6E756C6C);  // "null": boxes that are for no track
  out.zeros(12);
  out.text("");
  out.end();
  writeStatement(&out, statement);
  out.beginFull("ipro", 0);
  out.u16(1);
  *sealAt = out.all().size();
  out.bytes(seal);
  out.end();
  out.end();
  return out.all();
}

std::vector<uint8_t> makeSealedMeta(const SealingKey& key, const std::string& words,
                                    const ExportStatement& statement, int64_t originUs,
                                    size_t* signatureAt) {
  std::vector<TrackStart> starts;
  for (const ExportStatement::Source& source : statement.sources)
    starts.push_back({source.track, ticksOf(originUs)});
  size_t inSeal = 0;
  size_t sealAt = 0;
  const std::vector<uint8_t> seal = makeSeal(key, words, starts, &inSeal);
  std::vector<uint8_t> meta = makeMeta(statement, seal, &sealAt);
  *signatureAt = sealAt + inSeal;
  return meta;
}

}  // namespace tarn
