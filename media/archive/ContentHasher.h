#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "media/archive/ContentHashes.h"
#include "media/seal/Crypto.h"

namespace tarn {

// In small letters.
std::string hexText(const uint8_t* bytes, size_t size);

// All hashes of some bytes in one go. Used by one thread. Not part of the interface.
class ContentHasher {
 public:
  ContentHasher();
  void add(const uint8_t* data, size_t size);
  uint64_t bytes() const { return bytes_; }
  // Once, at the end. What the library refuses, as MD5 where only approved algorithms may be used,
  // stays unknown; false without SHA-256.
  bool finish(ContentHashes* hashes);

 private:
  static constexpr size_t kAlgorithms = 3;
  std::array<CryptoOwned<EVP_MD_CTX>, kAlgorithms> contexts_;  // null: refused
  uint64_t bytes_ = 0;
};

}  // namespace tarn
