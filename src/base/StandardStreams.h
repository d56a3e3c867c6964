#pragma once

#include <fcntl.h>

#include <cerrno>

namespace tarn {

// Opens /dev/null for each of the standard streams 0 to 2 that the process was started without.
// First thing in main(), before any thread: else the next file to be opened, the card say, gets the
// number of a stream, and whatever is printed is written into it.
//
// False when one stays missing: then the program must not open anything else.
inline bool openStandardStreams() {
  for (int stream = 0; stream <= 2; ++stream) {
    if (fcntl(stream, F_GETFD) >= 0 || errno != EBADF) continue;
    // The lowest free number is this one: those before it are open.
    int fd = open("/dev/null", O_RDWR);
    // Without /dev/null: something that can neither be read nor written.
    if (fd < 0) fd = open("/", O_RDONLY | O_DIRECTORY);
    if (fd != stream) return false;
  }
  return true;
}

}  // namespace tarn
