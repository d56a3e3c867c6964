#include "media/archive/ContentHasher.h"

namespace tarn {
std::string hexText(const uint8_t* bytes, size_t size) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

ContentHasher::ContentHasher() {
  const EVP_MD* algorithms[kAlgorithms] = {EVP_md5(), EVP_sha1(), EVP_sha256()};
  for (size_t i = 0; i < kAlgorithms; ++i) {
    contexts_[i].reset(EVP_MD_CTX_new());
    if (contexts_[i] != nullptr &&
        EVP_DigestInit_ex(contexts_[i].get(), algorithms[i], nullptr) != 1)
      contexts_[i].reset();
  }
}

void ContentHasher::add(const uint8_t* data, size_t size) {
  bytes_ += size;
  for (auto& context : contexts_) {
    if (context != nullptr && EVP_DigestUpdate(context.get(), data, size) != 1) context.reset();
  }
}

bool ContentHasher::finish(ContentHashes* hashes) {
  std::string* texts[kAlgorithms] = {&hashes->md5, &hashes->sha1, &hashes->sha256};
  for (size_t i = 0; i < kAlgorithms; ++i) {
    std::array<uint8_t, EVP_MAX_MD_SIZE> value = {};
    unsigned size = 0;
    if (contexts_[i] != nullptr && EVP_DigestFinal_ex(contexts_[i].get(), value.data(), &size) == 1)
      *texts[i] = hexText(value.data(), size);
  }
  return !hashes->sha256.empty();
}

}  // namespace tarn
