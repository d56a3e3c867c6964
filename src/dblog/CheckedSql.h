#pragma once

#include "db/CApiDb.h"

// Statements whose failure must not pass for an empty table. The results of the database's
// operations never tell of one.
namespace tarn {

inline bool selected(CApiDb* database, const char* sql) {
  database->setSql(sql);
  return database->lastStatementDone();
}

inline bool executed(CApiDb* database, const char* sql) {
  database->setSqlNoResult(sql);
  return database->lastStatementDone();
}

}  // namespace tarn
