#pragma once

#include "db/CApiDb.h"

// Statements whose failure must not pass for an empty table. The results of the database's
// operations never tell of one, the connection's state afterwards does.
namespace tarn {

inline bool selected(CApiDb* database, const char* sql) {
  return database->setSql(sql) == 0 && database->getStatus() == 1;
}

inline bool executed(CApiDb* database, const char* sql) {
  return database->setSqlNoResult(sql) == 0 && database->getStatus() == 1;
}

}  // namespace tarn
