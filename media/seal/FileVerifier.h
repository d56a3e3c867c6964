#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/seal/FileProgress.h"

namespace tarn {

// What one seal of a file proves. Texts of the file are as it has them: they may hold anything.
struct SealProof {
  enum class Chain { kNotAsked, kTrusted, kNotTrusted };

  bool unchanged = false;  // nothing was changed since it was put on, but for later seals
  std::string reason;      // why not
  std::string holder;      // of the certificate, as RFC 2253 has it
  std::string issuer;
  std::string fingerprint;  // SHA-256 of the certificate, 64 hexadecimal digits
  std::string notBefore;    // UTC, "YYYY-MM-DDTHH:MM:SSZ"
  std::string notAfter;
  std::string digest;  // SHA-256 of what was signed
  // What whoever sealed it said. No clock but his own vouches for the time.
  std::string time;  // "YYYY-MM-DDTHH:MM:SSZ"
  std::string operatorName;
  std::string note;
  Chain chain = Chain::kNotAsked;  // whether an authority vouches for the certificate at that time
  std::string chainReason;         // why not

  bool good() const { return unchanged && chain != Chain::kNotTrusted; }
};

// What a file proves. All but `seals` is what it says of itself.
struct FileProof {
  struct Source {
    uint16_t track = 0;
    std::string name;
    std::string line;
    int64_t startUs =
        0;  // what decode time 0 of the track stands for: microseconds since 1970, UTC
  };
  bool readable = false;  // it could be read and has a seal
  std::string error;      // why not, or why its seals cannot be read
  std::string unit;       // that exported it
  std::string exported;   // when that began, UTC
  std::string operatorName;
  std::vector<Source> sources;
  std::vector<SealProof> seals;  // the one of the export first

  // Every seal holds.
  TARN_API bool proven() const;
};

// Proves that sealed files are what was sealed. Changes nothing. Used by one thread.
class TARN_API FileVerifier {
 public:
  FileVerifier();
  ~FileVerifier();
  FileVerifier(const FileVerifier&) = delete;
  FileVerifier& operator=(const FileVerifier&) = delete;

  // Certificates that are believed from now on, PEM; intermediate ones too. False with *error set.
  bool trust(const std::string& path, std::string* error);
  // Reads all of the file. Throws std::bad_alloc when memory runs out.
  FileProof verify(const std::string& path) const;
  FileProof verify(const std::string& path, const FileProgress& progress) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
