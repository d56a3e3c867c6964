#include "recorder/JournalCopies.h"

#include <algorithm>

namespace tarn {
namespace {

constexpr uint32_t kBlockBytes = 64 * 1024;
constexpr uint32_t kSectorBytes = 512;
static_assert(kSectorBytes % kEventRecordSize == 0 && kSectorBytes % kStreamRecordSize == 0);

}  // namespace

const char* journalName(JournalKind kind) {
  return kind == JournalKind::kEvent ? "event" : "stream";
}

JournalCopies::JournalCopies(JournalKind kind, Source* original, Source* mirror)
    : kind_(kind), traits_(journalTraits(kind)), originals_{original, {}}, mirrors_{mirror, {}} {
  size_ = std::min({original->size(), mirror->size(), kMaxJournalBytes});
  size_ -= size_ % traits_.recordSize;
}

JournalCopy JournalCopies::at(uint32_t position) {
  position_ = position;
  first_ = look(&originals_, position);
  second_ = look(&mirrors_, position);
  copy_ = judgeJournalCopies(traits_, position, first_, second_);
  return copy_;
}

const uint8_t* JournalCopies::look(Window* window, uint32_t position) const {
  if (position < window->start || position - window->start >= window->length) {
    load(window, position);
  }
  return window->good ? window->block.data() + (position - window->start) : nullptr;
}

void JournalCopies::load(Window* window, uint32_t position) const {
  if (window->block.empty()) window->block.resize(std::min(kBlockBytes, size_));
  window->start = position;
  if (position >= window->carefulUntil) {
    window->length = std::min(kBlockBytes, size_ - position);
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
