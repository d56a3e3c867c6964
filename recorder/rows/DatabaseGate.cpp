#include "recorder/rows/DatabaseGate.h"

#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>

#include "db/DatabaseFile.h"
#include "recorder/rows/ServerRetry.h"

namespace tarn {
namespace {

constexpr useconds_t kPauseUs = 10000;

struct Sight {
  DatabaseGate::State state = DatabaseGate::State::kUnknown;
  pid_t holder = 0;
};

// The lock's set, or -1 without one.
int findLock() {
  return semget(ftok(kDatabaseLockFile, kDatabaseLockProject), 1, kDatabaseLockMode);
}

bool isGone(pid_t process) { return kill(process, 0) != 0 && errno == ESRCH; }

// The last operation's process is read in front of and behind the value: when both are the same one
// and the value was 0 in between, that process took the lock and nobody did anything since.
Sight sightOf(int lock) {
  Sight sight;
  const int before = semctl(lock, 0, GETPID);
  const bool gone = before > 0 && isGone(before);
  const int value = semctl(lock, 0, GETVAL);
  const int after = semctl(lock, 0, GETPID);
  if (before < 0 || value < 0 || after < 0) return sight;
  if (value > 0) {
    sight.state = DatabaseGate::State::kFree;
    return sight;
  }
  sight.holder = after;
  sight.state =
      gone && before == after ? DatabaseGate::State::kHolderDead : DatabaseGate::State::kHeld;
  return sight;
}

Sight sight() {
  const int lock = findLock();
  if (lock >= 0) return sightOf(lock);
  Sight none;
  if (errno == ENOENT) none.state = DatabaseGate::State::kFree;
  return none;
}

}  // namespace

DatabaseGate::State DatabaseGate::look(pid_t* holder) {
  const Sight seen = sight();
  if (holder != nullptr) *holder = seen.holder;
  return seen.state;
}

DatabaseGate::State DatabaseGate::await(int64_t patienceMs, pid_t* holder) {
  Sight seen = sight();
  const pid_t first = seen.holder;
  const int64_t end = monotonicMs() + patienceMs;
  while (seen.state != State::kFree && seen.state != State::kHolderDead && monotonicMs() < end) {
    usleep(kPauseUs);
    seen = sight();
    // It goes from hand to hand: the system lets each waiting one have it in turn.
    if (seen.state == State::kHeld && seen.holder != first && seen.holder != 0 && first != 0) {
      seen.state = State::kFree;
    }
  }
  if (holder != nullptr) *holder = seen.holder;
  return seen.state;
}

bool DatabaseGate::releaseDead() {
  const int lock = findLock();
  if (lock < 0 || sightOf(lock).state != State::kHolderDead) return false;
  sembuf giveBack = {0, 1, IPC_NOWAIT};
  return semop(lock, &giveBack, 1) == 0;
}

}  // namespace tarn
