// An undo file of a repair, from wherever. One that is refused has changed nothing, and one that is
// not is whole and of this card.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "fuzz/FuzzCard.h"
#include "recorder/card/CardRepair.h"

using namespace tarn_fuzz;

// The input without its first byte, which says whether the right checksum follows.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr char kUndoPath[] = "/tmp/undo";
  if (size == 0) return 0;
  FuzzCard& card = FuzzCard::get();
  card.damage(nullptr, 0, kEverything);
  std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  uint8_t sum[2];
  tarn::putLe16(sum, tarn::crc16(bytes.data(), bytes.size()));
  if (data[0] % 2 != 0) bytes.append(reinterpret_cast<const char*>(sum), sizeof sum);
  FILE* file = fopen(kUndoPath, "wb");
  if (file == nullptr || fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) abort();
  fclose(file);
  if (size == 1) remove(kUndoPath);
  const uint32_t before = card.digest();
  std::string error;
  const int undone = tarn::CardRepair::undo(kCardPath, kUndoPath, &error);
  if (undone != 0 && (deviceWrites() != 0 || card.digest() != before)) abort();
  card.restore();
  return 0;
}
