// What any client may send to the management server, one packet after the other.
#include <algorithm>
#include <cstring>

#include "fat/ChunkFiles.h"
#include "fuzz/FuzzCard.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/server/ManagementStores.h"

using namespace tarn_fuzz;

// 32 bytes of the input are the words of a request; the rest of a packet is not used. Nearly all of
// them are about the recorder's card: others are refused at once.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  std::string error;
  tarn::DatabaseSetup::createEmpty(tarn::DatabaseSetup::defaultPath(), &error);
  {
    tarn::ManagementStores stores;
    stores.open();
    for (size_t done = 0; done < size; done += 32) {
      tarn::RequestRecord record;
      memcpy(record.bytes(), data + done, std::min<size_t>(32, size - done));
      if ((record.partition() & 0xF0) != 0xF0) record.setPartition(tarn::kRecorderPartition);
      stores.answer(record);
    }
  }
  card.restore();
  return 0;
}
