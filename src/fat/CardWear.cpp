#include "fat/CardWear.h"

#include <pthread.h>

#include "fat/FlushTimes.h"

namespace tarn {
namespace {

// Never destroyed: chunks are closed until the process has ended.
CardWear g_wear;
FlushTimes g_flushTimes;
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;

template <typename Change>
void change(Change how) {
  pthread_mutex_lock(&g_lock);
  how(&g_wear);
  pthread_mutex_unlock(&g_lock);
}

bool isKind(int fileType) { return fileType >= 0 && fileType < kFileTypeCount; }

CardWear::Share difference(const CardWear::Share& now, const CardWear::Share& before) {
  return {now.bytes - before.bytes, now.writes - before.writes, now.flushes - before.flushes};
}

}  // namespace

CardWear CardWear::since(const CardWear& before) const {
  CardWear result;
  for (int kind = 0; kind < kFileTypeCount; ++kind) {
    result.kinds[kind] = difference(kinds[kind], before.kinds[kind]);
  }
  result.headers = difference(headers, before.headers);
  result.asked = difference(asked, before.asked);
  return result;
}

CardWear cardWear() {
  CardWear result;
  change([&result](const CardWear* wear) { result = *wear; });
  return result;
}

void noteCardWrite(int fileType, long written) {
  if (!isKind(fileType) || written <= 0) return;
  change([=](CardWear* wear) {
    wear->kinds[fileType].bytes += static_cast<uint64_t>(written);
    ++wear->kinds[fileType].writes;
  });
}

void noteCardFlush(int fileType, int64_t us) {
  if (!isKind(fileType)) return;
  change([=](CardWear* wear) {
    ++wear->kinds[fileType].flushes;
    g_flushTimes.add(us);
  });
}

FlushTimes cardFlushTimes() {
  FlushTimes result;
  change([&result](const CardWear*) { result = g_flushTimes; });
  return result;
}

void noteCardHeader(uint32_t bytes) {
  change([=](CardWear* wear) {
    wear->headers.bytes += bytes;
    ++wear->headers.writes;
    ++wear->headers.flushes;
  });
}

// The backup, flushed, then the main copy, flushed.
void noteCardSave(uint32_t bytes) {
  constexpr uint64_t kCopies = 2;
  change([=](CardWear* wear) {
    wear->asked.bytes += kCopies * bytes;
    wear->asked.writes += kCopies;
    wear->asked.flushes += kCopies;
  });
}

}  // namespace tarn
