#include "recorder/server/ServerReport.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace tarn {

void reportServer(int priority, const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  syslog(priority, "%s", text);
  char line[sizeof text + 16];
  snprintf(line, sizeof line, "tarn-server: %s\n", text);
  fflush(stderr);
  // A full pipe that nobody reads must not stop the server: it has room for a line, or loses it.
  pollfd error{STDERR_FILENO, POLLOUT, 0};
  if (poll(&error, 1, 0) != 1) return;
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, strlen(line));
}

}  // namespace tarn
