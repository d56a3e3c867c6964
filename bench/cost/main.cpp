// tarn-cost: records for a minute of picture time onto a card and prints what that cost in
// processor time and memory, a line a figure: "name value". A program of its own, without the
// benchmark library, so that it also runs as a 32-bit ARM program in an emulator.
//
//   tarn-cost      needs a fresh card in place as /dev/sdblk0p1 and dbsetup at its fixed path
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "chunk/CTARNEndlessChunk.h"
#include "chunk/CTARNStreamChunk.h"
#include "dblog/CDbLog.h"
#include "manager/CTARNStreamManager.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/server/ManagementServer.h"
#include "recorder/session/RecordingSession.h"

namespace {

constexpr uint64_t kMiB = 1024 * 1024;
constexpr char kCard[] = "/dev/sdblk0p1";
constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kPicturesPerSecond = 30;
constexpr uint32_t kPictures = 60 * kPicturesPerSecond;
constexpr size_t kPictureBytes = 20 * 1024;

[[noreturn]] void fail(const char* why) {
  fprintf(stderr, "tarn-cost: %s\n", why);
  exit(1);
}

double seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}
double cpu() { return seconds(CLOCK_PROCESS_CPUTIME_ID); }

// On a line of its own: the library may have printed half a one.
void print(const char* name, double value) { printf("\n%s %.3f\n", name, value); }

double heapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

// Kilobytes of memory that the process occupies.
double residentKiB() {
  long pages = 0, resident = 0;
  FILE* file = fopen("/proc/self/statm", "r");
  if (file == nullptr || fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
  if (file != nullptr) fclose(file);
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

void formatCard() {
  tarn::CardRequest request;
  request.sizeBytes = 512 * kMiB;
  tarn::FormatOptions options;
  options.force = true;
  std::string error;
  if (tarn::CardFormatter().format(kCard, request, options, &error) != 0) fail(error.c_str());
}

// What one open chunk of a kind takes: object and heap, and what it occupies once it was used.
void printChunk(const char* name, CTARNStreamManager* manager, unsigned char kind, size_t used) {
  std::vector<uint8_t> data(16 * 1024, 0x5A);
  const double heap = heapBytes();
  const double resident = residentKiB();
  CTARNStreamChunk chunk(kind);
  if (chunk.openChunkFile(manager, 0) != 0) fail("cannot open a chunk");
  char figure[64];
  snprintf(figure, sizeof figure, "%s_heap_KiB", name);
  print(figure, (heapBytes() - heap) / 1024);
  for (size_t done = 0; done < used; done += data.size()) {
    chunk.write(data.data(), static_cast<long>(data.size()));
  }
  chunk.flush();
  snprintf(figure, sizeof figure, "%s_resident_KiB", name);
  print(figure, residentKiB() - resident);
}

void printMemory() {
  print("object_bytes", sizeof(CTARNStreamChunk));
  CTARNStreamManager manager(tarn::kRecorderPartition);
  if (manager.openManageData() != 0) fail("no management data");
  printChunk("picture_chunk", &manager, 0, 96 * 1024);
  printChunk("stream_chunk", &manager, 1, 3 * kMiB);
  manager.closeManageData();
}

// A writing call and no more: what the same bytes cost in bare writes of 1 MiB, each flushed.
void printBare() {
  const int fd = open("/tmp/bare.img", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const size_t total = kPictures * kPictureBytes / kMiB * kMiB;
  const std::vector<uint8_t> data(kMiB, 0x5A);
  const double before = cpu();
  for (size_t done = 0; done < total; done += kMiB) {
    if (pwrite(fd, data.data(), kMiB, static_cast<off_t>(done)) != static_cast<ssize_t>(kMiB) ||
        fsync(fd) != 0) {
      fail("the bare write failed");
    }
  }
  print("bare_us_per_MiB", (cpu() - before) * 1e6 / (static_cast<double>(total) / kMiB));
  close(fd);
  unlink("/tmp/bare.img");
}

double recorded() { return static_cast<double>(kPictures * kPictureBytes) / kMiB; }

// Stream data alone, in pieces of a picture.
void printStream() {
  CTARNStreamManager manager(tarn::kRecorderPartition);
  CTARNStreamChunk chunk(1);
  if (manager.openManageData() != 0 || chunk.openChunkFile(&manager, 0) != 0) {
    fail("cannot open a chunk");
  }
  std::vector<uint8_t> data(kPictureBytes, 0x5A);
  const double before = cpu();
  size_t written = 0;
  while (written + kPictureBytes < chunk.getChunkSize() && written < 16 * kMiB) {
    if (chunk.write(data.data(), static_cast<long>(data.size())) < 0) fail("a write failed");
    written += kPictureBytes;
  }
  chunk.flush();
  print("stream_us_per_MiB", (cpu() - before) * 1e6 / (static_cast<double>(written) / kMiB));
  chunk.setFreeAddr(0);
  chunk.closeChunkFile();
  manager.closeManageData();
}

void printRecording() {
  tarn::RecordingSession session;
  tarn::RecordingOptions options;
  if (session.open(options) != 0) fail(session.errorText());
  std::vector<uint8_t> picture(kPictureBytes, 0x5A);
  const uint8_t head[] = {0, 0, 0, 1, 0x65};
  memcpy(picture.data(), head, sizeof head);
  const double before = cpu();
  for (uint32_t i = 0; i < kPictures; ++i) {
    picture[4] = i % kPicturesPerSecond == 0 ? 0x65 : 0x41;
    const auto time = tarn::PictureTime::fromMicros(int64_t{kStart} * 1000000 +
                                                    int64_t{i} * (1000000 / kPicturesPerSecond));
    if (session.writePicture(picture.data(), picture.size(), time, 0,
                             i % kPicturesPerSecond == 0) != 0) {
      fail(session.errorText());
    }
  }
  if (session.close() != 0) fail(session.errorText());
  print("recording_us_per_MiB", (cpu() - before) * 1e6 / recorded());
}

}  // namespace

int main() {
  std::string error;
  formatCard();
  if (!tarn::DatabaseSetup::createEmpty(tarn::DatabaseSetup::defaultPath(), &error)) {
    fail(error.c_str());
  }
  tarn::ManagementServer server;
  if (server.start() != 0) fail("the management server does not start");
  std::thread serving([&server] { server.run(); });
  printMemory();
  printBare();
  printStream();
  printRecording();
  CDbLog::getInstance()->finish();
  server.requestStop();
  serving.join();
  print("word_bits", 8 * sizeof(void*));
  return 0;
}
