#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "powercut/Checks.h"
#include "powercut/Workload.h"

namespace powercut {

// A state that the card has been brought into.
struct State {
  uint64_t number;
  Cut cut;
  uint64_t flushed;  // sum of the card with everything flushed; what is changed since can be undone
  uint64_t content;  // sum of the card
  ReadFault fault;   // of its recovery
};

// Every state that the card can have when power goes during a life: after each operation all writes
// so far; the flushed ones alone; every subset of the unflushed ones, or a sample of them when they
// are more than 12; the last one torn at each sector, and without each of its 4 KiB pages. A sector
// of the device is whole, and never older than what the system's cache last gave it. Where the card
// keeps two copies with sums (journals and management data) not even that is asked for: there all
// unflushed writes are also torn inside their sectors.
class States {
 public:
  States(const Recorded& life, uint64_t seed);

  // Walks all distinct states in order and calls `visit` with the number of each. When it says yes
  // the card is brought into the state and `run` is called; afterwards everything is taken back.
  using Visit = std::function<bool(uint64_t number, uint64_t distinct)>;
  using Run = std::function<void(const State& state)>;
  void walk(const Visit& visit, const Run& run);
  // All distinct states of a life.
  static uint64_t count(const Recorded& life, uint64_t seed);

  uint64_t distinct() const { return distinct_; }
  uint64_t contents() const { return contents_.size(); }  // different bytes on the card

 private:
  static constexpr size_t kSubsetWrites = 12;
  static constexpr int kSamples = 64;

  // What a sector may hold: as flushed, and after each unflushed write that touches it.
  struct Sector {
    std::vector<size_t> writes;  // index among the unflushed writes
    std::vector<std::vector<uint8_t>> versions;
    std::vector<uint64_t> hashes;
    // With half of what the last write has for it; empty where sectors have to be whole.
    std::vector<uint8_t> torn;
    uint64_t tornHash = 0;
  };
  static constexpr size_t kTorn = SIZE_MAX;  // stands for a version
  // Version of each sector that is not as flushed.
  using Versions = std::vector<std::pair<uint64_t, size_t>>;

  void addWrite(const CardOp& op);
  void flush();
  const uint8_t* flushedSector(uint64_t number) const;
  void visitState(const Versions& versions);
  void visitSubsets();
  void visitTears();
  void visitTornCopies();
  bool hasCopy(uint64_t sector) const;
  void visitMask(const std::vector<bool>& mask);
  uint64_t promises() const;
  uint64_t random();

  const Recorded& life_;
  uint64_t random_;
  const std::vector<std::pair<uint64_t, uint64_t>> copied_;  // bytes that are kept twice
  // What was flushed since the beginning, by sector.
  std::unordered_map<uint64_t, std::vector<uint8_t>> flushedSectors_;
  uint64_t flushedHash_ = 0;
  std::unordered_map<uint64_t, Sector> sectors_;
  size_t waiting_ = 0;  // unflushed writes
  Cut cut_ = {0, 0};
  uint64_t number_ = 0;
  uint64_t distinct_ = 0;
  std::unordered_set<uint64_t> seen_;
  std::unordered_set<uint64_t> contents_;
  const Visit* visit_ = nullptr;
  const Run* run_ = nullptr;
};

}  // namespace powercut
