#pragma once

#include <cxxabi.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <typeinfo>

// For the mains of programs: one that gets no memory ends with one line and exit code 1, not with a
// core. What it had on the card stays; the next start deals with it as with a power loss.
namespace tarn {

// Needs no memory itself.
inline void complainOutOfMemory(const char* program) {
  fprintf(stderr, "%s: out of memory\n", program);
}

// Runs what a main has to do. Unwinds first: a program must not die with the database locked.
template <typename Work>
int endingWhenOutOfMemory(const char* program, Work work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    complainOutOfMemory(program);
    return EXIT_FAILURE;
  }
}

// For where no main can catch: before it begins, and in threads. `program` is kept, not copied.
inline void endThreadsWhenOutOfMemory(const char* program) {
  static const char* name;
  name = program;
  std::set_terminate([] {
    const std::type_info* type = abi::__cxa_current_exception_type();
    if (type == nullptr ||
        (*type != typeid(std::bad_alloc) && *type != typeid(std::bad_array_new_length))) {
      abort();
    }
    complainOutOfMemory(name);
    _exit(EXIT_FAILURE);
  });
}

}  // namespace tarn

// Once in a program, before all other objects of it are made.
#define TARN_ENDS_WHEN_OUT_OF_MEMORY(program) \
  [[gnu::constructor(101)]] static void tarnEnds() { tarn::endThreadsWhenOutOfMemory(program); }
