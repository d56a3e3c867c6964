// How every target begins that damages the card.
#include "fuzz/FuzzCard.h"
#include "fuzz/Muted.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tarn_fuzz::muteStandardOutput();
  tarn_fuzz::FuzzCard::get();
  return 0;
}
