// A database image is foreign data until it has proved itself.
#include <cstdio>
#include <cstdlib>

#include "fuzz/FuzzCard.h"
#include "fuzz/Muted.h"
#include "recorder/recovery/DatabaseImage.h"
#include "recorder/recovery/Recovery.h"

using namespace tarn_fuzz;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  muteStandardOutput();
  FuzzCard& card = FuzzCard::get();
  std::string error;
  tarn::Recovery recovery;
  if (!recovery.run().ok() || recovery.saveImage(&error) != 0) {
    fprintf(stderr, "no database image to begin with: %s\n", error.c_str());
    abort();
  }
  card.adopt();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kImage | kJournal);
  std::string error;
  tarn::restoreDatabaseImage(&error);
  card.restore();
  return 0;
}
