// Management files, both copies: opened, repaired and served. What was repaired can be opened.
#include <cstdlib>

#include "fuzz/FuzzCard.h"
#include "recorder/recovery/ManageFileRepair.h"
#include "recorder/server/ManagementStores.h"

using namespace tarn_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kManage);
  // A server also starts without a recovery in front of it.
  const bool repaired = size % 2 == 0;
  for (const tarn::FileType type : {tarn::kFileStream, tarn::kFileSyslog, tarn::kFileJournal}) {
    if (!repaired) break;
    std::vector<CHUNK_MANAGE> found;
    tarn::repairManageFile(type, type == tarn::kFileStream ? &found : nullptr);
  }
  tarn::ManagementStores stores;
  const int opened = stores.open();
  if (repaired && !card.hasRefusals() && !card.isCut() && opened != 3) abort();
  for (uint32_t command = 2; command <= 12; ++command) {
    for (const uint32_t kind : {tarn::kFileStream, tarn::kFileSyslog, tarn::kFileJournal}) {
      tarn::RequestRecord record;
      record.setCommand(command);
      record.setKind(kind);
      record.setPartition(51);
      stores.answer(record);
    }
  }
  stores.save();
  card.restore();
  return 0;
}
