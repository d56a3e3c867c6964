#include "recorder/ServerReport.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace tarn {

void reportServer(int priority, const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  syslog(priority, "%s", text);
  fprintf(stderr, "tarn-server: %s\n", text);
}

}  // namespace tarn
