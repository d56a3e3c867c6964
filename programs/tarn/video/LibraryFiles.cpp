// The part of the answers to the library that makes files and reads them.
#include <poll.h>

#include "Console.h"
#include "RecorderHint.h"
#include "media/export/MediaExporter.h"
#include "media/seal/FileVerifier.h"
#include "video/LibraryAnswers.h"

namespace tarn {
namespace {

constexpr uint64_t kTellEach = 64;  // pictures and pieces of sound

constexpr char kTokenScheme[] = "pkcs11:";

std::optional<PictureTime> timeOf(int64_t micros) {
  if (micros == TARN_NO_TIME) return std::nullopt;
  return PictureTime::fromMicros(micros);
}

std::string counted(uint64_t count, const char* what) {
  return count == 0 ? "" : "; " + std::to_string(count) + " " + what;
}

// What an export lacks that says nothing itself.
std::string shortfall(const std::vector<ExportedChannel>& channels) {
  std::string text;
  for (const ExportedChannel& one : channels) {
    if (!one.error.empty()) text += "; " + one.error;
    text += counted(one.totals.lost, "pictures could not be read") +
            counted(one.totals.damaged, "pictures are damaged on the card") +
            counted(one.totals.undecodable, "pictures lack the key picture that they need") +
            counted(one.sound.lost, "blocks of sound could not be read") +
            counted(one.sound.damaged, "blocks of sound are damaged on the card");
  }
  return text.empty() ? "not all could be exported" : text.substr(2);
}

FileFacts fileFacts(const ExportedChannel& channel) {
  const ExportTotals& video = channel.totals;
  const SoundTotals& sound = channel.sound;
  FileFacts facts;
  facts.path = asUserSees(channel.path);
  facts.channel = channel.channel == ChunkChannels::kUnknown ? TARN_NO_CHANNEL : channel.channel;
  facts.error = asUserSees(channel.error);
  facts.pictures = video.written;
  facts.lost = video.lost + sound.lost;
  facts.damaged = video.damaged + sound.damaged;
  facts.leftOut = video.undecodable;
  facts.frames = sound.frames;
  if (video.written > 0) {
    facts.firstUs = video.first.totalMicros();
    facts.lastUs = video.last.totalMicros();
  } else if (sound.frames > 0) {
    facts.firstUs = sound.first.totalMicros();
    facts.lastUs = sound.last.totalMicros();
  }
  return facts;
}

SealFacts sealFacts(const SealProof& seal) {
  SealFacts facts;
  facts.proven = seal.good();
  facts.unchanged = seal.unchanged;
  if (seal.chain != SealProof::Chain::kNotAsked)
    facts.trusted = seal.chain == SealProof::Chain::kTrusted ? 1 : 0;
  facts.reason = seal.unchanged ? seal.chainReason : seal.reason;
  facts.holder = seal.holder;
  facts.issuer = seal.issuer;
  facts.fingerprint = seal.fingerprint;
  facts.time = seal.time;
  facts.operatorName = seal.operatorName;
  facts.note = seal.note;
  return facts;
}

}  // namespace

// Whoever asked may go away, or have enough.
bool LibraryAnswers::goesOn(uint64_t written, bool progress) const {
  if (progress && written % kTellEach == 0 && !tell(MessageKind::kProgress, ProgressFacts{written}))
    return false;
  pollfd more = {socket_, POLLIN, 0};
  return poll(&more, 1, 0) <= 0 && !stopRequested();
}

bool LibraryAnswers::exportFiles(const ExportQuestion& question) {
  ExportRequest request;
  if (question.recording != 0) request.streamID = question.recording;
  if (question.event != 0) request.eventID = question.event;
  request.from = timeOf(question.period.fromUs);
  request.to = timeOf(question.period.toUs);
  if (question.period.channel != TARN_NO_CHANNEL) request.channel = question.period.channel;
  request.output = pathOf(question.path);
  request.sound = question.sound;
  request.tracks = question.tracks;
  request.overwrite = question.overwrite;
  if ((request.streamID ? 1 : 0) + (request.eventID ? 1 : 0) +
          (request.from || request.to ? 1 : 0) >
      1)
    return failed("an export is of a recording, of an event, or of a period");
  if (request.from && request.to && *request.to < *request.from)
    return failed("the end lies before the start");
  if (question.key.empty() != question.certificate.empty())
    return failed("a seal needs a key and its certificate");
  MediaExporter exporter(request);
  if (!question.key.empty()) {
    const bool token = question.key.compare(0, sizeof kTokenScheme - 1, kTokenScheme) == 0;
    exporter.seal({token ? question.key : pathOf(question.key), pathOf(question.certificate),
                   question.operatorName, question.note});
  }
  uint64_t written = 0;
  const bool good = exporter.run([&] { return !goesOn(written++, question.progress); });
  for (const ExportedChannel& channel : exporter.channels()) {
    if (!tell(MessageKind::kFile, fileFacts(channel))) return false;
  }
  if (good) return done();
  const std::string error = exporter.error();
  return failed(asUserSees(error.empty() ? shortfall(exporter.channels()) : withHint(error)));
}

bool LibraryAnswers::verify(const VerifyQuestion& question) const {
  FileVerifier verifier;
  std::string error;
  for (const std::string& path : question.authorities) {
    if (!verifier.trust(path, &error)) return failed(error);
  }
  const FileProof proof = verifier.verify(question.path);
  if (!tell(MessageKind::kProof, ProofFacts{proof.proven(), proof.readable, proof.error, proof.unit,
                                            proof.exported, proof.operatorName}))
    return false;
  for (const SealProof& seal : proof.seals) {
    if (!tell(MessageKind::kSeal, sealFacts(seal))) return false;
  }
  for (const FileProof::Source& source : proof.sources) {
    const int64_t startUs = source.startUs < 0 ? TARN_NO_TIME : source.startUs;
    if (!tell(MessageKind::kSource, SourceFacts{source.track, source.name, startUs})) return false;
  }
  return done();
}

}  // namespace tarn
