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

  bool isDone = false;  // also by a recorder that goes on unattended

  bool blown() const { return !text.empty(); }
};

// Many: more than two and more than a tenth.
constexpr bool isBulk(size_t count, size_t of) { return count > 2 && count > of / 10; }

// When both copies of the stream chunks' management file are bad and would be made anew: blown when
// the stream journal holds no recording at all, live or deleted, and the picture entries of one of
// the `chunks` first chunks say that there were, or are refused. False, with *error, when the
// device does not tell what the journal holds.
bool fuseWithoutManagement(uint32_t chunks, FuseFinding* finding, std::string* error);

// Before anything is written to the journals: blown when many of their records are gone in both
// copies. The journal goes on without them, and their places are written over. A stream journal of
// which nothing is left at all is the matter of the next two, which know what pictures there are.
FuseFinding fuseJournals(const JournalSurvey& events, const JournalSurvey& streams);

// After the replay of a stream journal that lost records: all chunks in use by the management data
// as it was found that hold, where their oldest data is or behind their newest row, entries of a
// recording that the journal does not know, not even as deleted, or what the device refuses to
// give. False, with *error, when database or journal do not tell.
bool chunksOfMissing(const std::vector<CHUNK_MANAGE>& known, std::vector<uint32_t>* chunks,
                     std::string* error);

// After the replay: chunks in use by the management data as it was found that no row names, and
// that begin with entries of a recording whose record the journals have lost, or with what the
// device refuses to give; a record that was deleted explains its recording. Blown when they are
// many, or most of the chunks that hold recordings. False, with *error, when database or journal do
// not tell.
bool fuseLostChunks(const std::vector<CHUNK_MANAGE>& known, const JournalSurvey& streams,
                    FuseFinding* finding, std::string* error);

// Closed rows that the repair of the headers would delete, of `rows` in all.
FuseFinding fuseDeletions(const std::vector<DB_STREAM>& deletions, uint32_t rows);

}  // namespace tarn
