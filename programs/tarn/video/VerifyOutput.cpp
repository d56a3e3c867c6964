#include "video/VerifyOutput.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "Console.h"
#include "recorder/card/PictureTime.h"
#include "recorder/card/TimeText.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;
using Chain = SealProof::Chain;

// Texts of a file must not steer a terminal.
std::string shown(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  }
  return text;
}

std::string by(const SealProof& seal) {
  const std::string who = seal.operatorName.empty() ? "" : " for " + shown(seal.operatorName);
  return fmt::format("{}{}", shown(seal.holder), who);
}

std::string vouched(const SealProof& seal) {
  if (seal.chain == Chain::kTrusted) return fmt::format("vouched for by {}", shown(seal.issuer));
  if (seal.chain == Chain::kNotTrusted)
    return fmt::format("which no authority given vouches for ({})", seal.chainReason);
  return fmt::format("certificate {}, which no --ca was given for", seal.fingerprint);
}

std::string sentence(const SealProof& seal) {
  if (!seal.unchanged) return "NOT PROVEN: " + seal.reason;
  return fmt::format("{}unchanged since {} sealed it at {} by its clock, {}",
                     seal.good() ? "proven: " : "NOT PROVEN: ", by(seal),
                     seal.time.empty() ? "a time it does not tell" : shown(seal.time),
                     vouched(seal));
}

std::string startText(int64_t micros) {
  if (micros < 0) return "";
  const PictureTime time = PictureTime::fromMicros(micros);
  return TimeText::iso(time.seconds, time.milliseconds());
}

Json sealJson(const SealProof& seal) {
  const Json chain =
      seal.chain == Chain::kNotAsked ? Json(nullptr) : Json(seal.chain == Chain::kTrusted);
  return {{"proven", seal.good()},
          {"unchanged", seal.unchanged},
          {"reason", seal.unchanged ? seal.chainReason : seal.reason},
          {"holder", seal.holder},
          {"issuer", seal.issuer},
          {"fingerprint", seal.fingerprint},
          {"notBefore", seal.notBefore},
          {"notAfter", seal.notAfter},
          {"trusted", chain},
          {"time", seal.time},
          {"operator", seal.operatorName},
          {"note", seal.note},
          {"digest", seal.digest}};
}

Json fileJson(const VerifiedFile& file) {
  const FileProof& proof = file.proof;
  Json sources = Json::array();
  for (const FileProof::Source& source : proof.sources)
    sources.push_back({{"track", source.track},
                       {"name", source.name},
                       {"line", source.line},
                       {"start", startText(source.startUs)},
                       {"startUs", source.startUs}});
  Json seals = Json::array();
  for (const SealProof& seal : proof.seals) seals.push_back(sealJson(seal));
  return {{"file", file.path},
          {"proven", proof.proven()},
          {"sealed", proof.readable},
          {"error", proof.error},
          {"unit", proof.unit},
          {"exported", proof.exported},
          {"operator", proof.operatorName},
          {"sources", sources},
          {"seals", seals}};
}

}  // namespace

void tellVerified(const VerifiedFile& file) {
  const FileProof& proof = file.proof;
  if (!proof.readable) {
    complain(file.path + ": " + proof.error);
    return;
  }
  if (!proof.error.empty()) fmt::print("{}: NOT PROVEN: {}\n", file.path, proof.error);
  const size_t count = proof.seals.size();
  for (size_t i = 0; i < count; ++i) {
    const std::string which = count == 1 ? "" : fmt::format("seal {} of {}: ", i + 1, count);
    fmt::print("{}: {}{}\n", file.path, which, sentence(proof.seals[i]));
  }
}

void printVerifyJson(const std::vector<VerifiedFile>& files) {
  Json list = Json::array();
  for (const VerifiedFile& file : files) list.push_back(fileJson(file));
  const Json json = {{"schema", 1}, {"files", list}};
  fmt::print("{}\n", json.dump(2, ' ', false, Json::error_handler_t::replace));
}

}  // namespace tarn
