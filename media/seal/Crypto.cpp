#include "media/seal/Crypto.h"

#include <openssl/err.h>
#include <openssl/rsa.h>

namespace tarn {
namespace {

// The operation's context with everything that a seal's signature prescribes.
CryptoOwned<EVP_PKEY_CTX> contextFor(EVP_PKEY* key, int (*init)(EVP_PKEY_CTX*)) {
  CryptoOwned<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new(key, nullptr));
  const bool good = context != nullptr && init(context.get()) > 0 &&
                    EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING) > 0 &&
                    EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) > 0 &&
                    EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), EVP_sha256()) > 0 &&
                    EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), kSaltBytes) > 0;
  if (!good) context.reset();
  return context;
}

}  // namespace

std::string cryptoError() {
  const unsigned long code = ERR_peek_last_error();
  ERR_clear_error();
  const char* text = code == 0 ? nullptr : ERR_reason_error_string(code);
  return text == nullptr ? "unknown error" : text;
}

Digest::Digest()
    : context_(EVP_MD_CTX_new()),
      good_(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) > 0) {}

void Digest::add(const uint8_t* data, size_t size) {
  good_ = good_ && EVP_DigestUpdate(context_.get(), data, size) > 0;
}

bool Digest::finish(Value* value) {
  return good_ && EVP_DigestFinal_ex(context_.get(), value->data(), nullptr) > 0;
}

bool signDigest(EVP_PKEY* key, const Digest::Value& digest, std::vector<uint8_t>* signature) {
  const auto context = contextFor(key, EVP_PKEY_sign_init);
  size_t size = static_cast<size_t>(EVP_PKEY_get_size(key));
  signature->resize(size);
  const bool good = context != nullptr && EVP_PKEY_sign(context.get(), signature->data(), &size,
                                                        digest.data(), digest.size()) > 0;
  return good && size == signature->size();
}

bool signatureFits(EVP_PKEY* key, const Digest::Value& digest,
                   const std::vector<uint8_t>& signature) {
  const auto context = contextFor(key, EVP_PKEY_verify_init);
  const bool fits =
      context != nullptr && EVP_PKEY_verify(context.get(), signature.data(), signature.size(),
                                            digest.data(), digest.size()) == 1;
  ERR_clear_error();
  return fits;
}

bool isUsableKey(EVP_PKEY* key) {
  return key != nullptr && EVP_PKEY_is_a(key, "RSA") == 1 &&
         EVP_PKEY_get_bits(key) >= kLeastKeyBits;
}

}  // namespace tarn
