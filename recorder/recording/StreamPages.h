#pragma once

#include <cstdint>

#include "base/Export.h"
#include "db/DbRecords.h"

class CApiDb;

namespace tarn {

// The recordings of a period, in the order of their keys, page by page: the same rows as
// CApiDb::selectRipList() gives, each page going on behind the key where the last one ended.
// Counted from the first row on, as by its offset, each page would read all rows before it again,
// and one that went meanwhile would let another be left out.
//
// Used by one thread; the connection, which it does not own, may be used in between.
class TARN_API StreamPages {
 public:
  // Seconds; rows that run at `from` or begin from then until `to`. `inTrg` 0: of any trigger.
  StreamPages(CApiDb* db, uint32_t from, uint32_t to, uint32_t inTrg)
      : db_(db), from_(from), to_(to), inTrg_(inTrg) {}
  // At most `room` rows into *out: fewer only at the end; -1 when the database does not answer.
  int32_t next(DB_STREAM* out, uint32_t room);

 private:
  CApiDb* db_;
  const uint32_t from_;
  const uint32_t to_;
  const uint32_t inTrg_;
  uint32_t after_ = 0;  // key of the last row given
};

}  // namespace tarn
