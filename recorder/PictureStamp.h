#pragma once

#include <cstdint>

#include "recorder/RecordFormat.h"
#include "recorder/Source.h"

namespace tarn {

// Looks whether the data of a picture is the one that its entry tells of: each picture carries its
// own time, so another one's bytes in its place show. The stamp is local time in whatever zone the
// recording was made, which need not be the one of now: all real ones are whole quarters of an hour
// from UTC and at most 15 hours. `stream` is the stream chunk. kRefused when the device does not
// give the bytes. Not part of the interface.
Delivery lookAtPicture(Source* stream, const PictureEntry& entry);

}  // namespace tarn
