#include "media/serve/AccessToken.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

int base64Value(char c) {
  static constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const size_t at = kDigits.find(c);
  return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

// Up to the first thing that is no base64.
std::string fromBase64(std::string_view text) {
  std::string out;
  uint32_t bits = 0;
  int held = 0;
  for (char c : text) {
    const int value = base64Value(c);
    if (value < 0) break;
    bits = (bits << 6 | static_cast<uint32_t>(value)) & 0xFFFFFF;
    held += 6;
    if (held < 8) continue;
    held -= 8;
    out += static_cast<char>(bits >> held & 0xFF);
  }
  return out;
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
  // Every byte of `a` counts, whether `b` has one there or not.
  unsigned differ = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < a.size(); ++i) {
    const char other = b.empty() ? '\0' : b[i % b.size()];
    const volatile unsigned part = static_cast<unsigned>(static_cast<uint8_t>(a[i] ^ other));
    differ |= part;
  }
  return differ == 0;
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
