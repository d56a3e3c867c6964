// The file system's head and the info file: whatever they say, nothing outside of the device is
// touched and no work is done that its size does not allow.
#include <fcntl.h>

#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"
#include "fuzz/FuzzCard.h"
#include "recorder/card/CardInfo.h"
#include "recorder/check/CardCheck.h"

using namespace tarn_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kVolume);
  std::string error;
  tarn::CardInfo().read(kCardPath, &error);
  for (int type = 0; type < tarn::kFileTypeCount; ++type) {
    CFATAccess fat;
    char name[tarn::kChunkFileNameRoom];
    uint8_t bytes[64];
    const int handle = fat.open(
        tarn::chunkFileName(tarn::kRecorderPartition, tarn::fileTag(type), 0, name), O_RDONLY);
    if (handle >= 0) fat.read(handle, bytes, sizeof bytes);
  }
  tarn::CardCheck().run(kCardPath, {}, &error);
  card.restore();
  return 0;
}
