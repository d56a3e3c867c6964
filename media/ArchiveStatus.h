#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace tarn {

// How far the archive of the recorder's card is, for whoever watches the recorder: in a file on the
// RAM disk that every run on the recorder exchanges. Not part of the interface.
struct TARN_API ArchiveStatus {
  static constexpr char kPath[] = "/tmp/tarn-archive.json";

  int64_t endedMs = 0;      // when the last run did, since 1970; 0: none has since the start
  int64_t goodMs = 0;       // the last one that archived all there was
  uint64_t missing = 0;     // recordings and events that are over, and are not in the archive
  uint64_t endangered = 0;  // of the recordings, those that the ring overwrites next
  bool known = false;       // the archive said what it has; else all are counted as not in it

  // False where there is none.
  bool read();
  // The whole of it or nothing. False when it cannot be written.
  bool write() const;
};

}  // namespace tarn
