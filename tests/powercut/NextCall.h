#pragma once

#include <dlfcn.h>

namespace powercut {

// The function of that name that the program would have called if we did not stand in front of it.
template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace powercut
