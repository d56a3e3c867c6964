#pragma once

#include <sys/stat.h>

#include <string>

#include "base/Export.h"

namespace tarn {

// Keeps a card, a block device or image file, to one user at a time: formatting, mending, and a
// private view on it. Other tools of ours meet the lock, and on a block device nobody can mount it
// meanwhile. The recorder's own card is not to be had while its management server runs, and the
// server does not start meanwhile.
// Released by release(), by the destructor, and when the last process that inherited fd() ends.
class TARN_API CardLock {
 public:
  CardLock() = default;
  ~CardLock() { release(); }
  CardLock(const CardLock&) = delete;
  CardLock& operator=(const CardLock&) = delete;

  // Opens `path` for reading and writing and locks it; with `create` a missing file is made.
  // 0, or -1 with the reason in *error: missing, not writable, neither file nor block device,
  // mounted, attached to a loop device, or in use by the recorder or another of our tools.
  int acquire(const std::string& path, bool create, std::string* error);
  // For who only reads: opens `path`, which may be a folder as well, for reading, and keeps
  // everybody out who writes. Others that only read are welcome in a file; a block device has one
  // user of ours at a time, unless it is mounted, for reading only. 0, or -1 with the reason in
  // *error.
  int acquireToRead(const std::string& path, std::string* error);
  void release();
  int fd() const { return fd_; }
  bool isBlockDevice() const { return isBlockDevice_; }

 private:
  bool checkIdle(const std::string& path, std::string* error) const;
  bool keepServerOut(const std::string& path, const struct stat& card, int how, std::string* error);

  int fd_ = -1;
  int serverLock_ = -1;  // of the recorder's own card, where a server has run
  bool isBlockDevice_ = false;
};

}  // namespace tarn
