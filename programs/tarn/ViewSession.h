#pragma once

#include <string>

#include "ChildProcess.h"

namespace tarn {

// What runs around a command inside a private view, as around the programs of a recorder: recovery,
// then the management server; at a clean end the database is saved into its image.
class ViewSession {
 public:
  // Of a card that is only read: what its damage leads to costs nothing, so that all is shown that
  // there is, and nothing is left for a next start.
  explicit ViewSession(bool readOnly = false) : readOnly_(readOnly) {}
  // 0, or -1 with the reason in *error; then there is nothing to close.
  // Without `server` there is only the recovery, and close() leaves no image but the one of before.
  int open(bool server, std::string* error);
  // Stops the server in order, which saves the management data, then saves the database's image. 0,
  // or -1 with the reason.
  int close(std::string* error);

 private:
  int startServer(std::string* error);
  bool waitForServer(int* exitCode);
  void saveImage() const;

  const bool readOnly_;
  bool served_ = false;
  ChildProcess server_;
};

}  // namespace tarn
