#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "recorder/check/CardContents.h"

namespace tarn {

class RowsCheck;

// Who looks at recordings, one after the other. Used by one thread.
struct RowsWorker {
  RowsCheck* rows = nullptr;
  bool leads = false;         // is the caller's thread, which tells how far it is
  uint32_t patienceMs = 500;  // for reads that fail, all together: all workers wait at a time
};

// What the look at one recording gave.
struct RecordingOutcome {
  CardFindings findings;
  uint64_t pictures = 0;
  bool leadsNowhere = false;  // to no picture
};

// Looks at all recordings of the rows, as many at a time as there are threads: where the card is
// quick, what takes the time is the checksum. What is found is the same, in the same order, with
// any number of threads, because each recording is looked at for itself and the outcomes are put
// together in the order of the rows. Not part of the interface. Used by one thread.
class RowsCheck {
 public:
  // `threads`: this one included; 0: as many as there are processors, up to kMostThreads. The
  // contents stay the caller's and get the findings.
  RowsCheck(CardContents* contents, uint32_t threads);
  // Ends the threads, after what they are about.
  ~RowsCheck();
  RowsCheck(const RowsCheck&) = delete;
  RowsCheck& operator=(const RowsCheck&) = delete;

  // False when it was stopped.
  bool run();

  // For the workers, from any thread:
  const CardContents& contents() const { return *contents_; }
  // Whether to go on; the leader tells how far it is.
  bool goOn(const RowsWorker& worker);
  // Whether further findings of this kind are only counted, whatever recordings still to be put
  // together give.
  bool isFull(FindingKind kind) const {
    return (fullKinds_.load(std::memory_order_relaxed) >> static_cast<size_t>(kind) & 1) != 0;
  }

 private:
  static constexpr uint32_t kMostThreads = 4;
  // Outcomes that wait for one in front of them; as many as that bound the memory.
  static constexpr uint64_t kMostAhead = 32;

  using Lock = std::unique_lock<std::mutex>;
  using Row = std::map<uint32_t, DB_STREAM>::const_iterator;

  void begin();
  void end();
  void workAside();
  void work(RowsWorker* worker);
  bool claim(const RowsWorker& worker, Row* row, uint64_t* number);
  void waitAWhile(Lock* lock, const RowsWorker& worker);
  void deliver(uint64_t number, const DB_STREAM& row, RecordingOutcome outcome);
  void putTogether(uint32_t key, const RecordingOutcome& outcome);
  void stop();

  CardContents* contents_;
  const uint32_t threads_;
  std::vector<std::thread> helpers_;
  std::atomic<bool> stopped_{false};
  std::atomic<uint32_t> fullKinds_{0};  // a bit each

  std::mutex mutex_;  // for all that follows, and for what outcomes add to the contents
  std::condition_variable changed_;
  Row next_;
  uint64_t claimed_ = 0;
  std::map<uint64_t, std::pair<uint32_t, RecordingOutcome>> ahead_;
  bool memoryOut_ = false;
};

// One of them, in RecordingCheck.cpp.
void checkRecording(RowsWorker* worker, const DB_STREAM& row, RecordingOutcome* outcome);

}  // namespace tarn
