// The check of a card that is damaged anywhere: it ends, and it writes nothing.
#include <cstdlib>
#include <string>

#include "fuzz/FuzzCard.h"
#include "recorder/check/CardCheck.h"

using namespace tarn_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kEverything);
  std::string error;
  tarn::CardCheck().run(kCardPath, {}, &error);
  if (deviceWrites() != 0) abort();
  card.restore();
  return 0;
}
