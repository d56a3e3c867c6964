#pragma once

#include <string>

namespace tarn {

// What answers have to know of the server as a whole.
struct ServeSettings {
  std::string version;    // of the program
  bool readOnly = false;  // it was asked for; for whoever looks
  bool mayCheck = true;   // the card may be checked from the page
};

}  // namespace tarn
