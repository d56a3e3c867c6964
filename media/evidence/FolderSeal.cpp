#include "media/evidence/FolderSeal.h"

#include <openssl/bio.h>
#include <openssl/pem.h>

#include "media/seal/Crypto.h"

namespace tarn {

bool FolderSeal::load(const SealRequest& request) {
  if (key_.load(request)) return true;
  error_ = key_.error();
  return false;
}

bool FolderSeal::sign(const std::string& text, std::string* signature) {
  Digest digest;
  digest.add(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  Digest::Value value;
  std::vector<uint8_t> bytes;
  if (!digest.finish(&value)) {
    error_ = "cannot work out a SHA-256: " + cryptoError();
    return false;
  }
  if (!key_.sign(value, &bytes)) {
    error_ = key_.error();
    return false;
  }
  signature->assign(bytes.begin(), bytes.end());
  return true;
}

std::string FolderSeal::certificate() const {
  const uint8_t* der = key_.certificate().data();
  const CryptoOwned<X509> x509(
      d2i_X509(nullptr, &der, static_cast<long>(key_.certificate().size())));
  const CryptoOwned<BIO> text(BIO_new(BIO_s_mem()));
  if (x509 == nullptr || text == nullptr || PEM_write_bio_X509(text.get(), x509.get()) != 1)
    return "";
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(text.get(), &bytes);
  return std::string(bytes, static_cast<size_t>(size));
}

}  // namespace tarn
