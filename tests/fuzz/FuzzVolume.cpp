// The file system's head and the info file: whatever they say, nothing outside of the device is
// touched and no work is done that its size does not allow. What is mended can be taken back.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"
#include "fuzz/FuzzCard.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/CardRepair.h"
#include "recorder/check/CardCheck.h"

using namespace tarn_fuzz;

namespace {

constexpr char kUndoPath[] = "/tmp/undo";

void look() {
  std::string error;
  tarn::CardInfo info;
  if (info.read(kCardPath, &error) == 0) {
    for (int type = 0; type < tarn::kFileTypeCount; ++type) info.usedBytes(type);
  }
  for (int type = 0; type < tarn::kFileTypeCount; ++type) {
    CFATAccess fat;
    char name[tarn::kChunkFileNameRoom];
    uint8_t bytes[64];
    const int handle = fat.open(
        tarn::chunkFileName(tarn::kRecorderPartition, tarn::fileTag(type), 0, name), O_RDONLY);
    if (handle >= 0) fat.read(handle, bytes, sizeof bytes);
  }
  tarn::CardCheck().run(kCardPath, {}, &error);
}

// A plan that could be carried out leaves a good card, and its undoing what was there before.
// Nothing is done that could not be undone.
void mend(FuzzCard* card, bool canUndo) {
  std::string error;
  tarn::CardRepair repair;
  const bool planned = repair.plan(kCardPath, &error) == 0;
  if (deviceWrites() != 0) abort();
  if (!planned || repair.steps().empty()) return;
  const uint32_t before = card->digest();
  unlink(kUndoPath);
  const bool applied = repair.apply(canUndo ? kUndoPath : "/tmp/none/undo", &error) == 0;
  if (!canUndo && (applied || deviceWrites() != 0)) abort();
  card->liftRefusals();
  if (!applied) return;
  if (!tarn::CardGeometry::verify(kCardPath, tarn::GeometryDepth::kWhole).ok()) abort();
  if (tarn::CardRepair::undo(kCardPath, kUndoPath, &error) != 0) abort();
  if (card->digest() != before) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kVolume);
  look();
  mend(&card, size % 4 != 0);
  card.restore();
  return 0;
}
