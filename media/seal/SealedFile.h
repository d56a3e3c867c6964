#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "base/UniqueFd.h"
#include "media/seal/BoxReader.h"
#include "media/seal/Crypto.h"
#include "media/seal/FileProgress.h"
#include "media/seal/SealBoxes.h"

namespace tarn {

// A file that was sealed, by whomever: what its seals say, and what they were made over. Nothing in
// it is believed: work and memory have bounds that do not depend on what it says. Used by one
// thread. Not part of the interface.
class TARN_API SealedFile {
 public:
  enum class State {
    kSealed,
    kBroken,      // there was a seal, which cannot be read any more
    kUnsealed,    // a file without a seal, or no movie
    kUnreadable,  // the file system did not deliver it
  };
  struct Seal {
    size_t begin = 0;  // in the box `meta`, as all places
    size_t end = 0;
    size_t signatureAt = 0;
    std::vector<uint8_t> signature;
    std::vector<uint8_t> certificate;
    std::string words;
    std::vector<TrackStart> starts;
    bool otherAlgorithm = false;  // than the one that everybody has
  };

  // Reads what stands around the media data. Unless kSealed, error() says why.
  State open(const std::string& path);
  // For each seal, what it was made over: the file without later seals and with zeros for the
  // signature. Reads the file once. False with error() set.
  bool digests(std::vector<Digest::Value>* digests, const FileProgress& progress = {});

  const std::vector<Seal>& seals() const { return seals_; }
  const ExportStatement& statement() const { return statement_; }
  const std::string& error() const { return error_; }

  int file() const { return file_.get(); }
  uint64_t size() const { return size_; }
  uint64_t metaAt() const { return metaAt_; }
  uint64_t behindMeta() const { return metaAt_ + meta_.size(); }
  // The box `meta` with only this many of its seals.
  std::vector<uint8_t> metaWith(size_t seals) const;
  // The same with one more behind them: *sealAt is where it stands.
  std::vector<uint8_t> metaAndSeal(const std::vector<uint8_t>& seal, size_t* sealAt) const;
  // At least this much in one call, or false with error() set.
  bool readAt(uint64_t at, uint8_t* data, size_t size);

  struct TopBox {
    std::string type;
    uint64_t begin = 0;
    uint64_t header = 0;
    uint64_t end = 0;
  };
  // The box of the file's uppermost level that begins there. False with error() set.
  bool topBoxAt(uint64_t at, TopBox* box);

 private:
  State fail(State state, const std::string& text);
  State findMeta();
  bool holdsSeals(const TopBox& box);
  State readMeta();
  bool readSeals(const BoxReader& box);
  bool readSeal(const BoxReader& box);
  bool readScheme(const BoxReader& box, Seal* seal);
  bool readStarts(const BoxReader& box, Seal* seal) const;
  void readStatement(const BoxReader& box);
  bool addFile(uint64_t from, uint64_t to, const FileProgress& progress,
               std::vector<Digest>* digests);
  void setSize(std::vector<uint8_t>* bytes, size_t at, size_t size) const;

  UniqueFd file_;
  uint64_t size_ = 0;
  uint64_t metaAt_ = 0;
  std::vector<uint8_t> meta_;
  size_t sealsBox_ = 0;  // where `ipro` begins and ends
  size_t sealsEnd_ = 0;
  std::vector<Seal> seals_;
  ExportStatement statement_;
  std::string error_;
};

}  // namespace tarn
