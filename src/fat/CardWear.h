#pragma once

#include <cstdint>

#include "base/Export.h"
#include "fat/ChunkFiles.h"

namespace tarn {

// What this process has given to cards since it began, by kind of chunk file. A card wears by what
// is written to it, so this is what a recording costs of its life.
struct TARN_API CardWear {
  struct Share {
    uint64_t bytes = 0;
    uint64_t writes = 0;   // calls that wrote
    uint64_t flushes = 0;  // calls that flushed, in vain too
  };
  Share kinds[kFileTypeCount] = {};
  Share headers;  // of recordings, in kinds[kFilePicture] too
  // What the management server writes and flushes for the saves that this process asked it for.
  // Where the server runs in this process, that is in `kinds`, too.
  Share asked;

  CardWear since(const CardWear& before) const;
};

// May be called by any thread.
TARN_API CardWear cardWear();
// After a write or flush of a chunk of that kind, of either outcome; `written` as the system says,
// `us`: how long it took, in microseconds.
void noteCardWrite(int fileType, long written);
void noteCardFlush(int fileType, int64_t us);
// After the header of a recording was written and flushed.
TARN_API void noteCardHeader(uint32_t bytes);
// After a save of `bytes` of management data that a server did.
void noteCardSave(uint32_t bytes);

}  // namespace tarn
