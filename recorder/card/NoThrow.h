#pragma once

#include <syslog.h>

#include <exception>
#include <string>
#include <utility>

namespace tarn {

inline constexpr char kMsgOutOfMemory[] = "%s: out of memory";
inline constexpr char kErrNoMemory[] = "there is not enough memory";

// So short that a std::string holds it without memory of its own.
inline constexpr char kErrMemoryOut[] = "out of memory";

// What a function that tells its failure in *error does when memory ran out.
inline int memoryOut(std::string* error) {
  *error = kErrMemoryOut;
  return -1;
}

// For the public functions of this folder, which do not throw: gives what `work` returns or, when
// memory ran out in it, one line in the log under `name` and what `failure` returns. `failure` must
// not allocate.
template <typename Work, typename Failure>
auto orNoMemory(const char* name, Work&& work, Failure&& failure) noexcept -> decltype(work()) {
  try {
    return std::forward<Work>(work)();
  } catch (const std::exception&) {  // bad_alloc, or a length that no memory would hold
    syslog(LOG_ERR, kMsgOutOfMemory, name);
    return std::forward<Failure>(failure)();
  }
}

}  // namespace tarn
