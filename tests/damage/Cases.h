#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What is damaged: one sector or one bit of one place of the card.
namespace damage {

// A piece of the card whose loss costs the same everywhere in it.
struct Region {
  const char* name;  // "journal"
  uint32_t chunk;
  uint64_t from;      // byte of the device
  uint64_t bytes;     // whose sectors are damaged
  uint64_t bitBytes;  // the first so many of which every bit is flipped, too
};

struct Case {
  // kBit and up: bit 0, 1, ... of the byte.
  enum Kind : uint32_t { kZero, kRandom, kErased, kRefused, kBit };
  size_t region;
  uint64_t byte;  // in the region
  uint32_t kind;

  bool isBit() const { return kind >= kBit; }
};

// Of the card that was formatted last.
std::vector<Region> allRegions();
// Sectors and bits, each in the order of their places.
std::vector<Case> sectorCases(const std::vector<Region>& regions);
std::vector<Case> bitCases(const std::vector<Region>& regions);

// "journal/2/512/zero", "info/0/17/bit3"
std::string nameOf(const std::vector<Region>& regions, const Case& one);

}  // namespace damage
