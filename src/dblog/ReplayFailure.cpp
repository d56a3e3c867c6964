#include "dblog/ReplayFailure.h"

#include <cstdarg>
#include <cstdio>

namespace tarn {
namespace {

thread_local char lastFailure[160];

}  // namespace

const char* lastReplayFailure() { return lastFailure; }

void clearReplayFailure() { lastFailure[0] = 0; }

bool noteReplayFailure(const char* format, ...) {
  va_list values;
  va_start(values, format);
  vsnprintf(lastFailure, sizeof lastFailure, format, values);
  va_end(values);
  return false;
}

}  // namespace tarn
