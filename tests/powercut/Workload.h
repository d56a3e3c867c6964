#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "powercut/CardTrace.h"
#include "recorder/card/CardLayout.h"
#include "recorder/card/PictureTime.h"

namespace tarn {
class ManagementServer;
}

namespace powercut {

// Management server in a thread of this process, while it lives.
class Server {
 public:
  Server();
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Picture `number`: its bytes, time and kind follow from the number alone, and no two are alike.
std::vector<uint8_t> pictureBytes(uint32_t number);
tarn::PictureTime pictureTime(uint32_t number);
bool isKeyPicture(uint32_t number);

// What a program knew at a moment: `confirmed` pictures of one of its sessions are safe, and all
// pictures up to `accepted` have been handed over.
struct SafeMark {
  size_t when;  // number of card operations before it
  int session;
  uint32_t confirmed;
  uint32_t accepted;
};

// Lines 0 to `accepted` - 1 of a system log have been handed over, and the first `confirmed` are
// safe. `first`: the oldest one whose chunk has not been taken for new text, or is about to be.
struct LogMark {
  size_t when;
  uint32_t first;
  uint32_t confirmed;
  uint32_t accepted;
};

struct Picture {
  uint32_t number;
  uint32_t streamID;
};

// Where a recording's header (index -1), or the entry and the data of one of its pictures lie.
struct PicturePlace {
  uint32_t streamID;
  int64_t index;
  std::vector<std::pair<uint64_t, uint64_t>> bytes;  // from and to, of the device
};

// A moment at which power goes: operations before `at` had been issued, and the last flush among
// them is operation `flush` - 1 (0: none).
struct Cut {
  size_t flush;
  size_t at;
};

// One scripted piece of a recorder's life: the card before it, everything it did to it, and what
// was promised to whom at which moment.
struct Recorded {
  std::vector<uint8_t> base;  // the whole card
  Trace trace;
  std::vector<SafeMark> safe;
  std::vector<std::vector<Picture>> sessions;  // of each: its pictures in order
  std::vector<int8_t> channels;                // of each session
  uint32_t flushPictures = 0;                  // most that may be handed over and not be safe
  std::map<size_t, uint32_t> mostUnsafe;       // the same of sessions of sound, in frames
  std::vector<LogMark> log;                    // only of lives that write a system log
  // Operations between which rows are re-dated: once that has begun, a recovery ends it.
  size_t redatingFrom = 0;
  size_t redatingTo = 0;
  // And between which that is taken back: a recovery ends it or undoes what it had begun.
  size_t takingBackFrom = 0;
  size_t takingBackTo = 0;
  bool isFormat = false;
  bool replayLosesRow = false;  // the first start after a cut loses a row
  // Of the workload that makes a recovery's writes: where in the life it recovers, and what it ends
  // in when it is not disturbed.
  bool isRecovery = false;
  Cut cut = {0, 0};
  std::string finalState;
  uint64_t finalSum = 0;
  std::vector<uint8_t> finalCard;
  // Of the workload in which the card refuses reads of a recovery: what it reads, and what it
  // brings back, when it is not disturbed.
  bool isRefusal = false;
  std::vector<CardRead> reads;
  std::vector<DB_STREAM> finalStreams;
  std::vector<DB_EVENT> finalEvents;
  std::vector<PicturePlace> finalPlaces;
};

// Names are a workload, or one of its variants with other sizes and lengths ("wrap.3"), or the
// recovery of a card that lost power in one of them ("recovery.wrap.3"), or the same recovery on a
// card that refuses reads ("reads.wrap.3").
std::vector<std::string> workloadNames(bool all);
// Those with refused reads.
std::vector<std::string> readWorkloadNames(bool all);
// Runs a workload; throws std::runtime_error when it fails.
Recorded recordWorkload(const std::string& name);

// Where chunk `chunk` of a family lies on the card that was formatted last.
const tarn::CardLayout& cardLayout();

// Extents of all chunks of the card that was formatted last.
std::vector<std::pair<uint64_t, uint64_t>> chunkExtents();
// Those of journals and management data.
std::vector<std::pair<uint64_t, uint64_t>> copiedExtents();
// Where the other copy of a byte of them lies.
uint64_t otherCopy(uint64_t byte);
void formatCard();

}  // namespace powercut
