#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "base/Export.h"

namespace tarn {

// Keeps those who look at a card from slowing those who write to it. What memory still holds costs
// the writers nothing, and neither does what is read while the device has time to spare. What is
// read while writes keep it busy is paid for: sixty-four times as much is written before anybody
// reads again, or the device has time. Any number of threads.
class TARN_API WritersFirst {
 public:
  // `folder`: the device's files of the kernel's, see DeviceCounts::folderOf(); "" where there are
  // none, and nobody ever waits.
  explicit WritersFirst(std::string folder) : folder_(std::move(folder)) {}

  // Returns true when it is a reader's turn, false when that did not come in `patienceMs`.
  bool wait(int64_t patienceMs = kPatienceMs);

  // Notes what this thread reads from devices while the object lives. A kernel that does not count
  // that for each thread (CONFIG_TASK_IO_ACCOUNTING) lets everybody read.
  class Reading {
   public:
    explicit Reading(WritersFirst* writers) : writers_(writers), before_(sectorsRead()) {}
    ~Reading() { writers_->noteRead(sectorsRead() - before_); }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

   private:
    static unsigned long sectorsRead();

    WritersFirst* writers_;
    const unsigned long before_;  // it may begin anew at 0
  };

  // So many sectors of 512 bytes were read from the device.
  void noteRead(uint64_t sectors);

 private:
  static constexpr int64_t kPatienceMs = 10000;

  bool isCalm() const;
  bool isFree();
  void look();

  const std::string folder_;
  std::mutex mutex_;
  uint64_t written_ = 0;    // guarded by mutex_, as below; sectors
  bool isWriting_ = false;  // when looked at last
  int64_t lookedUs_ = 0;    // monotonic
  int64_t writesUs_ = 0;    // when the device was seen to write last
  uint64_t paidAt_ = 0;     // sectors written by which nothing is owed
};

}  // namespace tarn
