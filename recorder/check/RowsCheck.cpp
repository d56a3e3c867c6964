#include "recorder/check/RowsCheck.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <new>
#include <utility>

namespace tarn {
namespace {

// In which the leader, who has nothing to do meanwhile, tells that it is still there.
constexpr std::chrono::milliseconds kStep(100);

}  // namespace

RowsCheck::RowsCheck(CardContents* contents, uint32_t threads)
    : contents_(contents),
      threads_(threads != 0 ? threads
                            : std::clamp(std::thread::hardware_concurrency(), 1u, kMostThreads)),
      next_(contents->streams.begin()) {}

RowsCheck::~RowsCheck() {
  stop();
  end();
}

bool RowsCheck::run() {
  begin();
  RowsWorker leader;
  leader.rows = this;
  leader.leads = true;
  work(&leader);
  {
    Lock lock(mutex_);
    while (!stopped_ && contents_->recordings < contents_->streams.size()) {
      waitAWhile(&lock, leader);
    }
  }
  // However little of it was left to this thread: the caller hears of the end, and may say no.
  if (!helpers_.empty()) goOn(leader);
  const bool whole = !stopped_;
  stop();
  end();
  if (memoryOut_) throw std::bad_alloc();
  return whole;
}

// A machine that gives no more threads is served by those that there are.
void RowsCheck::begin() {
  const size_t wanted = std::min<size_t>(threads_, contents_->streams.size());
  helpers_.reserve(wanted);
  try {
    for (size_t i = 1; i < wanted; ++i) helpers_.emplace_back([this] { workAside(); });
  } catch (const std::exception&) {
    return;
  }
}

void RowsCheck::end() {
  for (std::thread& helper : helpers_) helper.join();
  helpers_.clear();
}

void RowsCheck::stop() {
  const Lock lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

void RowsCheck::workAside() {
  try {
    RowsWorker worker;
    worker.rows = this;
    work(&worker);
  } catch (const std::exception&) {
    const Lock lock(mutex_);
    memoryOut_ = true;
    stopped_ = true;
    changed_.notify_all();
  }
}

void RowsCheck::work(RowsWorker* worker) {
  Row row;
  uint64_t number = 0;
  while (claim(*worker, &row, &number)) {
    RecordingOutcome outcome;
    checkRecording(worker, row->second, &outcome);
    deliver(number, row->second, std::move(outcome));
    if (!goOn(*worker)) return;
  }
}

// False when there is none left, or when it was stopped.
bool RowsCheck::claim(const RowsWorker& worker, Row* row, uint64_t* number) {
  Lock lock(mutex_);
  while (!stopped_ && next_ != contents_->streams.end()) {
    if (claimed_ - contents_->recordings < kMostAhead) {
      *row = next_++;
      *number = claimed_++;
      return true;
    }
    waitAWhile(&lock, worker);
  }
  return false;
}

void RowsCheck::waitAWhile(Lock* lock, const RowsWorker& worker) {
  changed_.wait_for(*lock, kStep);
  lock->unlock();
  goOn(worker);
  lock->lock();
}

bool RowsCheck::goOn(const RowsWorker& worker) {
  if (!worker.leads || stopped_ || !contents_->progress) return !stopped_;
  uint64_t done = 0;
  {
    const Lock lock(mutex_);
    done = contents_->recordings;
  }
  if (!contents_->progress(done, contents_->streams.size())) stop();
  return !stopped_;
}

void RowsCheck::deliver(uint64_t number, const DB_STREAM& row, RecordingOutcome outcome) {
  const Lock lock(mutex_);
  ahead_.emplace(number, std::make_pair(row.streamID, std::move(outcome)));
  while (!ahead_.empty() && ahead_.begin()->first == contents_->recordings) {
    putTogether(ahead_.begin()->second.first, ahead_.begin()->second.second);
    ahead_.erase(ahead_.begin());
    ++contents_->recordings;
  }
  changed_.notify_all();
}

void RowsCheck::putTogether(uint32_t key, const RecordingOutcome& outcome) {
  contents_->pictures += outcome.pictures;
  if (outcome.leadsNowhere) contents_->lostStreams.insert(key);
  if (outcome.findings.total() == 0) return;
  contents_->findings.append(outcome.findings);
  uint32_t full = 0;
  for (size_t kind = 0; kind < kFindingKinds; ++kind) {
    if (contents_->findings.isFull(static_cast<FindingKind>(kind))) full |= 1u << kind;
  }
  fullKinds_.store(full, std::memory_order_relaxed);
}

bool checkRows(CardContents* contents) { return RowsCheck(contents, contents->threads).run(); }

}  // namespace tarn
