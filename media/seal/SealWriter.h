#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "media/seal/Crypto.h"

namespace tarn {

class SealingKey;

// A file that is written from its begin to its end and then signed, in the place that was left for
// that. Used by one thread. Not part of the interface.
class SealWriter {
 public:
  // False with error() set, as all of these.
  bool create(const std::string& path);
  bool write(const uint8_t* data, size_t size);
  bool write(const std::vector<uint8_t>& bytes) { return write(bytes.data(), bytes.size()); }
  uint64_t written() const { return written_; }
  int file() const { return file_.get(); }
  // Signs all that was written, where zeros stand at `signatureAt`, and closes the file.
  bool sign(SealingKey* key, uint64_t signatureAt);

  const std::string& error() const { return error_; }

 private:
  bool fail(int code);
  bool writeAt(uint64_t at, const uint8_t* data, size_t size);

  std::string path_;
  UniqueFd file_;
  uint64_t written_ = 0;
  Digest digest_;
  std::string error_;
};

}  // namespace tarn
