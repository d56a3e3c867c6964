#pragma once

#include <string>

#include "ChildProcess.h"

namespace tarn {

// What runs around a command inside a private view, as around the programs of a recorder: the
// database rebuilt from the card, then the management server.
class ViewSession {
 public:
  // 0, or -1 with the reason in *error; then there is nothing to close.
  int open(std::string* error);
  // Stops the server in order, which saves the management data. 0, or -1 with the reason.
  int close(std::string* error);

 private:
  int startServer(std::string* error);

  ChildProcess server_;
};

}  // namespace tarn
