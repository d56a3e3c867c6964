#include "recorder/session/SoundSession.h"

#include <algorithm>
#include <deque>

#include "recorder/card/NoThrow.h"
#include "recorder/recording/SoundBlock.h"
#include "recorder/recording/SoundBlockBuilder.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSession.h"

namespace tarn {
namespace {

// A block is worth its entry and no more sound than one would miss with it.
constexpr int64_t kBlockUs = 500000;
constexpr size_t kBlockBytes = 256 * 1024;

}  // namespace

class SoundSession::Impl {
 public:
  int open(const SoundOptions& options);
  int write(const void* frame, size_t size, PictureTime time, uint32_t samples);
  int markDiscontinuity();
  int flush();
  int tick();
  int clockStepped(int64_t deltaUs) {
    return endBlock() && session_.clockStepped(deltaUs) == 0 ? 0 : -1;
  }
  int clockBecameKnown(int64_t deltaUs) {
    return endBlock() && session_.clockBecameKnown(deltaUs) == 0 ? 0 : -1;
  }
  int close();
  void closeRows() { session_.close(); }

  bool isOpen() const { return session_.isOpen(); }
  uint32_t streamID() const { return session_.streamID(); }
  RecordingError error() const;
  const char* errorText() const;
  RecordingStatistics statistics() const;

 private:
  struct Block {
    uint32_t frames;
    PictureTime start;
  };
  int refuse(RecordingError error, const char* text);
  bool endBlock();
  void settle();
  int64_t unsafeMicros() const;

  RecordingSession session_;
  SoundBlockBuilder block_;
  uint32_t flushMs_ = 0;
  int64_t pendingSinceMs_ = 0;  // monotonic, of the first frame of block_
  uint64_t frames_ = 0;
  uint64_t bytes_ = 0;
  uint64_t safeBlocks_ = 0;   // of those that were given to session_
  uint64_t safeFrames_ = 0;   // in them
  std::deque<Block> blocks_;  // behind them, and not safe
  RecordingError refused_ = RecordingError::kNone;
  const char* text_ = "";  // why
};

int SoundSession::Impl::refuse(RecordingError error, const char* text) {
  refused_ = error;
  text_ = text;
  return -1;
}

int SoundSession::Impl::open(const SoundOptions& options) {
  if (!isUsable(options.format)) return refuse(RecordingError::kBadOption, kErrSoundFormat);
  RecordingOptions rows;
  rows.channel = options.channel;
  rows.recType = options.recType;
  rows.inTrg = options.inTrg;
  rows.frameSet = frameSetOf(options.format.codec);
  rows.bitrate = options.bitrate;
  rows.segmentSeconds = options.segmentSeconds;
  rows.flushIntervalMs = flushMs_ = options.flushIntervalMs;
  block_.setFormat(options.format);
  return session_.openSound(rows);
}

// Counts the blocks that became safe.
void SoundSession::Impl::settle() {
  for (const uint64_t safe = session_.statistics().confirmed;
       safeBlocks_ < safe && !blocks_.empty(); ++safeBlocks_) {
    safeFrames_ += blocks_.front().frames;
    blocks_.pop_front();
  }
}

// From the oldest frame that is not safe to the end of the newest.
int64_t SoundSession::Impl::unsafeMicros() const {
  const PictureTime oldest = blocks_.empty() ? block_.start() : blocks_.front().start;
  return block_.start().totalMicros() + block_.micros() - oldest.totalMicros();
}

int SoundSession::Impl::flush() {
  const bool done = endBlock() && session_.flush() == 0;
  settle();
  return done ? 0 : -1;
}

bool SoundSession::Impl::endBlock() {
  if (error() != RecordingError::kNone) return false;
  if (block_.isEmpty()) return true;
  const std::vector<uint8_t>& bytes = block_.bytes();
  blocks_.push_back({block_.frames(), block_.start()});
  const bool taken = session_.writeBlock(bytes.data(), bytes.size(), block_.start()) == 0;
  block_.clear();
  settle();
  return taken;
}

int SoundSession::Impl::write(const void* frame, size_t size, PictureTime time, uint32_t samples) {
  if (!isOpen() || error() != RecordingError::kNone) return -1;
  if (size == 0 || size >= kSoundFrameLimit || samples >= kSoundFrameLimit)
    return refuse(RecordingError::kTooLarge, kErrSoundFrame);
  const bool fits = block_.continues(time, samples) && block_.sizeWith(size) <= kBlockBytes;
  if (!block_.isEmpty() && !fits && !endBlock()) return -1;
  if (block_.isEmpty()) pendingSinceMs_ = monotonicMs();
  block_.add(frame, size, samples, time);
  ++frames_;
  bytes_ += size;
  const int64_t length = int64_t{samples} * 1000000 / block_.format().sampleRate;
  if (unsafeMicros() + length > int64_t{flushMs_} * 1000) return flush();
  return block_.micros() < kBlockUs || endBlock() ? 0 : -1;
}

int SoundSession::Impl::markDiscontinuity() {
  if (!endBlock()) return -1;
  session_.markDiscontinuity();
  return 0;
}

int SoundSession::Impl::tick() {
  const bool due = !block_.isEmpty() && monotonicMs() - pendingSinceMs_ >= flushMs_;
  return due ? flush() : session_.tick();
}

int SoundSession::Impl::close() {
  const bool ended = !isOpen() || endBlock();
  return session_.close() == 0 && ended ? 0 : -1;
}

RecordingError SoundSession::Impl::error() const {
  if (session_.error() != RecordingError::kNone) return session_.error();
  return refused_;
}

const char* SoundSession::Impl::errorText() const {
  return session_.error() != RecordingError::kNone ? session_.errorText() : text_;
}

RecordingStatistics SoundSession::Impl::statistics() const {
  RecordingStatistics all = session_.statistics();
  uint64_t safe = safeFrames_;
  for (size_t i = 0; i < blocks_.size() && safeBlocks_ + i < all.confirmed; ++i)
    safe += blocks_[i].frames;
  all.pictures = frames_;
  all.confirmed = safe;
  all.bytes = bytes_;
  return all;
}

SoundSession::SoundSession() = default;
SoundSession::~SoundSession() { close(); }

// Runs a public function's work; when memory runs out in it the session has failed.
template <typename Result, typename Work>
Result SoundSession::guarded(const char* name, Result failed, Work work) noexcept {
  if (!impl_ || noMemory_) return failed;
  return orNoMemory(name, work, [&] {
    noMemory_ = true;
    return failed;
  });
}

int SoundSession::open(const SoundOptions& options) {
  if (isOpen()) return -1;
  noMemory_ = false;
  return orNoMemory(
      "SoundSession::open",
      [&]() -> int {
        impl_ = std::make_unique<Impl>();
        return impl_->open(options);
      },
      [&]() -> int {
        noMemory_ = true;
        return -1;
      });
}

int SoundSession::writeFrame(const void* frame, size_t size, PictureTime time, uint32_t samples) {
  return guarded("SoundSession::writeFrame", -1,
                 [&] { return impl_->write(frame, size, time, samples); });
}

int SoundSession::markDiscontinuity() {
  return guarded("SoundSession::markDiscontinuity", -1, [&] { return impl_->markDiscontinuity(); });
}

int SoundSession::flush() {
  return guarded("SoundSession::flush", -1, [&] { return impl_->flush(); });
}

int SoundSession::tick() {
  return guarded("SoundSession::tick", -1, [&] { return impl_->tick(); });
}

int SoundSession::clockStepped(int64_t deltaUs) {
  return guarded("SoundSession::clockStepped", -1, [&] { return impl_->clockStepped(deltaUs); });
}

int SoundSession::clockBecameKnown(int64_t deltaUs) {
  return guarded("SoundSession::clockBecameKnown", -1,
                 [&] { return impl_->clockBecameKnown(deltaUs); });
}

// What memory is missing for is left out, as in the session of pictures.
int SoundSession::close() {
  if (!impl_) return noMemory_ ? -1 : 0;
  const bool failed = noMemory_;
  noMemory_ = false;
  const int result = guarded("SoundSession::close", -1, [&] { return impl_->close(); });
  noMemory_ = noMemory_ || failed;
  if (impl_->isOpen()) impl_->closeRows();
  return noMemory_ ? -1 : result;
}

bool SoundSession::isOpen() const { return impl_ && impl_->isOpen(); }
uint32_t SoundSession::streamID() const { return impl_ ? impl_->streamID() : 0; }

RecordingError SoundSession::error() const {
  if (impl_ && impl_->error() != RecordingError::kNone) return impl_->error();
  return noMemory_ ? RecordingError::kNoMemory : RecordingError::kNone;
}

const char* SoundSession::errorText() const {
  if (impl_ && impl_->error() != RecordingError::kNone) return impl_->errorText();
  return noMemory_ ? kErrNoMemory : "";
}

RecordingStatistics SoundSession::statistics() const {
  return impl_ ? impl_->statistics() : RecordingStatistics();
}

}  // namespace tarn
