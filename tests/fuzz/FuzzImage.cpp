// A database image is foreign data until it has proved itself.
#include <cstdio>
#include <cstdlib>

#include "fuzz/FuzzCard.h"
#include "fuzz/Muted.h"
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

// An image that is taken holds as many rows as the journal has live keys, whatever it is.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kImage | kJournal);
  const tarn::RecoveryReport report = tarn::Recovery().run();
  if (report.ok() && report.fromImage && report.changes.empty() &&
      report.streamRows != report.startUp.streams.liveKeys) {
    abort();
  }
  card.restore();
  return 0;
}
