#pragma once

#include <string>

#include "media/serve/DownloadMaker.h"

namespace tarn {

// What answers have to know of the server as a whole.
struct ServeSettings {
  std::string version;             // of the program
  bool readOnly = false;           // it was asked for; for whoever looks
  bool mayCheck = true;            // the card may be checked from the page
  bool seals = false;              // all that is given out to keep
  std::string downloads = "/tmp";  // where downloads are made that have to be made first
  DownloadMaker maker = nullptr;   // that makes them; empty: none
};

}  // namespace tarn
