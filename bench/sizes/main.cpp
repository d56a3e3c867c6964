// tarn-sizes: opens one stream chunk and one picture chunk for writing, fills both buffers of each,
// and prints what this process and the management server keep in memory, by what it belongs to.
// bench/target-sizes runs it on the emulated board. Links the storage library alone.
//
//   tarn-sizes SERVER_PID   needs a fresh card in place as /dev/sdblk0p1 and its server running
//
// Lines that begin with "BOARD", sizes in KiB:
//   pages self|server WHEN NAME file N own N    NAME's pages that are a file's; that are its own
//   total self|server WHEN rss N pss N own N
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "chunk/CTARNStreamChunk.h"
#include "manager/CTARNStreamManager.h"

namespace {

constexpr size_t kKiB = 1024;
constexpr size_t kStreamBuffer = 1024 * kKiB;
constexpr size_t kPictureBuffer = 32 * kKiB;
constexpr size_t kStreamPiece = 20 * kKiB;
constexpr size_t kPicturePiece = 32;  // an entry
constexpr int kBuffersFilled = 4;     // both, twice
constexpr uint64_t kPagePresent = uint64_t{1} << 63;
constexpr uint64_t kPageOfFile = uint64_t{1} << 61;
constexpr char kStreamBuffers[] = "stream-buffers";
constexpr char kPictureBuffers[] = "picture-buffers";

[[noreturn]] void fail(const char* why) {
  printf("BOARD wrong tarn-sizes: %s\n", why);
  exit(1);
}

// Addresses of which we know what they are; what is in none of them goes by the name of its
// mapping.
struct Range {
  uintptr_t begin = 0, end = 0;
  const char* name = nullptr;
};
struct Ranges {
  Range all[40];
  size_t count = 0;
  void add(uintptr_t begin, size_t size, const char* name) {
    if (count == sizeof all / sizeof all[0]) fail("too many ranges");
    all[count++] = {begin, begin + size, name};
  }
  const char* find(uintptr_t at) const {
    for (size_t i = 0; i < count; ++i) {
      if (at >= all[i].begin && at < all[i].end) return all[i].name;
    }
    return nullptr;
  }
};
Ranges g_ranges;
bool g_watch = false;  // large blocks and threads are a chunk's

const char* baseName(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

// A library's data without initial values has no name of its own in the list of mappings.
int addObject(dl_phdr_info* info, size_t, void*) {
  uintptr_t begin = UINTPTR_MAX, end = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& header = info->dlpi_phdr[i];
    if (header.p_type != PT_LOAD) continue;
    const uintptr_t from = info->dlpi_addr + header.p_vaddr;
    if (from < begin) begin = from;
    if (from + header.p_memsz > end) end = from + header.p_memsz;
  }
  const char* name = info->dlpi_name[0] == '\0' ? "tarn-sizes" : baseName(info->dlpi_name);
  if (end > begin) g_ranges.add(begin, end - begin, name);
  return 0;
}

// What the names take, in pages.
struct Tally {
  struct Entry {
    char name[48] = {};
    size_t file = 0, own = 0;
  };
  Entry all[40];
  size_t count = 0;

  Entry& of(const char* name) {
    for (size_t i = 0; i < count; ++i) {
      if (strcmp(all[i].name, name) == 0) return all[i];
    }
    if (count == sizeof all / sizeof all[0]) fail("too many names");
    snprintf(all[count].name, sizeof all[count].name, "%s", name);
    return all[count++];
  }
};

size_t pageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }
size_t pagesToKiB(size_t pages) { return pages * pageSize() / kKiB; }

// Adds the resident pages of one mapping.
void countPages(int pagemap, uintptr_t begin, uintptr_t end, const char* mapping,
                const Ranges& ranges, Tally* tally) {
  uint64_t words[512];
  for (uintptr_t at = begin; at < end;) {
    size_t pages = (end - at) / pageSize();
    if (pages > sizeof words / sizeof words[0]) pages = sizeof words / sizeof words[0];
    const auto length = static_cast<ssize_t>(pages * sizeof words[0]);
    const auto place = static_cast<off_t>(at / pageSize() * sizeof words[0]);
    if (pread(pagemap, words, static_cast<size_t>(length), place) != length) fail("no pagemap");
    for (size_t i = 0; i < pages; ++i, at += pageSize()) {
      if ((words[i] & kPagePresent) == 0) continue;
      const char* known = ranges.find(at);
      Tally::Entry& entry = tally->of(known != nullptr ? known : mapping);
      ++((words[i] & kPageOfFile) != 0 ? entry.file : entry.own);
    }
  }
}

// Static memory for the files: what is read here shall not count itself.
FILE* openProc(const char* process, const char* file) {
  static char buffer[16 * kKiB];
  char path[64];
  snprintf(path, sizeof path, "/proc/%s/%s", process, file);
  FILE* in = fopen(path, "re");
  if (in == nullptr) fail(path);
  setvbuf(in, buffer, _IOFBF, sizeof buffer);
  return in;
}

// Pages of the kernel's own that it shows to every process.
bool isKernels(const char* mapping) {
  for (const char* name : {"[vectors]", "[vdso]", "[vvar]", "[sigpage]"}) {
    if (strcmp(mapping, name) == 0) return true;
  }
  return false;
}

void countProcess(const char* process, const Ranges& ranges, Tally* tally) {
  char line[512], path[64];
  snprintf(path, sizeof path, "/proc/%s/pagemap", process);
  const int pagemap = open(path, O_RDONLY | O_CLOEXEC);
  if (pagemap == -1) fail(path);
  FILE* maps = openProc(process, "maps");
  while (fgets(line, sizeof line, maps) != nullptr) {
    uintptr_t begin = 0, end = 0;
    int name = 0;
    if (sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %*s %*s %*s %*s %n", &begin, &end, &name) != 2)
      fail("a mapping that cannot be read");
    line[strcspn(line, "\n")] = '\0';
    const char* mapping = line[name] == '\0' ? "anonymous" : baseName(line + name);
    if (isKernels(mapping)) continue;
    countPages(pagemap, begin, end, mapping, ranges, tally);
  }
  fclose(maps);
  close(pagemap);
}

void printTotal(const char* who, const char* process, const char* when) {
  unsigned long rss = 0, pss = 0, own = 0;
  char line[256];
  FILE* in = openProc(process, "smaps_rollup");
  while (fgets(line, sizeof line, in) != nullptr) {
    sscanf(line, "Rss: %lu", &rss);
    sscanf(line, "Pss: %lu", &pss);
    sscanf(line, "Anonymous: %lu", &own);
  }
  fclose(in);
  if (rss == 0 || pss == 0) fail("no totals");
  printf("BOARD total %s %s rss %lu pss %lu own %lu\n", who, when, rss, pss, own);
}

void report(const char* who, const char* process, const char* when, const Ranges& ranges) {
  Tally tally;
  countProcess(process, ranges, &tally);
  for (size_t i = 0; i < tally.count; ++i) {
    const Tally::Entry& entry = tally.all[i];
    printf("BOARD pages %s %s %s file %zu own %zu\n", who, when, entry.name, pagesToKiB(entry.file),
           pagesToKiB(entry.own));
  }
  printTotal(who, process, when);
}

void reportBoth(const char* server, const char* when) {
  report("self", "self", when, g_ranges);
  report("server", server, when, Ranges());
}

void writeThrough(CTARNStreamChunk* chunk, size_t piece, size_t bytes) {
  static uint8_t data[kStreamPiece];
  memset(data, 0x5A, sizeof data);
  if (bytes >= chunk->getChunkSize()) fail("the card's chunks are too small");
  for (size_t done = 0; done + piece <= bytes; done += piece) {
    if (chunk->write(data, static_cast<long>(piece)) != static_cast<long>(piece))
      fail("a write failed");
  }
}

// The figures are worth nothing unless all four buffers are really there.
void checkBuffers() {
  Tally tally;
  countProcess("self", g_ranges, &tally);
  if (pagesToKiB(tally.of(kStreamBuffers).own) * kKiB < 2 * kStreamBuffer ||
      pagesToKiB(tally.of(kPictureBuffers).own) * kKiB < 2 * kPictureBuffer) {
    fail("the buffers are not in memory");
  }
}

}  // namespace

// The library's own calls come here, because a program's symbols go before those of its libraries.

extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
  void* block = __libc_malloc(size);
  if (g_watch && block != nullptr && size >= kPictureBuffer) {
    g_ranges.add(reinterpret_cast<uintptr_t>(block), size,
                 size >= kStreamBuffer ? kStreamBuffers : kPictureBuffers);
  }
  return block;
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*entry)(void*),
                              void* argument) {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  const int result = real(thread, how, entry, argument);
  pthread_attr_t attributes;
  if (!g_watch || result != 0 || pthread_getattr_np(*thread, &attributes) != 0) return result;
  void* stack = nullptr;
  size_t size = 0;
  pthread_attr_getstack(&attributes, &stack, &size);
  pthread_attr_destroy(&attributes);
  g_ranges.add(reinterpret_cast<uintptr_t>(stack), size, "write-threads");
  return result;
}

int main(int argc, char** argv) {
  static char output[8 * kKiB];
  setvbuf(stdout, output, _IOLBF, sizeof output);
  if (argc != 2 || atoi(argv[1]) <= 0) {
    fprintf(stderr, "usage: tarn-sizes SERVER_PID\n");
    return 2;
  }
  dl_iterate_phdr(addObject, nullptr);
  Tally unused;  // the code of the measuring itself is in memory from here on
  countProcess("self", g_ranges, &unused);
  reportBoth(argv[1], "started");

  g_watch = true;
  CTARNStreamManager manager(tarn::kRecorderPartition);
  if (manager.openManageData() != 0) fail("no management data");
  CTARNStreamChunk stream(1), picture(0);
  if (stream.openChunkFile(&manager, 0) != 0 || picture.openChunkFile(&manager, 0) != 0)
    fail("cannot open the chunks");
  reportBoth(argv[1], "opened");

  writeThrough(&stream, kStreamPiece, kBuffersFilled * kStreamBuffer);
  writeThrough(&picture, kPicturePiece, kBuffersFilled * kPictureBuffer);
  checkBuffers();
  reportBoth(argv[1], "written");
  printf("BOARD object %zu\n", sizeof(CTARNStreamChunk));
  if (stream.closeChunkFile() != 0 || picture.closeChunkFile() != 0) fail("cannot close");
  manager.closeManageData();
  return 0;
}
