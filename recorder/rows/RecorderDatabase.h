#pragma once

#include <functional>
#include <string>

#include "base/Export.h"

class CApiDb;

namespace tarn {

// For whoever reads the recorder's database: what CApiDb tells by an empty result alone.

inline constexpr char kDatabaseUnread[] =
    "the database /tmp/DB.dat cannot be read; start the recorder again to rebuild it";

// True when there is a database that can be read, with both tables in the right shape, and nobody
// keeps it locked for ten seconds or for ever. Otherwise *error says why not. While it is locked
// `stopAsked` (may be empty) is asked five times a second, and ends the wait. Any thread.
TARN_API bool databaseIsGood(const std::function<bool()>& stopAsked, std::string* error);
// True when the last statement was done. Otherwise its result, also an empty one, says nothing, and
// *error is set.
TARN_API bool statementWasDone(CApiDb& db, std::string* error);

}  // namespace tarn
