#pragma once

#include <atomic>
#include <cstdint>

// What rig and interposer share: a file that both map. The rig orders a fault and reads afterwards
// which calls were made; that stays readable when the program was killed.
namespace faults {

// Kinds of calls that are counted, each for itself. What they are called on comes first.
enum Op : uint32_t {
  kCardOpen,
  kCardRead,
  kCardWrite,
  kCardFlush,
  kCardSeek,
  kCardSize,
  kCardClose,
  kRamOpen,
  kRamRead,
  kRamWrite,
  kRamFlush,
  kRamSeek,
  kRamSize,
  kRamLock,
  kRamRemove,
  kRamClose,
  kSocketMake,
  kSocketBind,
  kSocketListen,
  kSocketConnect,
  kSocketAccept,
  kSocketSend,
  kSocketReceive,
  kSocketWait,
  kSocketClose,
  kSemaphore,
  kThreadStart,
  kMemory,
  kAny,  // every call but those for memory: what a kill counts
  kOps
};

inline constexpr const char* kOpNames[kOps] = {"card-open",
                                               "card-read",
                                               "card-write",
                                               "card-flush",
                                               "card-seek",
                                               "card-size",
                                               "card-close",
                                               "ram-open",
                                               "ram-read",
                                               "ram-write",
                                               "ram-flush",
                                               "ram-seek",
                                               "ram-size",
                                               "ram-lock",
                                               "ram-remove",
                                               "ram-close",
                                               "socket-make",
                                               "socket-bind",
                                               "socket-listen",
                                               "socket-connect",
                                               "socket-accept",
                                               "socket-send",
                                               "socket-receive",
                                               "socket-wait",
                                               "socket-close",
                                               "semaphore",
                                               "thread-start",
                                               "memory",
                                               "any"};

enum Mode : uint32_t {
  kNone,
  kOnce,         // refused once: EIO, ENOMEM, a lost connection, by what is called
  kForever,      // refused from there on
  kShort,        // half of it is done
  kInterrupted,  // EINTR, nothing done
  kFull,         // ENOSPC from there on
  kKill,         // SIGKILL in front of the call
  kModes
};

inline constexpr const char* kModeNames[kModes] = {"none",        "once", "forever", "short",
                                                   "interrupted", "full", "kill"};

struct Plan {
  uint32_t op;
  uint32_t mode;
  uint32_t number;  // of the call, from 1
  uint32_t speed;   // times that waiting is shortened
  std::atomic<uint32_t> counts[kOps];
  std::atomic<uint32_t> hits;
};

inline constexpr char kPlanVariable[] = "TARN_FAULTS_PLAN";
// Lines of the system log are appended here.
inline constexpr char kLogVariable[] = "TARN_FAULTS_LOG";

}  // namespace faults
