#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "powercut/Workload.h"

// The card that is damaged.
namespace damage {

// A card and what a start on it gives when nothing is damaged.
struct Whole {
  std::vector<uint8_t> card;  // before the start
  std::vector<DB_STREAM> streams;
  std::vector<DB_EVENT> events;
  std::vector<powercut::PicturePlace> places;
  std::string management;         // rows, keys and management data in words, but for the image
  std::vector<uint8_t> logs;      // all chunks of the system log
  std::vector<uint32_t> logEnds;  // the bytes in use of each
};

struct SmallCard {
  std::map<uint32_t, std::vector<uint32_t>> pictures;  // numbers of each recording's
  std::set<uint32_t> openStreams;  // recordings and events that ran when power went
  std::set<uint32_t> openEvents;
  Whole cut;      // power went while two channels recorded
  Whole stopped;  // a clean stop: the database's image is there
};

// Two channels, rings and journals that have come round, events, kept copies of some, of which two
// are all that is left; a system log. Throws when the undamaged card does not give back what was
// recorded.
SmallCard makeSmallCard();

// What describeCard() says, but for the image, and how far the system log goes.
std::string managementText();
std::vector<uint32_t> logEnds();
std::vector<uint8_t> logBytes();

}  // namespace damage
