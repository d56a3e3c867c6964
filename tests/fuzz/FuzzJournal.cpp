// Both journals, both copies: scrubbed and replayed. A second start must find what the first left.
#include <cstdlib>

#include "fuzz/FuzzCard.h"
#include "recorder/recovery/StartUp.h"

using namespace tarn_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kJournal);
  const tarn::StartUpReport first = tarn::StartUp().run();
  const tarn::StartUpReport second = tarn::StartUp().run();
  if (first.ok() && (!second.ok() || first.eventRows != second.eventRows ||
                     first.streamRows != second.streamRows)) {
    abort();
  }
  card.restore();
  return 0;
}
