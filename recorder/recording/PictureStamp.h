#pragma once

#include <cstdint>
#include <vector>

#include "base/Export.h"
#include "recorder/card/Source.h"
#include "recorder/recording/RecordFormat.h"

namespace tarn {

// Looks whether the data of a picture is the one that its entry tells of: each picture carries its
// own time, so another one's bytes in its place show. The stamp is local time in whatever zone the
// recording was made, which need not be the one of now: all real ones are whole quarters of an hour
// from UTC and at most 15 hours. `stream` is the stream chunk. kRefused when the device does not
// give the bytes. Not part of the interface.
Delivery lookAtPicture(Source* stream, const PictureEntry& entry);

// The same, and how far local time was ahead of UTC then, in seconds: whole quarters of an hour.
// *zone is set on kGood alone.
Delivery zoneOfPicture(Source* stream, const PictureEntry& entry, int32_t* zone);

// The same of a block of sound, which has its time in its head. What does not begin as a block is
// proved by its checksum, as far as it has one.
Delivery lookAtSound(Source* stream, const PictureEntry& entry);

// What tells a picture's time in its own bytes.
enum class PictureStamp : uint8_t { kPicture, kSound, kNone };

// Looks at the stamp and at all bytes of pictures, by their entries' checksums: kBad is damage
// anywhere in them. Without a checksum the stamp alone is looked at. Each byte is read once, a
// piece at a time, into memory that is kept from one picture to the next. Used by one thread.
class TARN_API PictureProof {
 public:
  // The chunk stays the caller's and outlives this.
  explicit PictureProof(Source* stream) : stream_(*stream) {}

  Delivery prove(const PictureEntry& entry, PictureStamp stamp);
  // The stamp alone; kGood for kNone, and without reading.
  Delivery look(const PictureEntry& entry, PictureStamp stamp);

 private:
  Source& stream_;
  std::vector<uint8_t> piece_;
};

}  // namespace tarn
