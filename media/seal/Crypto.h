#pragma once

#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/x509.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

// Owners of OpenSSL's objects, its errors in words, and the one way in which a seal is signed. Not
// part of the interface.
namespace tarn {

struct CryptoDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_STORE* store) const { X509_STORE_free(store); }
  void operator()(X509_STORE_CTX* context) const { X509_STORE_CTX_free(context); }
  void operator()(BIO* bio) const { BIO_free_all(bio); }
  void operator()(OSSL_PROVIDER* provider) const { OSSL_PROVIDER_unload(provider); }
};
template <class T>
using CryptoOwned = std::unique_ptr<T, CryptoDeleter>;

// The last error of this thread, which is forgotten then; "unknown error" where there is none.
std::string cryptoError();

// SHA-256 of what is added, piece by piece.
class Digest {
 public:
  using Value = std::array<uint8_t, 32>;

  Digest();
  void add(const uint8_t* data, size_t size);
  // Once, at the end. False when memory ran out or the library refuses the algorithm.
  bool finish(Value* value);

 private:
  CryptoOwned<EVP_MD_CTX> context_;
  bool good_;
};

// RSASSA-PSS with SHA-256, also as the mask's, and 20 bytes of salt.
constexpr int kSaltBytes = 20;
constexpr int kLeastKeyBits = 2048;
bool signDigest(EVP_PKEY* key, const Digest::Value& digest, std::vector<uint8_t>* signature);
bool signatureFits(EVP_PKEY* key, const Digest::Value& digest,
                   const std::vector<uint8_t>& signature);
// An RSA key, of at least kLeastKeyBits.
bool isUsableKey(EVP_PKEY* key);

}  // namespace tarn
