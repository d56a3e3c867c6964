#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/Export.h"
#include "media/MediaOutput.h"

namespace tarn {

// What becomes one track of an exported file, piece by piece in the order of decoding. Used by one
// thread.
class TARN_API ExportTrack {
 public:
  virtual ~ExportTrack() = default;

  enum class Result { kPiece, kEnd, kError };
  // The next piece, which then is at hand and counts as written. On kError error() says why.
  virtual Result next() = 0;
  // Of the piece at hand: when it is decoded.
  virtual int64_t decodeUs() const = 0;
  // The piece at hand, as the first one of track `track` and as the next one. False with the
  // output's error().
  virtual bool describe(MediaOutput* output, size_t track) const = 0;
  virtual bool write(MediaOutput* output, size_t track) const = 0;

  const std::string& error() const { return error_; }

 protected:
  std::string error_;
};

}  // namespace tarn
