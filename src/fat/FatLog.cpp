#include "fat/FatLog.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "fat/FatMessages.h"

namespace tarn {
namespace {

// Names of any length that a path can have fit whole.
constexpr int kTextRoom = 4352;

}  // namespace

void logFat(const char* function, int line, const char* format, ...) {
  const int savedErrno = errno;
  char text[kTextRoom];
  const int prefix = snprintf(text, sizeof text, kMsgFatPrefix, function, line, kMsgFatSource);
  va_list args;
  va_start(args, format);
  vsnprintf(text + prefix, sizeof text - static_cast<size_t>(prefix), format, args);
  va_end(args);
  syslog(LOG_ERR, "%s", text);
  errno = savedErrno;
}

}  // namespace tarn
