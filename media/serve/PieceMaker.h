#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/MediaOutput.h"
#include "media/serve/Piece.h"
#include "media/serve/ServedRows.h"
#include "recorder/recording/RecordingReader.h"

namespace tarn {

// Makes pieces of recordings into fragments of MP4, and what has to be known before them. Times in
// them count from 1970. Any number of threads.
class TARN_API PieceMaker {
 public:
  // How a recording's pictures are to be decoded.
  struct Description {
    uint32_t streamID = 0;
    std::string codec;  // "avc1.64001F"
    std::string sets;   // its parameter sets: recordings with the same ones share a beginning
    std::shared_ptr<const OutputPicture> first;  // its first key picture
    std::vector<uint8_t> sequence;               // what of its sets one movie has one of
  };

  // Of a recording; null when no key picture of it can be read. Those asked for last are kept.
  std::shared_ptr<const Description> describe(const ServedRecording& recording);

  // The two parts, into *out. False with *error set when they cannot be made.
  bool init(const Description& description, std::string* out, std::string* error);
  // `keysOnly`: of the piece's pictures only those.
  bool piece(const ServedRecording& recording, uint32_t first, uint32_t count, bool keysOnly,
             std::string* out, std::string* error);

 private:
  static constexpr size_t kKept = 16;

  std::shared_ptr<const Description> look(const ServedRecording& recording);

  std::mutex mutex_;
  std::list<std::shared_ptr<const Description>> kept_;  // guarded by mutex_; the latest first
};

}  // namespace tarn
