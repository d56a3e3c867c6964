#include "dblog/JournalBytes.h"

#include <cstring>
#include <new>

namespace tarn {

JournalBytes::JournalBytes(const JournalTraits& traits) : traits_(traits) {}
JournalBytes::~JournalBytes() = default;

const JournalBytes::Block* JournalBytes::blockOf(uint32_t position) const {
  return position < kMaxJournalBytes ? blocks_[position / kBlockBytes].get() : nullptr;
}

void JournalBytes::keep(uint32_t position, const uint8_t* record) {
  if (position >= kMaxJournalBytes) return;
  std::unique_ptr<Block>& block = blocks_[position / kBlockBytes];
  if (block == nullptr) block.reset(new (std::nothrow) Block);
  if (block == nullptr) return;
  memcpy(block->bytes + position % kBlockBytes, record, traits_.recordSize);
  block->kept.set(slot(position));
}

void JournalBytes::forget(uint32_t position) {
  if (blockOf(position) != nullptr) blocks_[position / kBlockBytes]->kept.reset(slot(position));
}

const uint8_t* JournalBytes::at(uint32_t position) const {
  const Block* block = blockOf(position);
  const bool kept = block != nullptr && block->kept.test(slot(position));
  return kept ? block->bytes + position % kBlockBytes : nullptr;
}

uint32_t JournalBytes::gapFrom(uint32_t position, uint32_t most) const {
  uint32_t gap = 0;
  while (gap < most && at(position + gap) == nullptr) gap += traits_.recordSize;
  return gap < most ? gap : most;
}

}  // namespace tarn
