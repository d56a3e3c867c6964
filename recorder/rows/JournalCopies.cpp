#include "recorder/rows/JournalCopies.h"

#include <algorithm>
#include <cstring>

namespace tarn {

static_assert(JournalCopies::kSectorBytes % kEventRecordSize == 0 &&
              JournalCopies::kSectorBytes % kStreamRecordSize == 0);

const char* journalName(JournalKind kind) {
  return kind == JournalKind::kEvent ? "event" : "stream";
}

JournalCopies::JournalCopies(JournalKind kind, Source* original, Source* mirror,
                             uint32_t blockBytes)
    : kind_(kind),
      traits_(journalTraits(kind)),
      blockBytes_(blockBytes),
      originals_{original, {}},
      mirrors_{mirror, {}} {
  size_ = std::min({original->size(), mirror->size(), kMaxJournalBytes});
  size_ -= size_ % traits_.recordSize;
}

JournalCopy JournalCopies::at(uint32_t position) {
  position_ = position;
  first_ = look(&originals_, position);
  second_ = look(&mirrors_, position);
  alike_ =
      first_ != nullptr && second_ != nullptr && memcmp(first_, second_, traits_.recordSize) == 0;
  copy_ = judgeJournalCopies(traits_, position, first_, second_, &inPlace_);
  return copy_;
}

bool JournalCopies::inPlaceAt(uint32_t position) {
  at(position);
  return inPlace_;
}

uint32_t JournalCopies::firstInPlace(uint32_t position, uint32_t end) {
  while (position < end && !inPlaceAt(position)) position += traits_.recordSize;
  return position < end ? position : size_;
}

uint32_t JournalCopies::nextAfterHole(uint32_t position, uint32_t savedFree) {
  const uint32_t block = std::min(kBlockBytes, size_ - position);
  const uint32_t near = std::max(position + block, std::min(savedFree, size_));
  const uint32_t next = firstInPlace(position, near);
  if (next < size_ || near == size_ || !inPlaceAt(size_ - traits_.recordSize)) return next;
  return firstInPlace(near, size_);
}

const uint8_t* JournalCopies::look(Window* window, uint32_t position) const {
  if (position < window->start || position - window->start >= window->length) {
    load(window, position);
  }
  return window->good ? window->block.data() + (position - window->start) : nullptr;
}

void JournalCopies::load(Window* window, uint32_t position) const {
  if (window->block.empty()) window->block.resize(std::min(blockBytes_, size_));
  window->start = position;
  if (position >= window->carefulUntil) {
    window->length = std::min(blockBytes_, size_ - position);
    window->good =
        window->source->readOnce(position, window->block.data(), window->length) == Delivery::kGood;
    if (window->good) return;
    window->carefulUntil = position + window->length;
  }
  window->length = std::min(kSectorBytes - position % kSectorBytes, size_ - position);
  window->good =
      window->source->read(position, window->block.data(), window->length) == Delivery::kGood;
}

std::string JournalCopies::refusedText() const {
  if (first_ != nullptr && second_ != nullptr) return "";
  const Source* source = first_ == nullptr ? originals_.source : mirrors_.source;
  return std::string(journalName(kind_)) + " " + source->name() + " at byte " +
         std::to_string(position_);
}

}  // namespace tarn
