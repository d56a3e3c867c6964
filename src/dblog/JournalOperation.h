#pragma once

#include <cstdint>

#include "dblog/JournalFormat.h"

namespace tarn {

// What kind of process asks the journal for something. Numbers are bits of JournalOperation::modes.
enum JournalMode : int8_t {
  kModeUnknown = -1,
  kModeRecman = 0,
  kModeOther = 1,
  kModeMenu = 2,
};

// An operation of CDbLog: the journal that it is about, the modes that may ask for it, and its
// texts; null where it has none. Not part of the interface.
struct JournalOperation {
  JournalKind kind;
  const char* name;
  uint32_t modes;  // bit n: process mode n
  const char* refusal;
  const char* writeError;
  const char* readError;
  const char* seekError;
  const char* noRecord;

  bool allows(int8_t mode) const { return mode >= 0 && ((modes >> mode) & 1) != 0; }

  static const JournalOperation insertEvent, updateEvent, deleteEvent, eventOffset;
  static const JournalOperation insertStream, updateStream, deleteStream, streamOffset;
  static const JournalOperation clear, correct;
};

}  // namespace tarn
