#pragma once

#include <string>

#include "OverlayPages.h"

namespace tarn {

// The process that answers the kernel for the file system of one file.
class OverlayServer {
 public:
  // `full`: the line that tells it when the memory is used up.
  OverlayServer(CardOriginal* original, std::string full)
      : pages_(original), full_(std::move(full)) {}

  // Whether this build can.
  static bool isBuilt();
  // Mounts it at `place`, "/dev/fd/N" for a device of FUSE that is mounted already, writes a byte
  // to `readyFd` and closes it, and serves until it is unmounted or SIGTERM comes. 0, or -1.
  int run(const std::string& place, int readyFd);
  // Saves what was written, with what stood there, into `file`, a new one, unless that is nothing;
  // false when it cannot.
  bool saveChanges(const std::string& file);

  OverlayPages* pages() { return &pages_; }
  // Complains, once.
  void complainFull();

 private:
  OverlayPages pages_;
  std::string full_;
};

}  // namespace tarn
