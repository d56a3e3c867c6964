#pragma once

#ifdef TARN_OMISSIONS
#include "base/Export.h"
#endif

namespace tarn {

// Whether a step is to be left out: the power-cut tests leave out one at a time, to show that they
// see it. In the product this is false at compile time and nothing of it is left. Asked at the head
// of a function only, or of a table of steps; tests/powercut/omissions.txt has all the names, with
// dashes for blanks.
#ifdef TARN_OMISSIONS
TARN_API bool omitted(const char* step);
TARN_API void leaveOut(const char* step, bool out);
#else
constexpr bool omitted(const char*) { return false; }
#endif

}  // namespace tarn
