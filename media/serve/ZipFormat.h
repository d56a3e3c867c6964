#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace tarn {

// A file in a .zip, whose bytes are stored as they are.
struct ZipEntry {
  std::string name;  // UTF-8, with / between folders
  uint64_t size = 0;
  uint32_t crc = 0;     // CRC-32 of its bytes
  int64_t time = 0;     // seconds since 1970; told to two seconds, in local time
  uint64_t offset = 0;  // of its header in the .zip
};

// The parts of a .zip: each file's header in front of its bytes, then all of these once more, then
// the end. What 32 bits (or 16, of the number of files) do not hold stands in fields of Zip64,
// which only then are there.
TARN_API std::string zipHeader(const ZipEntry& entry);
TARN_API std::string zipListed(const ZipEntry& entry);
TARN_API std::string zipEnd(uint64_t files, uint64_t listOffset, uint64_t listSize);

}  // namespace tarn
