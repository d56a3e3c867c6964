#pragma once

#include <glob.h>
#include <unistd.h>

namespace tarn_fuzz {

// Removes the files whose paths are like this.
inline void removeFiles(const char* pattern) {
  glob_t found = {};
  if (glob(pattern, 0, nullptr, &found) == 0) {
    for (size_t i = 0; i < found.gl_pathc; ++i) unlink(found.gl_pathv[i]);
  }
  globfree(&found);
}

}  // namespace tarn_fuzz
