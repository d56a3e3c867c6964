#pragma once

#include <string>
#include <vector>

#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveStore.h"
#include "media/seal/FileVerifier.h"

namespace tarn {

// Proves the seals of an archive's clips. Used by one thread. Not part of the interface.
class SealCheck {
 public:
  explicit SealCheck(ArchiveStore* store) : store_(store) {}

  // Certificates, PEM, of which one must vouch for every seal; then there must be one. False with
  // error() set.
  bool trust(const std::vector<std::string>& authorities);
  // Whether a clip is to be looked at.
  bool isAsked(const ArchiveLine& line) const { return line.sealed || trusts_; }
  // The same of a copy of it that lies here: what is wrong with its seal.
  std::string whyNot(const std::string& path, const ArchiveLine& line) const;
  // Looks at a clip, of which the bytes are known to be those of its line. *finding: what is wrong
  // with its seal; "" when nothing is. False with error() set when it could not be read.
  bool prove(const ArchiveLine& line, std::string* finding);
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);

  ArchiveStore* store_;
  FileVerifier verifier_;
  bool trusts_ = false;
  std::string error_;
};

}  // namespace tarn
