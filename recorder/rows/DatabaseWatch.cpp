#include "recorder/rows/DatabaseWatch.h"

#include <sys/stat.h>

#include "db/DatabaseFile.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/rows/ServerRetry.h"

namespace tarn {
namespace {

static_assert(kServerPatienceMs == 5000, "the patience that a watch begins with");

}  // namespace

bool DatabaseWatch::begin() {
  struct stat file = {};
  begun_ = stat(kDatabasePath, &file) == 0;
  device_ = static_cast<uint64_t>(file.st_dev);
  inode_ = static_cast<uint64_t>(file.st_ino);
  return begun_;
}

DatabaseWatch::Verdict DatabaseWatch::check() const {
  switch (DatabaseGate::await(patienceMs_)) {
    case DatabaseGate::State::kHolderDead:
      return Verdict::kLockOfTheDead;
    case DatabaseGate::State::kHeld:
      return Verdict::kLockHeld;
    case DatabaseGate::State::kFree:
    case DatabaseGate::State::kUnknown:  // the statement will tell
      break;
  }
  if (!begun_) return Verdict::kGood;
  struct stat file = {};
  if (stat(kDatabasePath, &file) != 0) return Verdict::kGone;
  const bool same =
      static_cast<uint64_t>(file.st_dev) == device_ && static_cast<uint64_t>(file.st_ino) == inode_;
  return same ? Verdict::kGood : Verdict::kReplaced;
}

const char* DatabaseWatch::text(Verdict verdict) {
  switch (verdict) {
    case Verdict::kLockOfTheDead:
      return kErrLockOfTheDead;
    case Verdict::kLockHeld:
      return kErrLockHeld;
    case Verdict::kGone:
      return kErrDatabaseGone;
    case Verdict::kReplaced:
      return kErrDatabaseReplaced;
    case Verdict::kGood:
      break;
  }
  return "";
}

}  // namespace tarn
