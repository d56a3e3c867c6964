#include "recorder/session/ChunkPair.h"

#include "chunk/ChunkArea.h"
#include "fat/CardWear.h"
#include "fat/FailureMarker.h"
#include "manager/CTARNStreamManager.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/ServerFailure.h"

namespace tarn {

ChunkPair::ChunkPair(CTARNStreamManager* manager)
    : manager_(manager), patienceMs_(kServerPatienceMs) {}

bool ChunkPair::fail(RecordingError error, const char* text) {
  if (error_ == RecordingError::kNone) {
    error_ = error;
    text_ = text;
  }
  return false;
}

bool ChunkPair::failServer() {
  const ServerFailure failure = serverFailure(*manager_);
  return fail(failure.error, failure.text);
}

bool ChunkPair::refreshUsage(CTARNStreamChunk* chunk) {
  return retryFor(patienceMs_, [&] { return chunk->getUsageFromManager() == 0; }) || failServer();
}

bool ChunkPair::refresh() { return refreshUsage(picture_.get()) && refreshUsage(stream_.get()); }

bool ChunkPair::openArea(std::unique_ptr<CTARNStreamChunk>* chunk, uint8_t area, int number) {
  *chunk = std::make_unique<CTARNStreamChunk>(area);
  if ((*chunk)->openChunkFile(manager_, static_cast<unsigned short>(number)) != 0) {
    return fail(RecordingError::kCard, kErrOpenChunk);
  }
  // The open goes on without an answer of the server; the addresses must not be guessed.
  return refreshUsage(chunk->get());
}

bool ChunkPair::open(int number) {
  close();
  if (!openArea(&picture_, kAreaPicture, number) || !openArea(&stream_, kAreaStream, number)) {
    close();
    return false;
  }
  number_ = number;
  return true;
}

void ChunkPair::close() {
  picture_.reset();
  stream_.reset();
  number_ = -1;
}

// What the worker could not bring onto the card the chunk knows for itself, and the marker file for
// all programs. A flush that works after one that failed proves nothing: the system drops what it
// could not write.
bool ChunkPair::toCard(CTARNStreamChunk* chunk, const char* text) {
  if (chunk->flush() == 0 && !chunk->hasLostData() && !cardWriteFailed()) return true;
  return fail(RecordingError::kCard, text);
}

bool ChunkPair::syncHeader(const char* text) {
  noteCardHeader(kRecordSize);
  return sync(picture(), text);
}

bool ChunkPair::tell(CTARNStreamChunk* chunk) {
  return retryFor(patienceMs_, [&] { return chunk->setFreeToManager() == 0; }) || failServer();
}

bool ChunkPair::save() {
  return retryFor(patienceMs_, [&] { return manager_->saveManageData() == 0; }) || failServer();
}

bool ChunkPair::serverAnswers() {
  CHUNK_USAGE usage = {};
  return manager_->getUsage(0, &usage, kAreaStream) == 0;
}

}  // namespace tarn
