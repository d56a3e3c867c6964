// What any client may send to the management server, one packet after the other.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "db/DatabaseFile.h"
#include "fat/ChunkFiles.h"
#include "fuzz/FuzzCard.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/server/ManagementStores.h"

using namespace tarn_fuzz;

namespace {

constexpr size_t kWords = 32;
constexpr uint8_t kHeld = 0x01;     // somebody has the database
constexpr uint8_t kStopped = 0x02;  // the server is asked to stop
constexpr uint8_t kUnread = 0x04;   // it could not read its management files

void giveDatabase(int change) {
  const int lock = semget(ftok(tarn::kDatabaseLockFile, tarn::kDatabaseLockProject), 1,
                          IPC_CREAT | tarn::kDatabaseLockMode);
  const int value = change > 0 ? 1 : 0;
  if (lock < 0 || semctl(lock, 0, SETVAL, value) != 0) abort();
  // Who did the last operation counts as the holder.
  sembuf nothing = {0, 0, IPC_NOWAIT};
  if (value == 0 && semop(lock, &nothing, 1) != 0) abort();
}

}  // namespace

// 32 bytes of the input are the words of a request; the rest of a packet is not used. Nearly all of
// them are about the recorder's card: others are refused at once. A single byte behind the last one
// tells what stands in the server's way.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCard& card = FuzzCard::get();
  const uint8_t way = size % kWords == 1 ? data[size - 1] : 0;
  std::string error;
  tarn::DatabaseSetup::createEmpty(tarn::DatabaseSetup::defaultPath(), &error);
  if ((way & kHeld) != 0) giveDatabase(-1);
  {
    const std::atomic<bool> stop{(way & kStopped) != 0};
    tarn::ManagementStores stores(&stop);
    if ((way & kUnread) == 0) stores.open();
    for (size_t done = 0; done < size; done += kWords) {
      tarn::RequestRecord record;
      memcpy(record.bytes(), data + done, std::min(kWords, size - done));
      if ((record.partition() & 0xF0) != 0xF0) record.setPartition(tarn::kRecorderPartition);
      stores.answer(record);
    }
    stores.save();
  }
  if ((way & kHeld) != 0) giveDatabase(1);
  card.restore();
  return 0;
}
