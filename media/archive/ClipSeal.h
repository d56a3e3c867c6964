#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "media/archive/ArchiveStore.h"
#include "media/seal/Crypto.h"
#include "media/seal/SealBoxes.h"
#include "media/seal/SealRequest.h"
#include "media/seal/SealingKey.h"

namespace tarn {

// The bytes of a sealed clip, which are made twice: once to know what is to be signed, and once for
// whoever takes them. So it needs no room for a clip, neither in memory nor on a disk. Used by one
// thread. Not part of the interface.
class ClipSeal {
 public:
  // The key outlives this. `object`: what the clip is called, which is sealed with it.
  ClipSeal(SealingKey* key, const SealRequest& request, const std::string& recorder,
           const std::string& object);

  // A pass begins; `sink` null: the first one, which signs. `sources`: of each track.
  void begin(const ByteSink* sink, std::vector<ExportStatement::Source> sources);
  // Bytes of the clip as it is without a seal; all that is in front of its fragments first, then
  // the seal, then the fragments. False when the sink refused.
  bool add(const uint8_t* data, size_t size);
  bool addSeal(int64_t originUs);
  // The pass is over. False with error() set: it cannot be signed, or the second pass was of other
  // pictures than the first one.
  bool end();

  // SHA-256 of the clip without its seal, behind a pass.
  const std::string& content() const { return content_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool give(const uint8_t* data, size_t size);

  SealingKey* key_;
  const std::string object_;
  std::string words_;
  ExportStatement statement_;
  const ByteSink* sink_ = nullptr;
  std::vector<uint8_t> signature_;
  Digest signed_;    // of all bytes, with zeros for the signature
  Digest unsealed_;  // of those of the clip
  Digest::Value toSign_{};
  std::string content_;
  std::string error_;
};

}  // namespace tarn
