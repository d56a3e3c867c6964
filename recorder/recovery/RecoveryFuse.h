#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "manager/ChunkRecords.h"
#include "recorder/recovery/JournalSurvey.h"

namespace tarn {

// Where recovery hesitates. A power cut leaves open what was being written; it never takes whole
// recordings that were closed. So when recovery would give up many of them, the card is damaged in
// a way that no power cut explains, and what recovery goes by may be what is wrong. Nothing here
// writes. Not part of the interface.
struct FuseFinding {
  std::string text;              // what would be done, and why; empty: the fuse holds
  std::vector<uint32_t> chunks;  // that it is about, ascending

  bool blown() const { return !text.empty(); }
};

// Many: more than two and more than a tenth.
constexpr bool isBulk(size_t count, size_t of) { return count > 2 && count > of / 10; }

// When both copies of the stream chunks' management file are bad and would be made anew: blown when
// the stream journal holds no recording at all, live or deleted, and `chunks` first chunks' picture
// entries say that there were. False, with *error, when the device does not tell.
bool fuseWithoutManagement(uint32_t chunks, FuseFinding* finding, std::string* error);

// After the replay: chunks in use by the management data as it was found that no row names, and
// that begin with entries of a recording whose record the journals have lost; a record that was
// deleted explains its recording. Blown when they are many, or most of the chunks that hold
// recordings. False, with *error, when database or device do not tell.
bool fuseLostChunks(const std::vector<CHUNK_MANAGE>& known, const JournalSurvey& streams,
                    FuseFinding* finding, std::string* error);

// Closed rows that the repair of the headers would delete, of `rows` in all.
FuseFinding fuseDeletions(const std::vector<DB_STREAM>& deletions, uint32_t rows);

}  // namespace tarn
