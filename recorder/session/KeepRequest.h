#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"
#include "recorder/session/KeptCopies.h"

// What a program asks of the one that keeps (EventKeeper), and what it is told. One packet each,
// little-endian.
namespace tarn {

inline constexpr char kKeeperSocket[] = "/tmp/unix-sock-tarn-keeper";
// Held by the process that listens there, as long as it does.
inline constexpr char kKeeperLock[] = "/tmp/tarn-keeper.lock";

enum class KeepCommand : uint32_t { kKeepEvent = 1, kKeepPeriod = 2, kReleaseEvent = 3, kAsk = 4 };

// Request                                                  off size
inline constexpr uint32_t kKeepCommandOff = 0;   //     0    4
inline constexpr uint32_t kKeepNumberOff = 4;    //     4    4  event, or the ticket asked for
inline constexpr uint32_t kKeepFromOff = 8;      //     8    8  seconds, microseconds
inline constexpr uint32_t kKeepToOff = 16;       //    16    8  the same
inline constexpr uint32_t kKeepChannelOff = 24;  //    24    4  signed; -1: all
inline constexpr uint32_t kKeepBudgetOff = 28;   //    28    4  chunks; 0: the keeper's own
inline constexpr uint32_t kKeepStrictOff = 32;   //    32    4  0: the keeper's own
inline constexpr uint32_t kKeepRequestSize = 36;

struct KeepRequest {
  KeepCommand command = KeepCommand::kAsk;
  uint32_t number = 0;
  PictureTime from;
  PictureTime to;
  int32_t channel = -1;
  uint32_t budgetChunks = 0;
  bool strict = false;
};

inline bool operator==(const KeepRequest& a, const KeepRequest& b) {
  return a.command == b.command && a.number == b.number && a.from == b.from && a.to == b.to &&
         a.channel == b.channel && a.budgetChunks == b.budgetChunks && a.strict == b.strict;
}

enum class KeepState : uint32_t { kUnknown = 0, kWaiting = 1, kDone = 2, kFailed = 3 };

// Answer                                                   off size
inline constexpr uint32_t kKeepStateOff = 0;      //     0    4
inline constexpr uint32_t kKeepTicketOff = 4;     //     4    4
inline constexpr uint32_t kKeepCopiesOff = 8;     //     8    4  made, or released
inline constexpr uint32_t kKeepMissingOff = 12;   //    12    4
inline constexpr uint32_t kKeepGivenUpOff = 16;   //    16    4
inline constexpr uint32_t kKeepPicturesOff = 20;  //    20    4
inline constexpr uint32_t kKeepBytesOff = 24;     //    24    8
inline constexpr uint32_t kKeepTextOff = 32;      //    32  200  why it failed, ends with 0
inline constexpr uint32_t kKeepTextRoom = 200;
inline constexpr uint32_t kKeepAnswerSize = kKeepTextOff + kKeepTextRoom;

struct KeepAnswer {
  KeepState state = KeepState::kUnknown;
  uint32_t ticket = 0;
  KeepResult result;
  std::string text;
};

TARN_API void encodeKeepRequest(const KeepRequest& request, uint8_t* out);
// False for a packet that is none; so with the answer.
TARN_API bool decodeKeepRequest(const uint8_t* bytes, long size, KeepRequest* out);
TARN_API void encodeKeepAnswer(const KeepAnswer& answer, uint8_t* out);
TARN_API bool decodeKeepAnswer(const uint8_t* bytes, long size, KeepAnswer* out);

}  // namespace tarn
