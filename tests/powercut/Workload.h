#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "powercut/CardTrace.h"
#include "recorder/PictureTime.h"

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

struct Picture {
  uint32_t number;
  uint32_t streamID;
};

// One scripted piece of a recorder's life: the card before it, everything it did to it, and what
// was promised to whom at which moment.
struct Recorded {
  std::vector<uint8_t> base;  // the whole card
  Trace trace;
  std::vector<SafeMark> safe;
  std::vector<std::vector<Picture>> sessions;  // of each: its pictures in order
  uint32_t flushPictures = 0;                  // most that may be handed over and not be safe
  bool isFormat = false;
  // Of the workload that makes a recovery's writes: where in the life it recovers.
  bool isRecovery = false;
  size_t cutFlush = 0;     // operations before its last flush
  size_t cutAt = 0;        // operations before it
  std::string finalState;  // what an undisturbed recovery ends in
};

// Names are a workload, or one of its variants with other sizes and lengths ("wrap.3"), or the
// recovery of a card that lost power in one of them ("recovery.wrap.3").
std::vector<std::string> workloadNames(bool all);
// Runs a workload; throws std::runtime_error when it fails.
Recorded recordWorkload(const std::string& name);

// From now on lives lack the flushes of a family of chunk files ("CKDL"). False: no such family.
bool omitFlushesOf(const std::string& family);

// Extents of all chunks of the card that was formatted last.
std::vector<std::pair<uint64_t, uint64_t>> chunkExtents();
void formatCard();

}  // namespace powercut
