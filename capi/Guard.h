#pragma once

#include <exception>
#include <string>

// What every function of capi/tarn.h does around its work: no exception leaves it, and the reason
// of a failure is kept for the thread.
namespace tarn {

// The text of tarn_error(), of this thread.
std::string& lastError();

// Result of `work`; `failed` where it throws.
template <typename Result, typename Work>
Result guarded(Result failed, const Work& work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    // Without memory there is none for a longer text.
    lastError() = "out of memory";
  } catch (const std::exception& error) {
    try {
      lastError() = error.what();
    } catch (...) {
    }
  } catch (...) {
    lastError() = "failed";
  }
  return failed;
}

// False, with the text, of a place that must hold something.
inline bool isGiven(const void* what, const char* name) {
  if (what == nullptr) lastError() = std::string("no ") + name + " (NULL)";
  return what != nullptr;
}

inline const char* textOr(const char* text) { return text != nullptr ? text : ""; }

}  // namespace tarn
