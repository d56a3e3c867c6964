#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarn_test {

// The system calls that tests can see and spoil. Read and Pread (Write and Pwrite) are told apart;
// open() and open64() are one, as are lseek() and lseek64(), fsync() and fdatasync().
// ThreadCreate (pthread_create) has no path: only a stand-in for "" sees it.
enum class Call { Open, Close, Read, Pread, Write, Pwrite, Lseek, Fsync, ThreadCreate };

struct IoRecord {
  Call call;
  std::string path;
  int64_t offset;   // where on the device a read or write began; the result of a seek; else -1
  uint64_t length;  // as asked for
  int64_t result;
};
struct WriteRecord {
  int64_t offset;
  uint64_t length;
  bool operator==(const WriteRecord& o) const { return offset == o.offset && length == o.length; }
};
std::ostream& operator<<(std::ostream& out, const WriteRecord& record);

// While it lives, counts, records and spoils system calls of this process, made by any thread on
// descriptors opened with `path` (exactly as it was given to open; "" means every call). Several
// may live at once: each counts and records for itself, the first one with a fault due applies it.
// "n" in the orders below counts matching calls of that kind from the order on, the next one is 1.
class IoFaults {
 public:
  explicit IoFaults(std::string path = "");
  ~IoFaults();  // lets blocked calls go
  IoFaults(const IoFaults&) = delete;
  IoFaults& operator=(const IoFaults&) = delete;

  static constexpr int kForever = 1 << 30;
  // The n-th call and the `times` - 1 after it do nothing, return -1 and set errno (ThreadCreate
  // returns it). Lseek with a position query can be failed like any other.
  void fail(Call call, int n, int error, int times = 1);
  // The first `times` calls that touch one of these bytes: a bad sector.
  void failAt(Call call, uint64_t offset, uint64_t length, int error, int times = kForever);
  // The n-th read or write does `bytes` only. errno is set to `error` beside the positive result
  // (0: left as it was).
  void shorten(Call call, int n, uint64_t bytes, int error = 0);
  void delay(Call call, int n, std::chrono::milliseconds time, int times = 1);
  // The n-th call waits in front of the system until release().
  void block(Call call, int n);
  // False when no call was blocked within `limit`.
  bool waitUntilBlocked(std::chrono::milliseconds limit = std::chrono::seconds(20));
  void release();

  size_t count(Call call) const;
  // What was asked of the system, in the order of the calls' beginnings.
  std::vector<IoRecord> calls() const;
  // Writes and positioned writes, in order.
  std::vector<WriteRecord> writes() const;
  // One character a call: o c r R w W l f t, in order ("wf" a write and its flush).
  std::string sequence() const;
  // Forgets counts and records; orders stay.
  void clear();

  struct State;

 private:
  std::shared_ptr<State> state_;
};

// Counts allocations (malloc and operator new) while it lives: this thread's, or those of all
// threads of the process. Where a sanitizer owns the allocator its hooks count instead.
class AllocationCount {
 public:
  enum class Of { ThisThread, AllThreads };
  explicit AllocationCount(Of of = Of::ThisThread);
  ~AllocationCount();
  AllocationCount(const AllocationCount&) = delete;
  AllocationCount& operator=(const AllocationCount&) = delete;
  size_t count() const;

 private:
  Of of_;
};

// While it lives, malloc and calloc of at least `minBytes` on this thread fails from the n-th such
// call on. Tests must skip themselves when supported() is false (a sanitizer owns the allocator).
class AllocationFault {
 public:
  AllocationFault(size_t minBytes, int n);
  ~AllocationFault();
  AllocationFault(const AllocationFault&) = delete;
  AllocationFault& operator=(const AllocationFault&) = delete;
  static bool supported();
};

}  // namespace tarn_test
