#pragma once

#include "base/Export.h"
#include "mesg/CMesgClient.h"
#include "recorder/session/KeepRequest.h"

namespace tarn {

// Asks the process that keeps. Used by one thread.
class TARN_API KeepClient {
 public:
  KeepClient() : client_(kKeeperSocket) {}

  // Whether there is one; asks nobody.
  static bool isThere();
  // Hands over a request or asks for its ticket. False when there is no answer.
  bool ask(const KeepRequest& request, KeepAnswer* answer);

 private:
  CMesgClient client_;
};

}  // namespace tarn
