#include "powercut/CardTrace.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "dblog/CDbRestore.h"
#include "powercut/NextCall.h"

using namespace powercut;

namespace powercut {
namespace {

constexpr int kDescriptors = 4096;
std::atomic<bool> g_isCard[kDescriptors];
// Where each of them reads and writes next. The card is in memory: nothing of it takes a call of
// the system, which most of a state's time would go into.
std::atomic<int64_t> g_position[kDescriptors];

// One order for all writes, flushes and marks of all threads.
std::mutex& orderMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

std::atomic<int> g_deletesToRefusal{0};
bool g_loseRow = false;
bool g_rowLost = false;

bool g_keepLog = false;
std::string g_log;
std::mutex g_logMutex;

bool isCard(int fd) { return fd >= 0 && fd < kDescriptors && g_isCard[fd].load(); }
void setCard(int fd, bool card) {
  if (fd < 0 || fd >= kDescriptors) return;
  g_isCard[fd] = card;
  g_position[fd] = 0;
}

}  // namespace

uint64_t mix(uint64_t value) {
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
  return value ^ (value >> 31);
}

uint64_t sectorHash(uint64_t sector, const uint8_t* bytes) {
  uint64_t hash = mix(sector + 1);
  for (uint32_t i = 0; i < kSector; i += 8) {
    uint64_t word;
    memcpy(&word, bytes + i, sizeof word);
    hash = mix(hash ^ word) + i;
  }
  return hash;
}

Card& Card::get() {
  static auto* card = new Card;
  return *card;
}

void Card::create(uint64_t size) {
  const int fd = ::open(kCardPath, O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) throw std::runtime_error("no card");
  if (map_ != nullptr) munmap(map_, size_);
  void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (map == MAP_FAILED) throw std::runtime_error("card cannot be mapped");
  map_ = static_cast<uint8_t*>(map);
  size_ = size;
  undo_.clear();
}

void Card::load(const std::vector<uint8_t>& bytes) {
  settle();
  for (uint64_t at = 0; at < size_; at += kPage) {
    const size_t length = std::min<uint64_t>(kPage, size_ - at);
    if (memcmp(map_ + at, bytes.data() + at, length) != 0)
      memcpy(map_ + at, bytes.data() + at, length);
  }
}

void Card::aboutToWrite(uint64_t offset, size_t length) {
  if (length == 0) return;
  const uint64_t last = std::min(offset + length, size_) - 1;
  for (uint64_t sector = offset / kSector; sector <= last / kSector; ++sector) {
    undo_.emplace_back();
    undo_.back().sector = sector;
    memcpy(undo_.back().bytes, map_ + sector * kSector, kSector);
  }
}

void Card::put(uint64_t offset, const void* bytes, size_t length) {
  aboutToWrite(offset, length);
  memcpy(map_ + offset, bytes, length);
}

void Card::rollBack(size_t moment) {
  while (undo_.size() > moment) {
    memcpy(map_ + undo_.back().sector * kSector, undo_.back().bytes, kSector);
    undo_.pop_back();
  }
}

void Card::settle() { undo_.clear(); }

std::vector<uint64_t> Card::changedSince(size_t moment) const {
  std::unordered_map<uint64_t, const uint8_t*> before;
  for (size_t i = moment; i < undo_.size(); ++i) before.emplace(undo_[i].sector, undo_[i].bytes);
  std::vector<uint64_t> changed;
  for (const auto& [sector, bytes] : before) {
    if (memcmp(map_ + sector * kSector, bytes, kSector) != 0) changed.push_back(sector);
  }
  std::sort(changed.begin(), changed.end());
  return changed;
}

uint64_t Card::changesHash() const {
  std::unordered_map<uint64_t, const uint8_t*> before;
  for (const Saved& saved : undo_) before.emplace(saved.sector, saved.bytes);
  uint64_t hash = 0;
  for (const auto& [sector, bytes] : before) {
    const uint8_t* now = map_ + sector * kSector;
    if (memcmp(now, bytes, kSector) != 0)
      hash ^= sectorHash(sector, bytes) ^ sectorHash(sector, now);
  }
  return hash;
}

void Card::written(uint64_t offset, const void* bytes, size_t length) {
  bool inside = extents_.empty();
  for (const auto& [from, to] : extents_)
    inside = inside || (offset >= from && offset + length <= to);
  unflushed_ = true;
  if (!inside && stray_.empty()) {
    stray_ = std::to_string(length) + " bytes at " + std::to_string(offset);
  }
  if (trace_ == nullptr) return;
  const auto* data = static_cast<const uint8_t*>(bytes);
  trace_->ops.push_back({false, offset, {data, data + length}});
}

void Card::flushed() {
  unflushed_ = false;
  if (trace_ == nullptr) return;
  trace_->ops.push_back({true, 0, {}});
}

void Card::refuse(const ReadFault* fault) {
  fault_ = fault;
  readNumber_ = 0;
  if (fault != nullptr) refusals_ = 0;
}

ssize_t Card::aboutToRead(uint64_t offset, size_t length) {
  if (reads_ != nullptr && length > 0) reads_->push_back({offset, length});
  if (fault_ == nullptr || length == 0) return static_cast<ssize_t>(length);
  const size_t number = readNumber_++;
  auto given = static_cast<ssize_t>(length);
  if (fault_->kind == ReadFault::kSector) {
    const uint64_t bad = fault_->sector * kSector;
    if (offset < bad + kSector && offset + length > bad)
      given = offset >= bad ? -1 : static_cast<ssize_t>(bad - offset);
  } else if (fault_->kind == ReadFault::kShort) {
    if (number == fault_->read) given = static_cast<ssize_t>(length / 2);
  } else if (number >= fault_->read && fault_->kind != ReadFault::kZeros) {
    const size_t more = number - fault_->read;
    const size_t most = fault_->kind == ReadFault::kFails ? 1 : ReadFault::kBurstReads;
    if (fault_->kind == ReadFault::kGone || more < most) given = -1;
  }
  if (given != static_cast<ssize_t>(length)) ++refusals_;
  return given;
}

std::string Card::takeStray() { return std::exchange(stray_, std::string()); }

void refuseDelete(int nth) { g_deletesToRefusal = nth; }

bool loseReplayedRow(bool lose) {
  g_loseRow = lose;
  return std::exchange(g_rowLost, false);
}

void keepLog(bool keep) { g_keepLog = keep; }
std::string takeLog() {
  std::lock_guard<std::mutex> lock(g_logMutex);
  return std::exchange(g_log, std::string());
}

namespace {

int opened(int fd, const char* path) {
  setCard(fd, fd >= 0 && path != nullptr && strcmp(path, kCardPath) == 0);
  return fd;
}

int flushCard() {
  std::lock_guard<std::mutex> lock(orderMutex());
  Card::get().flushed();
  return 0;
}

ssize_t writeCard(uint64_t offset, const void* bytes, size_t length) {
  Card& card = Card::get();
  if (offset >= card.size()) {
    errno = ENOSPC;
    return length == 0 ? 0 : -1;
  }
  length = static_cast<size_t>(std::min<uint64_t>(length, card.size() - offset));
  card.put(offset, bytes, length);
  if (length > 0) card.written(offset, bytes, length);
  return static_cast<ssize_t>(length);
}

ssize_t readCard(uint64_t offset, void* bytes, size_t length) {
  Card& card = Card::get();
  const ssize_t given = card.aboutToRead(offset, length);
  if (given < 0) {
    errno = EIO;
    return -1;
  }
  if (offset >= card.size()) return 0;
  const uint64_t there = std::min<uint64_t>(static_cast<uint64_t>(given), card.size() - offset);
  memcpy(bytes, card.bytes() + offset, static_cast<size_t>(there));
  return static_cast<ssize_t>(there);
}

int64_t seekCard(int fd, int64_t offset, int whence) {
  const int64_t from = whence == SEEK_CUR   ? g_position[fd].load()
                       : whence == SEEK_END ? static_cast<int64_t>(Card::get().size())
                                            : 0;
  if (from + offset >= 0) return g_position[fd] = from + offset;
  errno = EINVAL;
  return -1;
}

void note(const char* format, va_list args) {
  if (!g_keepLog) return;
  char line[512];
  vsnprintf(line, sizeof line, format, args);
  std::lock_guard<std::mutex> lock(g_logMutex);
  g_log += "    log: ";
  g_log += line;
  g_log += '\n';
}

mode_t modeOf(int flags, va_list args) { return (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0; }

// Puts a mark around one operation of the journal.
template <typename Do>
bool marked(RowMark mark, Do&& perform) {
  size_t place = SIZE_MAX;
  {
    std::lock_guard<std::mutex> lock(orderMutex());
    Trace* trace = Card::get().trace();
    if (trace != nullptr) {
      mark.begin = trace->ops.size();
      place = trace->rows.size();
      trace->rows.push_back(mark);
    }
  }
  const bool done = perform();
  std::lock_guard<std::mutex> lock(orderMutex());
  Trace* trace = Card::get().trace();
  if (trace != nullptr && place < trace->rows.size() && done) {
    trace->rows[place].end = trace->ops.size();
  }
  return done;
}

// The row as it was before, from the marks.
template <typename Row>
Row rowBefore(RowMark::Kind kind, uint32_t key, Row RowMark::*member) {
  std::lock_guard<std::mutex> lock(orderMutex());
  const Trace* trace = Card::get().trace();
  if (trace == nullptr) return {};
  for (size_t i = trace->rows.size(); i-- > 0;) {
    if (trace->rows[i].kind == kind && trace->rows[i].key == key) return trace->rows[i].*member;
  }
  return {};
}

DB_STREAM merged(DB_STREAM row, DB_STREAM_REG_BIT mask, const DB_STREAM& from) {
  if (mask & kStreamRegInTrg) row.inTrg = from.inTrg;
  if (mask & kStreamRegFrameSet) row.frameSet = from.frameSet;
  if (mask & kStreamRegBitrateSet) row.bitrateSet = from.bitrateSet;
  if (mask & kStreamRegRecSize) row.recSize = from.recSize;
  if (mask & kStreamRegChunkID) row.chunkID = from.chunkID;
  if (mask & kStreamRegChunkOffset) row.chunkOffset = from.chunkOffset;
  if (mask & kStreamRegChunkSize) row.chunkSize = from.chunkSize;
  if (mask & kStreamRegStatus) row.status = from.status;
  if (mask & kStreamRegStartDate) row.startDate = from.startDate;
  if (mask & kStreamRegEndDate) row.endDate = from.endDate;
  if (mask & kStreamRegStartMSec) row.startMSec = from.startMSec;
  if (mask & kStreamRegEndMSec) row.endMSec = from.endMSec;
  return row;
}

// preSec keeps the value of the insert.
DB_EVENT merged(DB_EVENT row, DB_EVENT_REG_BIT mask, const DB_EVENT& from) {
  if (mask & kEventRegExtTrg) row.extTrg = from.extTrg;
  if (mask & kEventRegStartDate) row.startDate = from.startDate;
  if (mask & kEventRegEndDate) row.endDate = from.endDate;
  if (mask & kEventRegStartMSec) row.startMSec = from.startMSec;
  if (mask & kEventRegEndMSec) row.endMSec = from.endMSec;
  return row;
}

}  // namespace
}  // namespace powercut

extern "C" {

int powercut_open(const char* path, int flags, ...) __asm__("open");
int powercut_open64(const char* path, int flags, ...) __asm__("open64");
ssize_t powercut_pwrite64(int fd, const void* buf, size_t n, off64_t at) __asm__("pwrite64");
ssize_t powercut_pread64(int fd, void* buf, size_t n, off64_t at) __asm__("pread64");
int powercut_fallocate64(int fd, int mode, off64_t at, off64_t n) __asm__("fallocate64");
off64_t powercut_lseek64(int fd, off64_t at, int whence) __asm__("lseek64");

int powercut_open(const char* path, int flags, ...) {
  static const auto real = next<int (*)(const char*, int, ...)>("open");
  va_list args;
  va_start(args, flags);
  const mode_t mode = modeOf(flags, args);
  va_end(args);
  return opened(real(path, flags, mode), path);
}

int powercut_open64(const char* path, int flags, ...) {
  static const auto real = next<int (*)(const char*, int, ...)>("open64");
  va_list args;
  va_start(args, flags);
  const mode_t mode = modeOf(flags, args);
  va_end(args);
  return opened(real(path, flags, mode), path);
}

int close(int fd) {
  static const auto real = next<int (*)(int)>("close");
  setCard(fd, false);
  return real(fd);
}

ssize_t write(int fd, const void* buf, size_t length) {
  static const auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
  if (!isCard(fd)) return real(fd, buf, length);
  std::lock_guard<std::mutex> lock(orderMutex());
  const ssize_t done = writeCard(static_cast<uint64_t>(g_position[fd].load()), buf, length);
  if (done > 0) g_position[fd] += done;
  return done;
}

ssize_t powercut_pwrite64(int fd, const void* buf, size_t length, off64_t at) {
  static const auto real = next<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
  if (!isCard(fd)) return real(fd, buf, length, at);
  std::lock_guard<std::mutex> lock(orderMutex());
  return writeCard(static_cast<uint64_t>(at), buf, length);
}

ssize_t read(int fd, void* buf, size_t length) {
  static const auto real = next<ssize_t (*)(int, void*, size_t)>("read");
  if (!isCard(fd)) return real(fd, buf, length);
  std::lock_guard<std::mutex> lock(orderMutex());
  const ssize_t done = readCard(static_cast<uint64_t>(g_position[fd].load()), buf, length);
  if (done > 0) g_position[fd] += done;
  return done;
}

ssize_t powercut_pread64(int fd, void* buf, size_t length, off64_t at) {
  static const auto real = next<ssize_t (*)(int, void*, size_t, off64_t)>("pread64");
  if (!isCard(fd)) return real(fd, buf, length, at);
  std::lock_guard<std::mutex> lock(orderMutex());
  return readCard(static_cast<uint64_t>(at), buf, length);
}

off64_t powercut_lseek64(int fd, off64_t at, int whence) {
  static const auto real = next<off64_t (*)(int, off64_t, int)>("lseek64");
  return isCard(fd) ? seekCard(fd, at, whence) : real(fd, at, whence);
}

#if __SIZEOF_LONG__ == 8
off_t powercut_lseek(int fd, off_t at, int whence) __asm__("lseek");
off_t powercut_lseek(int fd, off_t at, int whence) { return powercut_lseek64(fd, at, whence); }
ssize_t powercut_pread(int fd, void* buf, size_t n, off_t at) __asm__("pread");
ssize_t powercut_pread(int fd, void* buf, size_t n, off_t at) {
  return powercut_pread64(fd, buf, n, at);
}
ssize_t powercut_pwrite(int fd, const void* buf, size_t n, off_t at) __asm__("pwrite");
ssize_t powercut_pwrite(int fd, const void* buf, size_t n, off_t at) {
  return powercut_pwrite64(fd, buf, n, at);
}
int powercut_fallocate(int fd, int mode, off_t at, off_t n) __asm__("fallocate");
int powercut_fallocate(int fd, int mode, off_t at, off_t n) {
  return powercut_fallocate64(fd, mode, at, n);
}
#endif

// A card that cannot be cleared by the system: everything goes through writes.
int powercut_fallocate64(int fd, int mode, off64_t at, off64_t n) {
  static const auto real = next<int (*)(int, int, off64_t, off64_t)>("fallocate64");
  if (!isCard(fd)) return real(fd, mode, at, n);
  errno = EOPNOTSUPP;
  return -1;
}

int fsync(int fd) {
  static const auto real = next<int (*)(int)>("fsync");
  return isCard(fd) ? flushCard() : real(fd);
}

int fdatasync(int fd) {
  static const auto real = next<int (*)(int)>("fdatasync");
  return isCard(fd) ? flushCard() : real(fd);
}

void syslog(int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  note(format, args);
  va_end(args);
}
void vsyslog(int, const char* format, va_list args) { note(format, args); }
void __syslog_chk(int, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  note(format, args);
  va_end(args);
}
void __vsyslog_chk(int, int, const char* format, va_list args) { note(format, args); }

// The same times and numbers on the card in every run, so that a state keeps its number.
ssize_t getrandom(void* buf, size_t length, unsigned) {
  memset(buf, 0x5A, length);
  return static_cast<ssize_t>(length);
}
time_t time(time_t* out) {
  constexpr time_t kNow = 1700000000;
  if (out != nullptr) *out = kNow;
  return kNow;
}

}  // extern "C"

bool CDbLog::insertStream(const DB_STREAM* record) {
  static const auto real =
      next<bool (*)(CDbLog*, const DB_STREAM*)>("_ZN6CDbLog12insertStreamEPK9DB_STREAM");
  RowMark mark{RowMark::kStreamPut, record->streamID};
  mark.stream = *record;
  return marked(mark, [&] { return real(this, record); });
}

bool CDbLog::updateStream(DB_STREAM_REG_BIT mask, const DB_STREAM* record) {
  static const auto real = next<bool (*)(CDbLog*, DB_STREAM_REG_BIT, const DB_STREAM*)>(
      "_ZN6CDbLog12updateStreamEjPK9DB_STREAM");
  RowMark mark{RowMark::kStreamPut, record->streamID};
  mark.stream =
      merged(rowBefore(RowMark::kStreamPut, record->streamID, &RowMark::stream), mask, *record);
  return marked(mark, [&] { return real(this, mask, record); });
}

bool CDbLog::deleteStream(unsigned long key) {
  static const auto real = next<bool (*)(CDbLog*, unsigned long)>("_ZN6CDbLog12deleteStreamEm");
  if (g_deletesToRefusal > 0 && --g_deletesToRefusal == 0) return false;
  return marked({RowMark::kStreamDelete, static_cast<uint32_t>(key)},
                [&] { return real(this, key); });
}

bool CDbLog::insertEvent(const DB_EVENT* record) {
  static const auto real =
      next<bool (*)(CDbLog*, const DB_EVENT*)>("_ZN6CDbLog11insertEventEPK8DB_EVENT");
  RowMark mark{RowMark::kEventPut, record->eventID};
  mark.event = *record;
  return marked(mark, [&] { return real(this, record); });
}

bool CDbLog::updateEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* record) {
  static const auto real = next<bool (*)(CDbLog*, DB_EVENT_REG_BIT, const DB_EVENT*)>(
      "_ZN6CDbLog11updateEventEjPK8DB_EVENT");
  RowMark mark{RowMark::kEventPut, record->eventID};
  mark.event =
      merged(rowBefore(RowMark::kEventPut, record->eventID, &RowMark::event), mask, *record);
  return marked(mark, [&] { return real(this, mask, record); });
}

bool CDbLog::deleteEvent(unsigned long key) {
  static const auto real = next<bool (*)(CDbLog*, unsigned long)>("_ZN6CDbLog11deleteEventEm");
  return marked({RowMark::kEventDelete, static_cast<uint32_t>(key)},
                [&] { return real(this, key); });
}

int CDbRestore::restoreStreamDb(short chunk, const tarn::JournalBytes* before) {
  static const auto real = next<int (*)(CDbRestore*, short, const tarn::JournalBytes*)>(
      "_ZN10CDbRestore15restoreStreamDbEsPKN4tarn12JournalBytesE");
  const int result = real(this, chunk, before);
  CApiDb db;
  if (!g_loseRow || db.setSql("SELECT streamID FROM STREAM LIMIT 1") != 0 || db.getNTuple() == 0)
    return result;
  db.setSqlNoResult("DELETE FROM STREAM WHERE streamID = (SELECT MIN(streamID) FROM STREAM)");
  g_rowLost = true;
  return result;
}
