#include "recorder/session/RecordingSession.h"

#include "recorder/card/NoThrow.h"
#include "recorder/session/EventKeeper.h"
#include "recorder/session/RecordingSessionImpl.h"

namespace tarn {

// Runs a public function's work; when memory runs out in it the session has failed.
template <typename Result, typename Work>
Result RecordingSession::guarded(const char* name, Result failed, Work work) noexcept {
  return orNoMemory(name, work, [&] {
    noMemory_ = true;
    if (impl_) impl_->failForMemory();
    return failed;
  });
}

RecordingSession::RecordingSession() = default;
RecordingSession::~RecordingSession() { close(); }

int RecordingSession::open(const RecordingOptions& options) { return openAs(options, false); }
int RecordingSession::openSound(const RecordingOptions& options) { return openAs(options, true); }

int RecordingSession::openAs(const RecordingOptions& options, bool sound) {
  if (impl_ && impl_->isOpen()) return -1;
  noMemory_ = false;
  return guarded("RecordingSession::open", -1, [&] {
    impl_.reset();
    impl_ = std::make_unique<Impl>();
    return impl_->open(options, sound);
  });
}

// Each block can be played without the one before it.
int RecordingSession::writeBlock(const void* block, size_t size, PictureTime start) {
  return writePicture(block, size, start, 0, true);
}

int RecordingSession::writePicture(const void* annexB, size_t size, PictureTime presentation,
                                   int32_t decodeOffsetUs, bool key) {
  if (!impl_) return -1;
  PictureEntry entry;
  entry.presentation = presentation;
  entry.decodeOffsetUs = decodeOffsetUs;
  entry.flags = key ? kEntryKeyPicture : uint16_t{0};
  return guarded("RecordingSession::writePicture", -1,
                 [&] { return impl_->write(annexB, size, entry); });
}

void RecordingSession::markDiscontinuity() {
  if (impl_) impl_->markDiscontinuity();
}

int RecordingSession::flush() {
  if (!impl_) return -1;
  return guarded("RecordingSession::flush", -1, [&] { return impl_->flush(); });
}

int RecordingSession::tick() {
  if (!impl_) return -1;
  return guarded("RecordingSession::tick", -1, [&] { return impl_->tick(); });
}

int RecordingSession::clockStepped(int64_t deltaUs) {
  if (!impl_) return -1;
  return guarded("RecordingSession::clockStepped", -1,
                 [&] { return impl_->clockStepped(deltaUs); });
}

int RecordingSession::clockBecameKnown(int64_t deltaUs) {
  if (!impl_) return -1;
  return guarded("RecordingSession::clockBecameKnown", -1,
                 [&] { return impl_->clockBecameKnown(deltaUs); });
}

uint32_t RecordingSession::beginEvent(uint16_t trigger, PictureTime time, uint16_t preSec) {
  if (!impl_) return 0;
  return guarded("RecordingSession::beginEvent", uint32_t{0},
                 [&] { return impl_->beginEvent(trigger, time, preSec); });
}

int RecordingSession::endEvent(uint32_t eventID, PictureTime time) {
  if (!impl_) return -1;
  return guarded("RecordingSession::endEvent", -1, [&] { return impl_->endEvent(eventID, time); });
}

int RecordingSession::keepEvent(uint32_t eventID) {
  return EventKeeper::keepEventOfProcess(eventID);
}

// What memory is missing for is left out, so that the locks are given back in any case.
int RecordingSession::close() {
  if (!impl_) return noMemory_ ? -1 : 0;
  const int result = guarded("RecordingSession::close", -1, [&] { return impl_->close(); });
  if (!impl_->isOpen()) return result;
  guarded("RecordingSession::close", -1, [&] { return impl_->close(); });
  return -1;
}

bool RecordingSession::isOpen() const { return impl_ && impl_->isOpen(); }
uint32_t RecordingSession::streamID() const { return impl_ ? impl_->streamID() : 0; }

RecordingError RecordingSession::error() const {
  if (impl_ && impl_->error() != RecordingError::kNone) return impl_->error();
  return noMemory_ ? RecordingError::kNoMemory : RecordingError::kNone;
}

const char* RecordingSession::errorText() const {
  if (impl_ && impl_->error() != RecordingError::kNone) return impl_->errorText();
  return noMemory_ ? kErrNoMemory : "";
}

RecordingStatistics RecordingSession::statistics() const {
  return impl_ ? impl_->statistics() : RecordingStatistics();
}

}  // namespace tarn
