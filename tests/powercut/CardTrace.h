#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "db/DbRecords.h"

// What this process does to the card /dev/sdblk0p1: every write and flush of every thread, in
// order, and what the recorder had been told by then. The system calls and the journal's operations
// are interposed in CardTrace.cpp, so nothing in the product knows.
namespace powercut {

inline constexpr char kCardPath[] = "/dev/sdblk0p1";
inline constexpr uint32_t kSector = 512;
inline constexpr uint32_t kPage = 4096;

// An operation of the journal, from its call to its return.
struct RowMark {
  enum Kind { kStreamPut, kStreamDelete, kEventPut, kEventDelete };
  Kind kind;
  uint32_t key;
  DB_STREAM stream = {};  // the row after it
  DB_EVENT event = {};
  size_t begin = 0;       // number of card operations before it was called
  size_t end = SIZE_MAX;  // and before it returned; SIZE_MAX: never, or it failed
};

struct CardOp {
  bool flush;
  uint64_t offset = 0;
  std::vector<uint8_t> bytes;
};

struct Trace {
  std::vector<CardOp> ops;
  std::vector<RowMark> rows;
};

// A read of the card.
struct CardRead {
  uint64_t offset;
  size_t length;
};

// What the card does to the reads of one recovery.
struct ReadFault {
  enum Kind {
    kNone,
    kFails,   // the read gives an error, once
    kShort,   // it gives half of what was asked for, once
    kBurst,   // it and the next kBurstReads - 1 give an error
    kGone,    // it and all that follow
    kSector,  // reads end before a bad sector, or give an error where they begin in it
    kZeros,   // no read is refused, but the card has lost a sector as zeros
  };
  static constexpr size_t kBurstReads = 20;  // more than anybody asks again
  Kind kind = kNone;
  size_t read = 0;      // from 0
  uint64_t sector = 0;  // of the last two

  bool isPassing() const { return kind == kFails || kind == kShort; }
};

// Of one sector's bytes at its place; a card's sum is the exclusive or of them.
uint64_t sectorHash(uint64_t sector, const uint8_t* bytes);
uint64_t mix(uint64_t value);

// The card, in memory: a file of the view's tmpfs that is mapped beside. Its changes can be taken
// back to any earlier moment, at a cost that depends on what was changed only.
class Card {
 public:
  static Card& get();
  void create(uint64_t size);
  uint64_t size() const { return size_; }
  const uint8_t* bytes() const { return map_; }

  // Makes the whole card these bytes, from which there is no way back.
  void load(const std::vector<uint8_t>& bytes);
  // Writes as the rig, not as the recorder.
  void put(uint64_t offset, const void* bytes, size_t length);

  // A moment to come back to.
  size_t moment() const { return undo_.size(); }
  void rollBack(size_t moment);
  // Forgets how to go back: what is there is the new beginning.
  void settle();
  // Sectors that differ from what they held at `moment`.
  std::vector<uint64_t> changedSince(size_t moment) const;
  // Sum of the changes since the beginning: with the sum of what was there then, that of the card.
  uint64_t changesHash() const;

  // Places that the recorder may write to; a write elsewhere is noted.
  void allow(std::vector<std::pair<uint64_t, uint64_t>> extents) { extents_ = std::move(extents); }
  std::string takeStray();
  bool hasStray() const { return !stray_.empty(); }
  // Something was written and no flush came behind it.
  bool unflushed() const { return unflushed_; }

  // Recording into a trace; null ends it.
  void record(Trace* trace) { trace_ = trace; }
  Trace* trace() const { return trace_; }

  // Notes every read; null ends it.
  void recordReads(std::vector<CardRead>* reads) { reads_ = reads; }
  // Counts reads from now on and refuses what the fault says, and nobody sleeps; null ends it.
  void refuse(const ReadFault* fault);
  bool isRefusing() const { return fault_ != nullptr; }
  // How often it did since it was told to.
  size_t refusals() const { return refusals_; }

  // Called by the interposed system calls, under their lock.
  // Bytes that a read may have; -1: none, it fails.
  ssize_t aboutToRead(uint64_t offset, size_t length);
  void aboutToWrite(uint64_t offset, size_t length);
  void written(uint64_t offset, const void* bytes, size_t length);
  void flushed();

 private:
  struct Saved {
    uint64_t sector;
    uint8_t bytes[kSector];
  };
  uint8_t* map_ = nullptr;
  uint64_t size_ = 0;
  std::vector<Saved> undo_;
  std::vector<std::pair<uint64_t, uint64_t>> extents_;
  std::string stray_;
  bool unflushed_ = false;
  Trace* trace_ = nullptr;
  std::vector<CardRead>* reads_ = nullptr;
  const ReadFault* fault_ = nullptr;
  size_t readNumber_ = 0;
  size_t refusals_ = 0;
};

// The journal refuses the delete of a recording, the `nth` from now on (1: the next).
void refuseDelete(int nth);
// While `lose`, a replay of the stream journal drops a row and says nothing. True when it did.
bool loseReplayedRow(bool lose);

// Log lines of the system log, while kept.
void keepLog(bool keep);
std::string takeLog();

}  // namespace powercut
