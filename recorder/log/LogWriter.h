#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/Export.h"

namespace tarn {

class LogAppender;

// Appends lines to the system log on the card, through the management server: to the active syslog
// chunk, and when that is full to the next of the five, whose old text goes.
//
// Lines are collected until flush(); what it has confirmed survives a power loss, and what it has
// not is there whole or not at all. For that the mark behind the text stays where it is until all
// that follows it has reached the card, and is then overwritten, within one sector.
//
// A server that does not answer is waited for as long as a recorder waits
// (recorder/rows/ServerPatience.h). One writer on a machine: a second one is refused. Used by one
// thread at a time; nothing throws. Results: 0, or -1 with errorText(), which also goes to syslog.
class TARN_API LogWriter {
 public:
  LogWriter();
  ~LogWriter();  // close(), without waiting for a server that does not answer
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  // Finds the end of the log. Text that is not followed by its mark is continued behind as well,
  // where that can be done without a doubt; else the next chunk is begun.
  int open();
  // Collects one text, stamped with the time of day or with `seconds` (since 1970). Long texts
  // become several lines, an empty one none. Writes out what is collected when that is much, or
  // when the chunk is full.
  int append(const char* text, size_t size);
  int append(const char* text, size_t size, int64_t seconds);
  // Brings everything to the card and tells the server where the text ends; -1 also when only the
  // server does not hear of it, which the next flush() tries again.
  int flush();
  // flush(), saves the management data and lets others write. -1 also when it was not open.
  int close();

  bool isOpen() const;
  // Bytes that are collected and not written.
  size_t collectedBytes() const;
  int chunk() const;            // the one that is written to; -1 before the first open()
  uint32_t freeOffset() const;  // end of what was written, in bytes
  const char* errorText() const;

 private:
  std::unique_ptr<LogAppender> appender_;  // null when there was no memory for it
};

}  // namespace tarn
