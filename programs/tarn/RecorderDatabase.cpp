#include "RecorderDatabase.h"

#include <unistd.h>

#include "db/CApiDb.h"
#include "recorder/DatabaseSetup.h"

namespace tarn {

bool databaseIsGood(std::string* error) {
  const char* path = DatabaseSetup::defaultPath();
  if (access(path, F_OK) == 0) return DatabaseSetup::check(path, error);
  *error = std::string("there is no database ") + path +
           ": the recorder has not been started; use --card CARD to look at a card without one";
  return false;
}

bool statementWasDone(CApiDb& db, std::string* error) {
  if (db.getStatus() == 1) return true;
  *error = kDatabaseUnread;
  return false;
}

}  // namespace tarn
