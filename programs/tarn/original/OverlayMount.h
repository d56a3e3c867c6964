#pragma once

#include <sys/types.h>

#include <string>

#include "CardOriginal.h"
#include "base/UniqueFd.h"

namespace tarn {

// A card's original as a file that can be written to: a file system of one file (FUSE), served by a
// process of its own, which keeps what is written in memory and drops it at the end. Nothing of it
// is seen by the rest of the machine where the kernel lets this process have mounts of its own;
// elsewhere the file system's own helper mounts it below /tmp.
class OverlayMount {
 public:
  OverlayMount() = default;
  ~OverlayMount() { stop(); }
  OverlayMount(const OverlayMount&) = delete;
  OverlayMount& operator=(const OverlayMount&) = delete;

  // Mounts and serves it. The calling process, which must have one thread, may have a mount and a
  // user namespace of its own from then on, as its children have. `full`, a whole line, is written
  // to standard error once when the memory for what is written is used up. 0, or -1 with the reason
  // in *error.
  int start(CardOriginal* original, const std::string& full, std::string* error);
  // Before start(): what is written is saved at the end, with what the original has there, into
  // `file`, a new one (recorder/card/UndoFile.h); where nothing is, there is none.
  void keepChanges(const std::string& file) { changes_ = file; }
  // Where the file is, for this process and its children.
  const std::string& path() const { return path_; }
  // False when what was to be kept could not be.
  bool stop();

 private:
  bool mountHere(UniqueFd* device);
  bool makePlace(std::string* error);
  void removePlace();
  bool serve(CardOriginal* original, const std::string& full, UniqueFd device, std::string* error);

  std::string path_;
  std::string place_;  // directory made for it, where it is not mounted in a place of its own
  std::string changes_;
  pid_t server_ = 0;
};

}  // namespace tarn
