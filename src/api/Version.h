#pragma once

#include "base/Export.h"

// For C programs too.
#ifdef __cplusplus
extern "C" {
#endif

// Version of the library that the program runs with, "MAJOR.MINOR.PATCH" (docs/api.md says what may
// change with which part). Never null, and nobody's to free. For any thread.
TARN_API const char* tarn_version(void);

#ifdef __cplusplus
}
#endif
