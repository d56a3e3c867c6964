#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/Export.h"
#include "chunk/CTARNSyslogChunk.h"
#include "manager/CTARNSyslogManager.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/log/LogLayout.h"
#include "recorder/rows/FileLock.h"

namespace tarn {

// Appends lines to the system log on the card, through the management server: to the active syslog
// chunk, and when that is full to the next of the five, whose old text goes.
//
// Lines are collected until flush(); what it has confirmed survives a power loss, and what it has
// not is there whole or not at all. For that the mark behind the text stays where it is until all
// that follows it has reached the card, and is then overwritten, within one sector.
//
// A server that does not answer is waited for as long as a recorder waits
// (recorder/rows/ServerRetry.h). One writer on a machine: a second one is refused. Used by one
// thread at a time; nothing throws. Results: 0, or -1 with errorText(), which also goes to syslog.
class TARN_API LogWriter {
 public:
  LogWriter();
  ~LogWriter();  // close(), without waiting for a server that does not answer
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  // Finds the end of the log. Text that is not followed by its mark is gone on behind, too, where
  // that can be done without a doubt; else the next chunk is begun.
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

  bool isOpen() const { return open_; }
  // Bytes that are collected and not written.
  size_t collectedBytes() const { return pending_.size(); }
  int chunk() const { return chunkNumber_; }
  uint32_t freeOffset() const { return written_; }  // end of what was written, in bytes
  const char* errorText() const { return error_; }

 private:
  bool fail(const char* text);   // false
  int refuse(const char* text);  // -1
  bool failServer();
  template <class Attempt>
  bool served(Attempt&& attempt);
  void abandon();
  bool connect();
  bool openActive();
  bool openChunk(int number);
  bool resume(uint32_t saved);
  bool findEnd(uint32_t saved, uint32_t* end, std::string* lastStamp, bool* marked);
  bool readBlock(uint32_t position, std::string* block);
  bool moveOn();
  bool giveUp(int number);
  bool announce(int number);
  bool addLine(const std::string& text, int64_t seconds);
  bool writeOut();
  bool put(uint32_t position, const char* bytes, size_t length);
  bool tellServer();

  bool open_ = false;
  const char* error_ = "";
  GeometryReport geometry_;  // of the last open(), whose text error_ may be
  FileLock lock_;
  CTARNSyslogManager manager_;
  CTARNSyslogChunk chunk_;
  int64_t patienceMs_;  // with a server that does not answer
  int chunkNumber_ = -1;
  uint32_t written_ = 0;  // free offset: everything before it is on the card
  LogLayout layout_;
  std::string pending_;  // what comes at written_
  bool told_ = true;     // the server knows written_
};

}  // namespace tarn
