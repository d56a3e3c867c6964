#pragma once

#include <cstdint>
#include <vector>

#include "base/Export.h"

namespace tarn {

// One live record of a journal.
struct LiveRecord {
  uint32_t position;
  uint32_t key;
  uint32_t checksum;  // CRC-32 of the record
  bool kept = false;  // of a kept copy
};

// Records of rows that never were, among the live records of a journal in the order of their
// places: those whose key is not greater than all before it in the ring's order. A database that
// fails to insert (a full disk) leaves its connection with the key of an earlier row, and the row
// that is not there is journaled under it; the replay would put it in the place of the row that is.
//
// The ring's order begins with its oldest record, and nothing on the card says for sure which one
// that is: the saved free offset may be one record behind, or many when the server had died. So the
// beginning is the one that takes the fewest records for phantoms, of several such the one next
// behind `free`. The record of a kept copy is passed over when the ring comes round to it, and
// stays among newer ones: it has no place in the order, unless its key is there twice. Returns
// indexes into `live`, rising. The work is proportional to the records.
TARN_API std::vector<uint32_t> findPhantomRecords(const std::vector<LiveRecord>& live,
                                                  uint32_t free);

}  // namespace tarn
