// The allocation half of IoFaults.h.
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "support/IoFaults.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARN_TEST_SANITIZER_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARN_TEST_SANITIZER_ALLOCATOR 1
#endif
#endif

namespace tarn_test {
namespace {

// Plain thread-local data without constructors: these are read inside malloc.
thread_local size_t t_allocations = 0;
thread_local int t_counting = 0;
thread_local size_t t_faultBytes = 0;  // 0: no fault ordered
thread_local int t_faultLeft = 0;
std::atomic<size_t> g_allocations{0};
std::atomic<int> g_counting{0};

void countOne() {
  if (t_counting > 0) ++t_allocations;
  if (g_counting.load(std::memory_order_relaxed) > 0) ++g_allocations;
}

}  // namespace
}  // namespace tarn_test

#ifdef TARN_TEST_SANITIZER_ALLOCATOR

extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, size_t),
                                                         void (*)(const volatile void*));

namespace tarn_test {
namespace {

void onMalloc(const volatile void*, size_t) { countOne(); }
void onFree(const volatile void*) {}

void install() {
  static const int installed = __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree);
  if (installed == 0) abort();
}

}  // namespace

bool AllocationFault::supported() { return false; }

}  // namespace tarn_test

#else

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);

namespace tarn_test {
namespace {

void install() {}

bool refused(size_t size) {
  countOne();
  if (t_faultBytes == 0 || size < t_faultBytes) return false;
  if (t_faultLeft > 1) {
    --t_faultLeft;
    return false;
  }
  return true;
}

}  // namespace

bool AllocationFault::supported() { return true; }

}  // namespace tarn_test

extern "C" void* malloc(size_t size) {
  if (tarn_test::refused(size)) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) {
  if (tarn_test::refused(count * size)) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_calloc(count, size);
}

#endif

namespace tarn_test {

AllocationCount::AllocationCount(Of of) : of_(of) {
  install();
  if (of_ == Of::AllThreads) {
    g_allocations = 0;
    ++g_counting;
  } else {
    t_allocations = 0;
    ++t_counting;
  }
}

AllocationCount::~AllocationCount() {
  of_ == Of::AllThreads ? void(--g_counting) : void(--t_counting);
}

size_t AllocationCount::count() const {
  return of_ == Of::AllThreads ? g_allocations.load() : t_allocations;
}

AllocationFault::AllocationFault(size_t minBytes, int n) {
  t_faultBytes = minBytes;
  t_faultLeft = n;
}

AllocationFault::~AllocationFault() { t_faultBytes = 0; }

}  // namespace tarn_test
