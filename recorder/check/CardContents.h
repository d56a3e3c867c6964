#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "recorder/card/CardReader.h"
#include "recorder/check/CardFinding.h"

namespace tarn {

// What the parts of a card check share. Not part of the interface.
struct CardContents {
  CardReader card;
  CardFindings findings;
  std::vector<std::string> notes;         // what a PC left, which harms nothing
  std::map<uint32_t, DB_STREAM> streams;  // rows of the journal, by key
  std::map<uint32_t, DB_EVENT> events;
  uint64_t pictures = 0;
  std::set<uint32_t> lostStreams;  // keys of rows that lead to no picture
  bool rowsRefused = false;  // the device kept records of recordings back: there may be more rows
  std::vector<uint32_t> eventsWithoutVideo;
  uint64_t recordings = 0;    // looked at
  bool wholePictures = true;  // not only their time stamps
  uint32_t threads = 1;       // see CardCheckOptions
  std::function<bool(uint64_t, uint64_t)> progress;
};

// The parts, in their order. False when the check was stopped.
void checkVolume(CardContents* contents);
void checkManagement(CardContents* contents);
void checkJournals(CardContents* contents);  // fills in the rows
bool checkRecordings(CardContents* contents);
bool checkRows(CardContents* contents);  // of it only the recordings, and no event
void checkRings(CardContents* contents);
void checkLog(CardContents* contents);

}  // namespace tarn
