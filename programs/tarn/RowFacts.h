#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "db/CApiDb.h"
#include "db/DbRecords.h"

namespace tarn {

// What is told of rows beside what stands in them.

// Bytes of a recording's pictures or sound; 0 where header or entries are damaged. Nothing where
// the card refuses them.
std::optional<uint64_t> recordedBytes(const DB_STREAM& row);

// Rows of kept copies that are whole. False when the database could not be read.
bool readWholeCopies(CApiDb* db, std::vector<DB_STREAM>* copies);
// Whether one of these is a copy of the recording, or shows anything of the event.
bool isKeptIn(const std::vector<DB_STREAM>& copies, const DB_STREAM& row);
bool isKeptIn(const std::vector<DB_STREAM>& copies, const DB_EVENT& event);

}  // namespace tarn
