#pragma once

#include "dblog/CDbLog.h"
#include "recorder/rows/ServerRetry.h"

namespace tarn {

// What became of asking a JournalGuard for a place while the management server may be restarting.
enum class JournalPlace { kFree, kNone, kNoServer };

// Asks `makeFree` for a place; while it has none and the server does not answer, waits for the
// server, at most `patienceMs`. `hopeless`: what made it fail is no matter of the server.
template <typename MakeFree, typename Hopeless, typename ServerAnswers>
JournalPlace awaitJournalPlace(int64_t patienceMs, MakeFree makeFree, Hopeless hopeless,
                               ServerAnswers serverAnswers) {
  bool free = false;
  bool answered = false;
  retryFor(patienceMs, [&] {
    answered = CDbLog::getInstance()->connect() == 0;
    if (!answered) return false;
    free = makeFree();
    if (free || hopeless()) return true;
    answered = serverAnswers();
    if (!answered) return false;
    // The server may have come back in between, so the last answer counts.
    free = makeFree();
    return true;
  });
  if (free) return JournalPlace::kFree;
  return answered ? JournalPlace::kNone : JournalPlace::kNoServer;
}

}  // namespace tarn
