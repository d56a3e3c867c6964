#include "recorder/session/KeepClient.h"

#include "recorder/card/NoThrow.h"
#include "recorder/rows/FileLock.h"
#include "recorder/session/KeptMessages.h"

namespace tarn {

// Its lock tells: a socket stays in the folder when its process was killed.
bool KeepClient::isThere() {
  FileLock lock;
  return lock.take(kKeeperLock, false) == FileLock::Outcome::kHeldByOther;
}

bool KeepClient::ask(const KeepRequest& request, KeepAnswer* answer) {
  return orNoMemory(
      "KeepClient",
      [&]() -> bool {
        uint8_t bytes[kKeepAnswerSize];
        encodeKeepRequest(request, bytes);
        if (client_.writeMesg(bytes, kKeepRequestSize) != long{kKeepRequestSize}) return false;
        const bool good = client_.awaitMesg() == 1 &&
                          decodeKeepAnswer(bytes, client_.readMesg(bytes, sizeof bytes), answer);
        // A late answer must not pass for the next one's.
        if (!good) client_.disconnect();
        return good;
      },
      []() -> bool { return false; });
}

}  // namespace tarn
