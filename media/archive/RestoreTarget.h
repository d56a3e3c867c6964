#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "db/CApiDb.h"
#include "db/DbRecords.h"
#include "media/archive/ArchiveLine.h"
#include "recorder/card/ChunkChannels.h"

namespace tarn {

// What a card holds of an archive already, and what room there is. Needs the recorder's database.
// Used by one thread. Not part of the interface.
class RestoreTarget {
 public:
  // All of these: false with error() set.
  bool read();
  // Whether a recording is there as a whole; what is left of a run that was interrupted is not, and
  // goes into *leftOver, whose keys are those of rows to be taken away once the whole is there.
  bool has(const ArchiveLine& recording, std::vector<uint32_t>* leftOver) const;
  // All there is of it.
  std::vector<uint32_t> keysOf(const ArchiveLine& recording) const;
  bool hasEvent(const ArchiveLine& event) const;
  // Whether a clip of so many bytes fits without anything that is there having to go.
  bool hasRoomFor(const ArchiveLine& recording);
  // Lists an event as it was. Inserted as a whole, it is there or not.
  bool addEvent(const ArchiveLine& event);
  // A row alone: its room is given free with what lies in front of it.
  bool remove(uint32_t key);

  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  std::vector<const DB_STREAM*> rowsOf(const ArchiveLine& recording) const;
  bool comesFromHere(const ArchiveLine& event) const;

  CApiDb database_;
  ChunkChannels chunks_;
  std::vector<DB_STREAM> rows_;
  std::vector<DB_EVENT> events_;
  std::string error_;
};

}  // namespace tarn
