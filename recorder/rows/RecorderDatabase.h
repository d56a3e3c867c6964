#pragma once

#include <string>

class CApiDb;

namespace tarn {

// For commands that read the recorder's database: what CApiDb tells by an empty result alone.

inline constexpr char kDatabaseUnread[] =
    "the database /tmp/DB.dat cannot be read; start the recorder again to rebuild it";

// True when there is a database that can be read, with both tables in the right shape, and nobody
// keeps it locked for ten seconds or for ever. Otherwise *error says why not.
bool databaseIsGood(std::string* error);
// True when the last statement was done. Otherwise its result, also an empty one, says nothing, and
// *error is set.
bool statementWasDone(CApiDb& db, std::string* error);

}  // namespace tarn
