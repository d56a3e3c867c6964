// A database image is foreign data until it has proved itself.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/FuzzCard.h"
#include "fuzz/Muted.h"
#include "fuzz/Rows.h"
#include "recorder/recovery/Recovery.h"

using namespace tarn_fuzz;

namespace {

std::string g_rows;  // of the good card

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  muteStandardOutput();
  FuzzCard& card = FuzzCard::get();
  std::string error;
  tarn::Recovery recovery;
  if (!recovery.run().ok() || recovery.saveImage(&error) != 0) {
    fprintf(stderr, "no database image to begin with: %s\n", error.c_str());
    abort();
  }
  g_rows = databaseRows();
  card.adopt();
  return 0;
}

// An image that is taken holds as many rows as the journal has live keys, whatever it is. While the
// journals are good the rows are theirs, whatever is done to a sealed image.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  const bool journals = size % 2 == 0;
  card.damage(data, size, journals ? kImage | kJournal : kImageBytes);
  const tarn::RecoveryReport report = tarn::Recovery().run();
  if (report.ok() && report.fromImage && report.changes.empty() &&
      report.streamRows != report.startUp.streams.liveKeys) {
    abort();
  }
  if (report.ok() && !journals && databaseRows() != g_rows) abort();
  card.restore();
  return 0;
}
