// A whole start on a card that is damaged anywhere. What it leaves is what the next one finds.
#include <cstdio>
#include <cstdlib>

#include "fuzz/FuzzCard.h"
#include "recorder/recovery/Recovery.h"

using namespace tarn_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kEverything);
  const tarn::RecoveryReport first = tarn::Recovery().run();
  const tarn::RecoveryReport second = tarn::Recovery().run();
  const bool same = first.eventRows == second.eventRows && first.streamRows == second.streamRows;
  if (first.ok() && (!second.ok() || !same)) {
    fprintf(stderr, "a second start: %s, %u and %u rows for %u and %u\n", second.error.c_str(),
            second.eventRows, second.streamRows, first.eventRows, first.streamRows);
    abort();
  }
  card.restore();
  return 0;
}
