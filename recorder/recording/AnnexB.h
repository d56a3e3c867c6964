#pragma once

#include <cstddef>
#include <cstdint>

#include "base/Export.h"
#include "chunk/StreamHeaderFormat.h"

// H.264 byte streams (Annex B) as far as a recorder has to understand them, and the time stamp unit
// that it puts into every picture.
namespace tarn {

inline constexpr uint8_t kNalIdr = 5;
inline constexpr uint8_t kNalSei = 6;
inline constexpr uint8_t kNalSps = 7;
inline constexpr uint8_t kNalPps = 8;
inline constexpr uint8_t kNalDelimiter = 9;

// One NAL unit without its start code and without zero bytes behind it. Points into the data given.
struct NalUnit {
  const uint8_t* data = nullptr;
  size_t size = 0;
  size_t startCode = 0;  // where its start code (00 00 01) begins in the data given

  uint8_t type() const { return size > 0 ? static_cast<uint8_t>(data[0] & 0x1F) : uint8_t{0}; }
};

// Walks the NAL units of a piece of byte stream. Holds pointers only; the data must outlive it.
class TARN_API NalScanner {
 public:
  NalScanner(const void* data, size_t size);
  // The next unit; false at the end. Bytes in front of the first start code are passed over.
  bool next(NalUnit* out);

 private:
  const uint8_t* data_;
  size_t size_;
  size_t next_;  // start code of the next unit, or size_
};

// True when the picture holds an IDR slice: decoding can begin with it.
TARN_API bool isKeyPicture(const void* annexB, size_t size);
// First sequence and first picture parameter set of the picture; empty where there is none. True
// when both were found.
TARN_API bool findParameterSets(const void* annexB, size_t size, NalUnit* sps, NalUnit* pps);

// Time stamp unit: 00 00 00 01 66 05 2A, our 16-byte identifier, "timestamp = " and 14 digits of
// local time, 80. None of its bytes behind the start code is 0, so it needs no emulation
// prevention.
inline constexpr size_t kTimeStampSeiSize = 50;

// Writes the unit for `seconds` (local time as localtime gives it) into out[kTimeStampSeiSize].
TARN_API void makeTimeStampSei(uint32_t seconds, uint8_t* out);
// Where the unit belongs in a picture: behind an access unit delimiter that the picture begins
// with, else at its head; always so that it ends within kTimeStampWindow
// (chunk/StreamHeaderFormat.h).
TARN_API size_t timeStampSeiPlace(const void* annexB, size_t size);
// Finds the unit that a recording put into a picture. False when it has none.
TARN_API bool findTimeStampSei(const void* annexB, size_t size, size_t* place);
// Takes the unit out, in place, and returns the new size; without one nothing changes. Gives back
// exactly the bytes of before, also of a picture that had such a unit already.
TARN_API size_t removeTimeStampSei(uint8_t* annexB, size_t size);

}  // namespace tarn
