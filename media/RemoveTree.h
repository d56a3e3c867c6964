#pragma once

#include <ftw.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace tarn {

// Takes a folder away with all that is in it, as far as that is possible: for destructors, which
// have nobody to tell. What there is no memory for stays for whoever finds it; the C++ library's
// own function would end the process then.
inline void removeTree(const std::string& path) noexcept {
  constexpr int kMostOpen = 16;
  const auto removeOne = [](const char* name, const struct stat*, int, FTW*) {
    ::remove(name);
    return 0;
  };
  nftw(path.c_str(), removeOne, kMostOpen, FTW_DEPTH | FTW_PHYS);
}

// The same for whoever can be told: 0 when nothing is there any more, else errno for the first that
// stays; what is behind it was not tried.
inline int tryRemoveTree(const std::string& path) noexcept {
  constexpr int kMostOpen = 16;
  const auto removeOne = [](const char* name, const struct stat*, int, FTW*) {
    return ::remove(name) == 0 || errno == ENOENT ? 0 : errno;
  };
  const int result = nftw(path.c_str(), removeOne, kMostOpen, FTW_DEPTH | FTW_PHYS);
  if (result >= 0) return result;
  return errno == ENOENT ? 0 : errno;
}

}  // namespace tarn
