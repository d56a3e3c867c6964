#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "recorder/card/CardLayout.h"

// What the families of chunk files must hold to, whoever lays a card out or judges one. Not part of
// the interface.
namespace tarn {

inline constexpr uint32_t kMaxChunkBytes = 0x7FFFFFFF;  // positions in a chunk are signed 32-bit

// Fewest chunks of a family that the recorder can work with.
uint32_t leastChunks(int type);
// Whether a family is of management files: main copy and backup.
bool isManagement(int type);
// Family whose chunks a management file describes; -1 for other files.
int managedBy(int type);
// Management file that describes a family's chunks; -1 where none does.
int managerOf(int type);

// A contradiction between the families of an info file, in words: "" for none.
struct FamilyFault {
  std::string text;
  bool cutShort = false;  // the card is smaller than what it says it holds
};

using CardFamilies = std::array<CardFamily, kFileTypeCount>;
// Counts and sizes within the format's bounds, and families that belong together of one size. The
// info file's own record is of no use to anybody who has found it, so it is not judged.
FamilyFault judgeFamilies(const CardFamilies& families);
// All chunks between the first byte of the data region and the card's end.
FamilyFault judgePlaces(const CardFamilies& families, uint64_t dataByte, uint64_t cardBytes);

}  // namespace tarn
