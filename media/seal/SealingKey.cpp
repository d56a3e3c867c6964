#include "media/seal/SealingKey.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tarn {

namespace {

// Of a token's address: what is said may end in a log.
std::string withoutPin(std::string address) {
  constexpr char kPin[] = "pin-value=";
  const size_t begin = TokenKey::isAddress(address) ? address.find(kPin) : std::string::npos;
  if (begin == std::string::npos) return address;
  const size_t value = begin + sizeof kPin - 1;
  return address.replace(
      value, std::min(address.find_first_of(";&", value), address.size()) - value, "...");
}

}  // namespace

bool SealingKey::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool SealingKey::loadKey(const std::string& place) {
  if (TokenKey::isAddress(place)) {
    std::string reason;
    key_ = token_.load(place, &reason);
    if (key_ == nullptr)
      return fail("the key " + withoutPin(place) + " cannot be had from a token: " + reason +
                  " (OpenSSL needs a provider or an engine for pkcs11: addresses, and the token "
                  "its PIN)");
  } else {
    if (::access(place.c_str(), R_OK) != 0)
      return fail("cannot read the key " + place + ": " + strerror(errno));
    key_ = firstKey(place);
    if (key_ == nullptr) return fail(place + " holds no private key: " + cryptoError());
  }
  ERR_clear_error();
  if (isUsableKey(key_.get())) return true;
  return fail("the key " + withoutPin(place) + " is no RSA key of at least " +
              std::to_string(kLeastKeyBits) + " bits");
}

bool SealingKey::loadCertificate(const std::string& path) {
  const CryptoOwned<BIO> file(BIO_new_file(path.c_str(), "rb"));
  if (file == nullptr) {
    ERR_clear_error();
    return fail("cannot read the certificate " + path + ": " + strerror(errno));
  }
  x509_.reset(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
  if (x509_ == nullptr && BIO_seek(file.get(), 0) >= 0)
    x509_.reset(d2i_X509_bio(file.get(), nullptr));
  ERR_clear_error();
  if (x509_ == nullptr) return fail(path + " holds no certificate");
  uint8_t* der = nullptr;
  const int size = i2d_X509(x509_.get(), &der);
  if (size <= 0) return fail("cannot encode the certificate " + path + ": " + cryptoError());
  certificate_.assign(der, der + size);
  OPENSSL_free(der);
  return true;
}

// A key in a token does not show itself: only what it signs tells.
bool SealingKey::provePair() {
  const Digest::Value digest{};
  std::vector<uint8_t> signature;
  EVP_PKEY* named = X509_get0_pubkey(x509_.get());
  if (!isUsableKey(named)) return fail("the certificate is not one of an RSA key");
  if (!sign(digest, &signature)) return false;
  return signatureFits(named, digest, signature) ||
         fail("the certificate does not belong to the key");
}

bool SealingKey::load(const SealRequest& request) {
  ERR_clear_error();
  return loadKey(request.key) && loadCertificate(request.certificate) && provePair();
}

bool SealingKey::sign(const Digest::Value& digest, std::vector<uint8_t>* signature) {
  return signDigest(key_.get(), digest, signature) || fail("cannot sign: " + cryptoError());
}

}  // namespace tarn
