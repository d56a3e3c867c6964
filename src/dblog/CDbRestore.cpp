#include "dblog/CDbRestore.h"

#include <syslog.h>

#include <cstdlib>

#include "base/Wrap.h"
#include "chunk/ChunkArea.h"
#include "db/CApiDb.h"
#include "dblog/CheckedSql.h"
#include "dblog/DbLogMessages.h"
#include "dblog/JournalFormat.h"
#include "dblog/RestoreStores.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNEndlessManagerNative.h"

using namespace tarn;

namespace {

constexpr char kSetupCommand[] = "/usr/local/bin/dbsetup init; /usr/local/bin/dbsetup start";
constexpr int kExitStatusBits = 0xFF00;
constexpr unsigned char kNoArea = 0;  // endless chunks have one area only

constexpr char kSqlNewestEvent[] = "SELECT backOffset FROM EVENT ORDER BY eventID DESC LIMIT 1";
constexpr char kSqlNewestStream[] = "SELECT backOffset FROM STREAM ORDER BY streamID DESC LIMIT 1";

// Place behind the record of the row with the greatest key; the present one where there is no row.
// False when the database does not answer: no row and no answer look the same, and the next insert
// would go over the record of a row.
bool correctFree(CApiDb* db, const char* sqlNewest, const JournalTraits& traits, uint32_t chunkSize,
                 uint32_t* free) {
  if (!selected(db, sqlNewest)) return false;
  if (db->getNTuple() == 1) {
    const uint32_t newest = db->getValue(0, 0);
    if (isJournalPlace(traits, newest, chunkSize)) {
      *free = nextJournalPlace(traits, newest, chunkSize);
      return true;
    }
  }
  if (!isJournalPlace(traits, *free, chunkSize)) *free = 0;
  return true;
}

bool recoverPair(CTARNEndlessManagerNative* store, CApiDb* db, JournalKind kind,
                 const char* sqlNewest) {
  const JournalTraits& traits = journalTraits(kind);
  const auto mirror = static_cast<short>(traits.chunk + kJournalMirrorStep);
  const uint32_t chunkSize = low32(store->getChunkSize(tarn::kAreaStream));
  CHUNK_USAGE usage = {};
  if (store->getUsage(traits.chunk, &usage) != 0) return false;
  auto free = static_cast<uint32_t>(usage.freeAddr);
  return correctFree(db, sqlNewest, traits, chunkSize, &free) &&
         store->setFree(traits.chunk, free, kNoArea) == 0 &&
         store->setFree(mirror, free, kNoArea) == 0;
}

}  // namespace

CDbRestore::CDbRestore() = default;
CDbRestore::~CDbRestore() = default;

int CDbRestore::setupEmptyDb() {
  if ((system(kSetupCommand) & kExitStatusBits) == 0) return 0;
  syslog(LOG_ERR, kMsgSetupDbError);
  return -1;
}

int CDbRestore::recoverJournalManage() {
  CTARNEndlessManagerNative store(kFileJournal);
  if (openForRestore(&store) != 0) return -1;
  CApiDb db;
  if (!recoverPair(&store, &db, JournalKind::kEvent, kSqlNewestEvent) ||
      !recoverPair(&store, &db, JournalKind::kStream, kSqlNewestStream)) {
    return -1;
  }
  const int saved = saveForRestore(&store);
  store.closeManageData();
  return saved == 0 ? 0 : -1;
}
