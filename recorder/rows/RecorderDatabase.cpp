#include "recorder/rows/RecorderDatabase.h"

#include <unistd.h>

#include "db/CApiDb.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/DatabaseSetup.h"

namespace tarn {
namespace {

// A statement takes a second at most, a crowd of them some.
constexpr int kPatienceSteps = 50;
constexpr int64_t kStepMs = 200;

// Whoever asks the database waits for its lock without a limit, also for that of a dead process.
bool lockComesFree(const std::function<bool()>& stopAsked, std::string* error) {
  using State = DatabaseGate::State;
  pid_t holder = 0;
  State state = DatabaseGate::look(&holder);
  for (int i = 0; state == State::kHeld && i < kPatienceSteps; ++i) {
    if (stopAsked && stopAsked()) break;
    state = DatabaseGate::await(kStepMs, &holder);
  }
  if (state == State::kFree || state == State::kUnknown) return true;
  *error = "the database is locked by process " + std::to_string(holder);
  if (state == State::kHolderDead) *error += ", which is gone; tarn recover sets it free";
  return false;
}

}  // namespace

bool databaseIsGood(const std::function<bool()>& stopAsked, std::string* error) {
  const char* path = DatabaseSetup::defaultPath();
  if (access(path, F_OK) == 0)
    return lockComesFree(stopAsked, error) && DatabaseSetup::check(path, error);
  *error = std::string("there is no database ") + path + ": the recorder has not been started";
  return false;
}

bool statementWasDone(CApiDb& db, std::string* error) {
  if (db.getStatus() == 1) return true;
  *error = kDatabaseUnread;
  return false;
}

}  // namespace tarn
