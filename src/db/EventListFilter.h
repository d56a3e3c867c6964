#pragma once

#include <cstdint>

#include "db/SqlText.h"

namespace tarn {

// What an event list asks for, the same in every pass. Times and keys of 0 do not bound it.
struct EventListFilter {
  uint32_t startTime;
  uint32_t endTime;
  unsigned short extTrg;
  bool descending;

  // The statement of one pass, which gives one event. From the second pass on the cursor is the key
  // of an event that was found and always bounds the search, also when that key is 0: or a row of
  // key 0 would be found for ever.
  SqlText statement(uint32_t cursor, bool firstPass) const;

 private:
  void addPeriod(SqlText& sql) const;
  void addCursor(SqlText& sql, bool first, uint32_t cursor, bool inclusive) const;
};

}  // namespace tarn
