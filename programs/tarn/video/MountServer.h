#pragma once

#include <sys/stat.h>

#include <string>

#include "base/UniqueFd.h"
#include "media/mount/MountedCard.h"

namespace tarn {

// Answers the kernel for a mounted card. Used by one thread.
class MountServer {
 public:
  enum class End { kUnmounted, kStopped, kFailed };

  explicit MountServer(MountedCard* card) : card_(card) {}

  // Whether this build can.
  static bool isBuilt();
  // Until it is unmounted or a stop is asked for. `device` is mounted.
  End serve(UniqueFd device);

  MountedCard* card() { return card_; }
  struct stat attributesOf(const MountAttributes& of) const;
  // Complains of what the card does not give, once while it stays the same.
  void tell(int error);

 private:
  MountedCard* card_;
  std::string told_;
};

}  // namespace tarn
