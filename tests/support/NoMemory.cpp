// Preloaded into a program: its allocation number TARN_NO_MEMORY_FROM, counted from 1, and all
// after it fail, in whatever thread they are made. What programs allocate for themselves, that is:
// what the C library needs stays, and so do the libraries' own beginnings before the program.
#include <dlfcn.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

using Main = int(int, char**, char**);
using Start = int(Main*, int, char**, void (*)(), void (*)(), void (*)(), void*);

unsigned long first = 0;  // 0: none fails
std::atomic<unsigned long> number{0};

void* allocate(size_t size) {
  return first != 0 && ++number >= first ? nullptr : malloc(size == 0 ? 1 : size);
}

void* allocateOrThrow(size_t size) {
  void* memory = allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

// Where the program begins, the making of its own global objects included.
extern "C" [[gnu::visibility("default")]] int __libc_start_main(Main* main, int argc, char** argv,
                                                                void (*init)(), void (*fini)(),
                                                                void (*loader)(), void* stackEnd) {
  const char* text = getenv("TARN_NO_MEMORY_FROM");
  if (text != nullptr) first = strtoul(text, nullptr, 10);
  const auto start = reinterpret_cast<Start*>(dlsym(RTLD_NEXT, "__libc_start_main"));
  return start(main, argc, argv, init, fini, loader, stackEnd);
}

void* operator new(size_t size) { return allocateOrThrow(size); }
void* operator new[](size_t size) { return allocateOrThrow(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { free(memory); }
void operator delete[](void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
void operator delete[](void* memory, size_t) noexcept { free(memory); }
