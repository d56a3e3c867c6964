#include "recorder/server/ManagementStores.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "base/Wrap.h"
#include "fat/ChunkFiles.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/server/ServerMessages.h"
#include "recorder/server/ServerReport.h"

namespace tarn {
namespace {

constexpr int kBadCrc = -2;  // of openManageData
constexpr int kFailed = -1;
constexpr int kOpenTries = 3;
constexpr useconds_t kOpenPauseUs = 20000;
// How long all clients wait because one of them needs the database, at most, and in which steps.
constexpr int64_t kDatabaseWaitMs = 500;
constexpr int64_t kDatabaseStepMs = 50;

// Chunk numbers are signed 16-bit numbers everywhere behind this point, so the whole word is tested
// before it is narrowed.
bool chunkInStore(CTARNStreamManagerNative& store, uint32_t chunk) {
  return chunk < std::min<uint32_t>(store.numChunk(), INT16_MAX + 1u);
}

// Attribute and channel words hold a signed 8-bit number, sign-extended or not.
bool holdsByte(uint32_t word) { return word <= UINT8_MAX || word >= 0xFFFFFF80u; }

signed char lowByte(uint32_t word) {
  return static_cast<signed char>(static_cast<uint8_t>(word & 0xFF));
}

int getUsage(CTARNStreamManagerNative& store, short chunk, RequestRecord& record) {
  // Endless stores fill one pair only; the other comes back as sent.
  CHUNK_USAGE usage = record.usage();
  if (store.getUsage(chunk, &usage) != 0) return kFailed;
  record.setUsage(usage);
  return 0;
}

int setChunkAttr(CTARNStreamManagerNative& store, short chunk, const RequestRecord& record) {
  if (!holdsByte(record.arg1()) || !holdsByte(record.arg2())) return kFailed;
  return store.setChType(chunk, lowByte(record.arg1()), lowByte(record.arg2()));
}

int getChunkAttr(CTARNStreamManagerNative& store, short chunk, RequestRecord& record) {
  CHUNK_MANAGE manage;
  if (store.getManageData(chunk, &manage) != 0) return kFailed;
  record.setArg1(RequestRecord::fromSigned(manage.chType));
  record.setArg2(RequestRecord::fromSigned(manage.recType));
  return 0;
}

int getChunkSize(CTARNStreamManagerNative& store, RequestRecord& record) {
  const uint32_t area = record.arg1();
  if (area != kAreaPicture && area != kAreaStream) return kFailed;
  record.setArg1(low32(store.getChunkSize(static_cast<short>(area))));
  return 0;
}

int firstAvailable(CTARNStreamManagerNative& store, RequestRecord& record) {
  if (!holdsByte(record.arg1()) || !holdsByte(record.arg2())) return kFailed;
  const short chunk =
      store.firstAvailableChunk(record.arg0(), lowByte(record.arg1()), lowByte(record.arg2()));
  if (chunk < 0) return kFailed;
  record.setArg0(RequestRecord::fromSigned(chunk));
  return 0;
}

// Requests that name a chunk in arg0.
int applyToChunk(CTARNStreamManagerNative& store, RequestRecord& record) {
  if (!chunkInStore(store, record.arg0())) return kFailed;
  const auto chunk = static_cast<short>(record.arg0());
  const uint8_t area = record.arg2() != 0 ? kAreaStream : kAreaPicture;
  switch (record.command()) {
    case kRequestGetUsage:
      return getUsage(store, chunk, record);
    case kRequestSetChunkAttr:
      return setChunkAttr(store, chunk, record);
    case kRequestSetFreeOffset:
      return store.setFree(chunk, record.arg1(), area);
    case kRequestSetUseOffset:
      return store.setUsage(chunk, record.arg1(), area);
    case kRequestGetChunkAttr:
      return getChunkAttr(store, chunk, record);
    default:
      return kFailed;
  }
}

// 0, or anything else for a refusal.
int applyToStore(CTARNStreamManagerNative& store, RequestRecord& record) {
  switch (record.command()) {
    case kRequestFreeSizeTotal:
      record.setTotal(store.freeSizeTotal());
      return 0;
    case kRequestNumUsedChunk:
      record.setArg1(store.numUsedChunk());
      return 0;
    case kRequestNumChunk:
      record.setArg1(store.numChunk());
      return 0;
    case kRequestChunkSize:
      return getChunkSize(store, record);
    case kRequestFirstAvailable:
      return firstAvailable(store, record);
    default:
      return applyToChunk(store, record);
  }
}

// A read error may pass; a wrong sum does not.
int openPatiently(CTARNStreamManagerNative* store) {
  int result = kFailed;
  for (int i = 0; i < kOpenTries && result == kFailed; ++i) {
    if (i > 0) usleep(kOpenPauseUs);
    result = store->openManageDataFromEither(kRecorderPartition);
  }
  return result;
}

}  // namespace

ManagementStores::ManagementStores(const std::atomic<bool>* stop)
    : stop_(stop),
      journal_(kFileJournal),
      syslog_(kFileSyslog),
      entries_{
          {"stream", &stream_, false}, {"journal", &journal_, false}, {"syslog", &syslog_, false}} {
}

int ManagementStores::open() {
  int opened = 0;
  for (Entry& entry : entries_) {
    const int result = openPatiently(entry.store);
    entry.isOpen = result >= 0;
    if (entry.isOpen) {
      ++opened;
      if (result != 0) reportServer(LOG_WARNING, kMsgServerFromBackup, entry.name);
    } else if (result == kBadCrc) {
      reportServer(LOG_ERR, kMsgStoreBadCrc, entry.name);
    } else {
      reportServer(LOG_ERR, kMsgStoreNotOpen, entry.name);
    }
  }
  return opened;
}

int ManagementStores::save() {
  int result = 0;
  for (const Entry& entry : entries_) {
    if (!entry.isOpen || entry.store->saveManageDataToEither() >= 0) continue;
    reportServer(LOG_ERR, kMsgStoreNotSaved, entry.name);
    result = kFailed;
  }
  return result;
}

// A management file and its chunk file are one store, and so is the database image's kind, which
// has the stream chunks' suffix. The info file and the picture chunks have no management of their
// own. All stores are those of the recorder's own card, so another partition has none.
ManagementStores::Entry* ManagementStores::entryOf(uint32_t kind, uint32_t partition) {
  if (partition != RequestRecord::fromSigned(kRecorderPartition)) return nullptr;
  static constexpr int8_t kEntryOfKind[kFileTypeCount] = {-1, 1, 1, 2, 2, 0, 0, 0, -1};
  if (kind >= uint32_t{kFileTypeCount} || kEntryOfKind[kind] < 0) return nullptr;
  return &entries_[kEntryOfKind[kind]];
}

// Whoever holds the database's lock may be dead or hang. After one wait in vain the requests behind
// it are not kept waiting as well.
bool ManagementStores::databaseIsFree() {
  using State = DatabaseGate::State;
  State state = DatabaseGate::look();
  for (int64_t waited = 0; state == State::kHeld && !databaseHeld_ && waited < kDatabaseWaitMs;
       waited += kDatabaseStepMs) {
    if (stop_ != nullptr && *stop_) return false;
    state = DatabaseGate::await(kDatabaseStepMs);
  }
  // A lock that cannot be looked at cannot be taken either: it keeps nobody waiting.
  const bool held = state == State::kHeld || state == State::kHolderDead;
  if (held && !databaseHeld_) syslog(LOG_ERR, kMsgServerDatabase);
  databaseHeld_ = held;
  return !held;
}

uint32_t ManagementStores::apply(CTARNStreamManagerNative& store, RequestRecord& record) {
  if (record.command() == kRequestSaveManageData) {
    return store.saveManageDataToEither() >= 0 ? kResultDone : kResultCard;
  }
  // Of the stores that of the stream chunks alone asks the database.
  if (record.command() == kRequestFirstAvailable && &store == &stream_ && !databaseIsFree()) {
    return kResultDatabase;
  }
  return applyToStore(store, record) == 0 ? kResultDone : kResultRefused;
}

void ManagementStores::answer(RequestRecord& record) {
  const Entry* entry = entryOf(record.kind(), record.partition());
  if (entry == nullptr) {
    record.setResult(kResultRefused);
  } else {
    record.setResult(entry->isOpen ? apply(*entry->store, record) : kResultCard);
  }
}

}  // namespace tarn
