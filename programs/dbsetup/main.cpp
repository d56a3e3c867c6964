// dbsetup: makes the recorder's empty database, and tells whether a usable one is there.

#include <syslog.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "base/StandardStreams.h"
#include "programs/OutOfMemory.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/DatabaseSetup.h"

namespace {

enum ExitStatus { kExitOk = 0, kExitFailed = 1, kExitUsage = 2 };

constexpr char kHelp[] =
    "Usage: dbsetup init|start\n"
    "Sets up the recorder's database /tmp/DB.dat.\n"
    "\n"
    "  init       make an empty database; one that is there is removed first\n"
    "  start      check that the database is there, with both tables in the right shape\n"
    "  --help     print this text and exit\n"
    "  --version  print the version and exit\n"
    "\n"
    "Exit status: 0 done; 1 failed, the reason is on standard error; 2 wrong usage.\n";

using Action = bool (*)(const char* path, std::string* error);

int run(const char* name, Action action) {
  std::string error;
  pid_t holder = 0;
  if (tarn::DatabaseGate::look(&holder) == tarn::DatabaseGate::State::kHolderDead) {
    fprintf(stderr, "dbsetup %s: the database is locked by process %d, which is gone\n", name,
            static_cast<int>(holder));
    return kExitFailed;
  }
  const auto act = [&] {
    return action(tarn::DatabaseSetup::defaultPath(), &error) ? kExitOk : kExitFailed;
  };
  const int status = tarn::endingWhenOutOfMemory("dbsetup", act);
  if (status == kExitOk || error.empty()) return status;
  fprintf(stderr, "dbsetup %s: %s\n", name, error.c_str());
  return kExitFailed;
}

// What was asked for is done only when all of it was written.
int print(const char* text) {
  return fputs(text, stdout) >= 0 && fflush(stdout) == 0 ? kExitOk : kExitFailed;
}

int usageError(const char* what, const char* arg) {
  fprintf(stderr, "dbsetup: %s%s; see dbsetup --help\n", what, arg);
  return kExitUsage;
}

}  // namespace

TARN_ENDS_WHEN_OUT_OF_MEMORY("dbsetup")

int main(int argc, char** argv) {
  if (!tarn::openStandardStreams()) return kExitFailed;
  if (argc < 2) return usageError("init or start expected", "");
  if (argc > 2) return usageError("unexpected argument ", argv[2]);
  const char* arg = argv[1];
  if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) return print(kHelp);
  if (strcmp(arg, "--version") == 0) return print("dbsetup " TARN_VERSION "\n");
  openlog("dbsetup", LOG_PID, LOG_DAEMON);
  if (strcmp(arg, "init") == 0) return run(arg, tarn::DatabaseSetup::createEmpty);
  if (strcmp(arg, "start") == 0) return run(arg, tarn::DatabaseSetup::check);
  return usageError("unknown command ", arg);
}
