// Both journals, both copies: scrubbed and replayed. A second start must find what the first left.
#include <cstdlib>

#include "fuzz/FuzzCard.h"
#include "fuzz/Rows.h"
#include "recorder/recovery/StartUp.h"

using namespace tarn_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kVolume | kJournal | kJournalManage);
  const bool refused = card.hasRefusals();
  const tarn::StartUpReport first = tarn::StartUp().run();
  const std::string rows = databaseRows();
  card.liftRefusals();
  const tarn::StartUpReport second = tarn::StartUp().run();
  if (first.ok() && !refused && (!second.ok() || rows != databaseRows())) abort();
  card.restore();
  return 0;
}
