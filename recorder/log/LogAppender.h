#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "chunk/CTARNSyslogChunk.h"
#include "manager/CTARNSyslogManager.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/log/LogLayout.h"
#include "recorder/rows/FileLock.h"

namespace tarn {

// The work of a LogWriter, which says what its functions do; what it keeps stays out of the
// interface.
class LogAppender {
 public:
  LogAppender();
  ~LogAppender();  // close(), without waiting for a server that does not answer
  LogAppender(const LogAppender&) = delete;
  LogAppender& operator=(const LogAppender&) = delete;

  int open();
  int append(const char* text, size_t size);
  int append(const char* text, size_t size, int64_t seconds);
  int flush();
  int close();

  bool isOpen() const { return open_; }
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
  static const char* endMark();
  bool goesAtOnce(size_t length) const;
  bool writeOut();
  bool putOverMark(const char* bytes, size_t length);
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
