#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <thread>
#include <vector>

#include "base/Export.h"
#include "base/UniqueFd.h"
#include "db/DbRecords.h"
#include "recorder/card/CardLayout.h"

namespace tarn {

// Where the steps behind the replay will look: the header and the last entries of the oldest and of
// the newest recording of each chunk, as far as the journal tells. There are a thousand such places
// on a card of 64 GiB, and a card takes as long to find each of them as to deliver many; while the
// rows go to the database it has nothing to do. So the system is asked to bring them meanwhile, by
// a thread of its own, because asking waits where the card does.
//
// It is a hint and nothing else: what does not come, or is refused, is read when it is wanted, as
// if nobody had asked. Not part of the interface. Used by one thread.
class TARN_API HeaderPlaces {
 public:
  HeaderPlaces() = default;
  ~HeaderPlaces();
  HeaderPlaces(const HeaderPlaces&) = delete;
  HeaderPlaces& operator=(const HeaderPlaces&) = delete;

  // A recording that the journal has.
  void note(const DB_STREAM& row);
  // Bytes of the device where a block begins that will be read. Of rows that the card has no place
  // for there are none.
  std::vector<uint64_t> places(const CardFamily& pictures) const;
  // Begins to ask, once.
  void askAhead();
  // What was not asked for by now is not any more.
  void stop();

 private:
  struct Ends {
    DB_STREAM oldest;
    DB_STREAM newest;
  };

  void ask(const std::vector<uint64_t>& places);

  std::map<uint32_t, Ends> chunks_;
  UniqueFd device_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

}  // namespace tarn
