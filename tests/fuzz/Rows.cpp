#include "fuzz/Rows.h"

#include <sqlite3.h>

#include "recorder/rows/DatabaseSetup.h"

namespace tarn_fuzz {
namespace {

int addRow(void* out, int columns, char** values, char**) {
  auto* text = static_cast<std::string*>(out);
  for (int i = 0; i < columns; ++i) *text += std::string(values[i] ? values[i] : "null") + ' ';
  *text += '\n';
  return 0;
}

}  // namespace

std::string databaseRows() {
  sqlite3* database = nullptr;
  std::string rows;
  if (sqlite3_open_v2(tarn::DatabaseSetup::defaultPath(), &database, SQLITE_OPEN_READONLY,
                      nullptr) == SQLITE_OK) {
    sqlite3_exec(database, "SELECT * FROM EVENT ORDER BY eventID", addRow, &rows, nullptr);
    sqlite3_exec(database, "SELECT * FROM STREAM ORDER BY streamID", addRow, &rows, nullptr);
  }
  sqlite3_close(database);
  return rows;
}

}  // namespace tarn_fuzz
