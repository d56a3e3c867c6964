#include "api/Version.h"

const char* tarn_version(void) { return TARN_VERSION; }
