// The memory of SQLite, past the sanitizer: nobody watches what that library does with it, and most
// of a start's time went into it. What it does not give back is seen by FuzzCard::restore().
#include <sqlite3.h>

#include <cstdlib>
#include <cstring>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_realloc(void* memory, size_t size);
void __libc_free(void* memory);
}

namespace {

constexpr size_t kHead = 16;  // holds the size, and keeps what follows aligned

void* withSize(void* block, int size) {
  if (block == nullptr) return nullptr;
  memcpy(block, &size, sizeof size);
  return static_cast<char*>(block) + kHead;
}
void* blockOf(void* memory) { return static_cast<char*>(memory) - kHead; }
void* take(int size) { return withSize(__libc_malloc(static_cast<size_t>(size) + kHead), size); }
void give(void* memory) { __libc_free(blockOf(memory)); }
void* change(void* memory, int size) {
  return withSize(__libc_realloc(blockOf(memory), static_cast<size_t>(size) + kHead), size);
}
int sizeOf(void* memory) {
  int size = 0;
  if (memory != nullptr) memcpy(&size, blockOf(memory), sizeof size);
  return size;
}
int roundUp(int size) { return (size + 7) & ~7; }
int begin(void*) { return SQLITE_OK; }
void end(void*) {}

const bool g_taken = [] {
  static const sqlite3_mem_methods kMethods = {take,    give,  change, sizeOf,
                                               roundUp, begin, end,    nullptr};
  if (sqlite3_config(SQLITE_CONFIG_MALLOC, &kMethods) != SQLITE_OK) abort();
  return true;
}();

}  // namespace

#endif
#endif
