#pragma once

#include <memory>
#include <string>

#include "base/Export.h"
#include "db/CApiDb.h"
#include "media/serve/ServedRows.h"
#include "recorder/rows/DatabaseWatch.h"

namespace tarn {

// Brings the rows of the recorder's database into memory, and later what has changed. Used by one
// thread.
class TARN_API RowReader {
 public:
  RowReader();

  // Makes *rows (null at first) what the database lists now; the same object stays where nothing
  // was changed. False with error() set when it could not be read: *rows stays.
  bool refresh(std::shared_ptr<const ServedRows>* rows);
  const std::string& error() const { return error_; }

 private:
  bool fail(const char* text);
  bool connect();
  bool isUnchanged(bool* unchanged);
  bool readStreams(ServedRows* rows);
  bool readEvents(const std::vector<DB_EVENT>* before, std::vector<DB_EVENT>* events);
  bool addEvents(std::vector<DB_EVENT>* events);
  bool renewOpenEvents(std::vector<DB_EVENT>* events);

  std::unique_ptr<CApiDb> db_;
  DatabaseWatch watch_;
  uint32_t version_ = 0;
  bool whole_ = true;  // nothing that was read before counts any more
  std::string error_;
};

}  // namespace tarn
