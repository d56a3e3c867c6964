#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "base/Export.h"
#include "media/archive/CardArchiver.h"

namespace tarn {

// Archives a recorder's card as it records: an event as soon as the card holds the whole of its
// time, and before everything else; all the rest now and then. A place that is away is asked again,
// for as long as it takes. Says on syslog what it did, and what hinders it once until it changes.
//
// Throws nothing but std::bad_alloc. Used by one thread.
class TARN_API ArchiveFollower {
 public:
  // `everySeconds`: how long it waits between two runs for all the rest.
  ArchiveFollower(const CardArchiver::Settings& settings, uint32_t everySeconds)
      : settings_(settings), everyMs_(int64_t{everySeconds} * 1000) {}

  // Until it is asked to stop.
  void run(const StopAsked& stopAsked);
  // Looks once, and does what there is to do. `nowMs`: of a clock that only goes on.
  void step(int64_t nowMs, const StopAsked& stopAsked);

 private:
  bool lookForEvents();
  bool findReady();
  bool isEventReady();
  void archiveEvents(int64_t nowMs, const StopAsked& stopAsked);
  void archiveAll(int64_t nowMs, const StopAsked& stopAsked);
  void tell(const std::string& problem);

  const CardArchiver::Settings settings_;
  const int64_t everyMs_;
  bool looked_ = false;
  uint32_t lastKey_ = 0;        // of the newest event that was seen
  std::set<uint32_t> open_;     // events that are not over
  std::set<uint32_t> pending_;  // those that are, and are to be archived
  std::set<uint32_t> ready_;    // of these, those of which the card has all
  int64_t eventsAtMs_ = 0;      // not before then
  int64_t allAtMs_ = 0;
  int64_t polledMs_ = 0;
  std::string problem_;
};

}  // namespace tarn
