#pragma once

#include "fat/ChunkFiles.h"
#include "recorder/CardLayout.h"

namespace faults {

// A card of two channels whose rings come round within a few seconds of video.
inline tarn::CardRequest smallCard() {
  tarn::CardRequest request;
  request.sizeBytes = 40 * 1024 * 1024;
  request.clusterBytes = 512;
  const auto set = [&](int type, uint64_t size, uint64_t count) {
    request.families[static_cast<size_t>(type)] = {size, count};
  };
  set(tarn::kFileStream, 192 * 1024, 2);
  set(tarn::kFilePicture, 16 * 1024, 2);
  set(tarn::kFileJournal, 4096, 4);
  set(tarn::kFileSyslog, 8192, 5);
  set(tarn::kFileDbImage, 65536, 1);
  return request;
}

}  // namespace faults
