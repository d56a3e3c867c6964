#include "fat/PageMemory.h"

#include <pthread.h>

#include <cstdlib>

namespace tarn {
namespace {

constexpr uintptr_t kPage = 4096;

// Large blocks that were released, for who asks for as much next: a mapping from the system and the
// faults of its first use take longer than all else of opening a chunk, and a recorder opens one
// whenever it closes one. Nothing of the pool is destroyed: objects may outlive what is.
constexpr size_t kLeastPooled = 32 * 1024;
constexpr size_t kMostOfASize = 2;

struct Block {
  void* memory;
  size_t bytes;
};
Block g_pool[2 * kMostOfASize] = {};
pthread_mutex_t g_poolLock = PTHREAD_MUTEX_INITIALIZER;

class PoolLock {
 public:
  PoolLock() { pthread_mutex_lock(&g_poolLock); }
  ~PoolLock() { pthread_mutex_unlock(&g_poolLock); }
  PoolLock(const PoolLock&) = delete;
  PoolLock& operator=(const PoolLock&) = delete;
};

// Null when there is none of this size.
void* takePooled(size_t bytes) {
  if (bytes < kLeastPooled) return nullptr;
  const PoolLock lock;
  for (Block& block : g_pool) {
    if (block.memory == nullptr || block.bytes != bytes) continue;
    void* memory = block.memory;
    block = {};
    return memory;
  }
  return nullptr;
}

// False when the pool has enough of this size.
bool givePooled(void* memory, size_t bytes) {
  if (memory == nullptr || bytes < kLeastPooled) return false;
  const PoolLock lock;
  Block* place = nullptr;
  size_t same = 0;
  for (Block& block : g_pool) {
    if (block.memory == nullptr) place = &block;
    if (block.memory != nullptr && block.bytes == bytes) ++same;
  }
  if (place == nullptr || same >= kMostOfASize) return false;
  *place = {memory, bytes};
  return true;
}

}  // namespace

bool PageMemory::allocate(size_t bytes) {
  release();
  memory_ = takePooled(bytes);
  if (memory_ == nullptr) memory_ = malloc(bytes + kPage);
  if (memory_ == nullptr) return false;
  bytes_ = bytes;
  const auto address = reinterpret_cast<uintptr_t>(memory_);
  data_ = static_cast<uint8_t*>(memory_) + (kPage - address % kPage) % kPage;
  return true;
}

void PageMemory::release() {
  if (!givePooled(memory_, bytes_)) free(memory_);
  memory_ = nullptr;
  data_ = nullptr;
  bytes_ = 0;
}

}  // namespace tarn
