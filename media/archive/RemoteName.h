#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/Export.h"

namespace tarn {

// The name of an archive's place, as it may be shown. A remote of rclone's can be described in its
// name (`:sftp,host=…,pass=…:path`, `name,token='…':path`): what it says there may be what opens
// it, and messages go to people, logs and the card. Not part of the interface. Used by any thread.
class TARN_API RemoteName {
 public:
  explicit RemoteName(const std::string& place);

  // The place without what its description says, `:sftp,...:path`; as it is where it has none.
  std::string shown() const { return shown_; }
  // A text in which nothing is left that the description says, but for where the remote is.
  std::string hide(std::string text) const;

 private:
  void parse(const std::string& parameters);

  std::string shown_;
  std::vector<std::string> hidden_;  // the longest first
};

}  // namespace tarn
