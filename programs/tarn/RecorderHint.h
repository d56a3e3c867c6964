#pragma once

#include <unistd.h>

#include <string>

#include "recorder/rows/DatabaseSetup.h"

namespace tarn {

// An error of the recorder's database as the user of the tool gets it: without a database there is
// another way to see what a card holds.
inline std::string withHint(const std::string& error) {
  if (access(DatabaseSetup::defaultPath(), F_OK) == 0) return error;
  return error + "; use --card CARD to look at a card without one";
}

}  // namespace tarn
