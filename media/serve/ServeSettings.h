#pragma once

#include <string>

namespace tarn {

// What answers have to know of the server as a whole.
struct ServeSettings {
  std::string version;    // of the program
  bool readOnly = false;  // nothing may be asked for that is more than looking
};

}  // namespace tarn
