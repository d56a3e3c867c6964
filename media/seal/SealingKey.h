#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/seal/Crypto.h"
#include "media/seal/SealRequest.h"
#include "media/seal/TokenKey.h"

namespace tarn {

// The private key that seals files, and the certificate that names its holder. Used by one thread.
// Not part of the interface.
class TARN_API SealingKey {
 public:
  // Reads both and proves that they belong together. False with error() set.
  bool load(const SealRequest& request);

  // Bytes of each signature.
  size_t signatureSize() const { return static_cast<size_t>(EVP_PKEY_get_size(key_.get())); }
  const std::vector<uint8_t>& certificate() const { return certificate_; }  // DER
  // False with error() set.
  bool sign(const Digest::Value& digest, std::vector<uint8_t>* signature);

  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool loadKey(const std::string& place);
  bool loadCertificate(const std::string& path);
  bool provePair();

  TokenKey token_;  // goes after the key that is in one
  CryptoOwned<EVP_PKEY> key_;
  CryptoOwned<X509> x509_;
  std::vector<uint8_t> certificate_;
  std::string error_;
};

}  // namespace tarn
