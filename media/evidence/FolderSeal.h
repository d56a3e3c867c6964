#pragma once

#include <string>

#include "media/seal/SealRequest.h"
#include "media/seal/SealingKey.h"

namespace tarn {

// Seals the list of a folder's files, and so the folder. Used by one thread.
class FolderSeal {
 public:
  // Both false with error() set.
  bool load(const SealRequest& request);
  // What `openssl dgst -sha256 -verify` takes for a signature of `text`.
  bool sign(const std::string& text, std::string* signature);

  std::string certificate() const;  // PEM; "" when it cannot be written so
  const std::string& error() const { return error_; }

 private:
  SealingKey key_;
  std::string error_;
};

}  // namespace tarn
