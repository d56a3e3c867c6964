#include "media/serve/AccessToken.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/UniqueFd.h"

namespace tarn {
namespace {

constexpr std::string_view kBearer = "Bearer ";
constexpr std::string_view kBasic = "Basic ";

bool beginsWith(std::string_view text, std::string_view word) {
  return text.size() >= word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

// "" of what is no base64.
std::string fromBase64(std::string_view text) {
  std::string out(text.size() / 4 * 3, '\0');
  const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                   reinterpret_cast<const unsigned char*>(text.data()),
                                   static_cast<int>(text.size()));
  if (size <= 0) return "";
  // It takes what fills the last three bytes for zeros.
  const size_t filling = text.size() - 1 - text.find_last_not_of('=');
  out.resize(static_cast<size_t>(size) - std::min<size_t>(filling, 2));
  return out;
}

using Digest = std::array<unsigned char, SHA256_DIGEST_LENGTH>;

Digest digestOf(std::string_view text) {
  Digest digest = {};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
  return digest;
}

}  // namespace

bool AccessToken::read(const std::string& path, std::string* error) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat file = {};
  if (!fd.valid() || fstat(fd.get(), &file) != 0) {
    *error = "cannot read the token file " + path + ": " + strerror(errno);
    return false;
  }
  if (!S_ISREG(file.st_mode) || (file.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    *error = "others may read the token file " + path + ": chmod 600 it";
    return false;
  }
  std::string bytes(kMost + 2, '\0');
  const ssize_t got = ::read(fd.get(), bytes.data(), bytes.size());
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  token_ = bytes.substr(0, bytes.find_first_of("\r\n"));
  if (token_.size() >= kLeast && token_.size() <= kMost) return true;
  token_.clear();
  *error = "the first line of the token file " + path + " is the token, of " +
           std::to_string(kLeast) + " to " + std::to_string(kMost) + " characters";
  return false;
}

bool AccessToken::same(std::string_view a, std::string_view b) {
  return CRYPTO_memcmp(digestOf(a).data(), digestOf(b).data(), SHA256_DIGEST_LENGTH) == 0;
}

std::string AccessToken::secretOf(std::string_view authorization) {
  if (beginsWith(authorization, kBearer)) return std::string(authorization.substr(kBearer.size()));
  if (!beginsWith(authorization, kBasic)) return "";
  const std::string pair = fromBase64(authorization.substr(kBasic.size()));
  const size_t colon = pair.find(':');
  return colon == std::string::npos ? "" : pair.substr(colon + 1);
}

AccessToken::Tries* AccessToken::triesOf(const std::string& address, int64_t nowMs) {
  if (tries_.size() >= kMostAddresses && tries_.count(address) == 0) {
    for (auto one = tries_.begin(); one != tries_.end();) {
      one = nowMs - one->second.sinceMs >= kForgetMs ? tries_.erase(one) : std::next(one);
    }
    if (tries_.size() >= kMostAddresses) return nullptr;
  }
  Tries& tries = tries_.try_emplace(address, Tries{0, nowMs}).first->second;
  if (nowMs - tries.sinceMs >= kForgetMs) tries = {0, nowMs};
  return &tries;
}

AccessToken::Verdict AccessToken::judge(std::string_view authorization, const std::string& address,
                                        int64_t nowMs) {
  if (token_.empty()) return Verdict::kGood;
  if (authorization.empty()) return Verdict::kWrong;
  const std::lock_guard<std::mutex> lock(mutex_);
  Tries* tries = triesOf(address, nowMs);
  // More guessers than can be counted: nobody new is listened to for a while.
  if (tries == nullptr || tries->count >= kTries) return Verdict::kTooManyTries;
  if (same(secretOf(authorization), token_)) return Verdict::kGood;
  ++tries->count;
  return Verdict::kWrong;
}

}  // namespace tarn
