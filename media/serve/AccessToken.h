#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "base/Export.h"

namespace tarn {

// The secret that lets somebody in, and the patience with those who guess it. Any number of
// threads.
class TARN_API AccessToken {
 public:
  enum class Verdict { kGood, kWrong, kTooManyTries };

  static constexpr size_t kLeast = 16;  // characters
  static constexpr size_t kMost = 1024;
  static constexpr int kTries = 10;  // wrong ones of an address in a minute

  // The first line of a file that nobody but its owner may read. False with *error set.
  bool read(const std::string& path, std::string* error);
  // Whether there is none: then everybody who reaches the server is let in.
  bool isNone() const { return token_.empty(); }

  // Judges what a request's Authorization says ("Bearer TOKEN", or "Basic" with it as the password;
  // "" without one). `address` is who asks, `nowMs` a clock that nobody sets. An address that was
  // wrong too often gets kTooManyTries, right or wrong, until a minute has passed. A request that
  // says nothing is no guess.
  Verdict judge(std::string_view authorization, const std::string& address, int64_t nowMs);

  // Whether two texts are the same, in a time that tells neither how much of them is nor, but for
  // a long one, how long they are.
  static bool same(std::string_view a, std::string_view b);

 private:
  struct Tries {
    int count = 0;
    int64_t sinceMs = 0;
  };
  static constexpr int64_t kForgetMs = 60000;
  static constexpr size_t kMostAddresses = 4096;

  static std::string secretOf(std::string_view authorization);
  Tries* triesOf(const std::string& address, int64_t nowMs);

  std::string token_;
  std::mutex mutex_;
  std::map<std::string, Tries> tries_;  // guarded by mutex_
};

}  // namespace tarn
