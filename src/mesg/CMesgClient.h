#pragma once

#include <cstdint>

#include "base/Export.h"
#include "base/UniqueFd.h"

// Client end of the local message channel (see CMesgServer): connects on first use, sends one
// message, reads one answer. After a failed connection attempt there is no other within the same
// second of wall-clock time. An object belongs to one thread at a time. Failures are logged to the
// system log at LOG_ERR.
//
// Connecting and sending wait for a server that takes nothing no longer than tarn::RequestPatience
// allows.
class TARN_API CMesgClient {
 public:
  // Longest socket path, in characters; a longer one is cut.
  static constexpr int kPathRoom = 32;
  // Longest message, in bytes.
  static constexpr long kMessageLimit = 1024;

  // Does not connect yet. The process ignores SIGPIPE from here on.
  explicit CMesgClient(const char* path);
  ~CMesgClient();
  CMesgClient(const CMesgClient&) = delete;
  CMesgClient& operator=(const CMesgClient&) = delete;

  // Waits at most 100 ms for something to read: 1 readable, 0 time-out, -1 error or no connection.
  int select();

  // Reads one message of at most `size` bytes. Bytes read; 0 when the server has closed (the
  // connection is kept: a write will find out); -1 without connection, after ten interrupted reads
  // (connection kept) or after any other failure (connection dropped).
  long readMesg(void* buf, long size);

  // Sends one message. Bytes sent; -1 for more than 1024 bytes, without connection or on failure,
  // with the error's text on standard error; the connection is dropped when the server has gone and
  // when it took nothing in time.
  // Never raises SIGPIPE.
  long writeMesg(const void* buf, long size);

  // Operation beyond the channel's basic ones: drops the connection, if there is one, so that a
  // late answer to a failed request is not taken for the next one's; the next use connects again.
  // Always 0.
  int disconnect();

  // Operation beyond the channel's basic ones: connects if needed and waits until there is
  // something to read, as long as tarn::RequestPatience allows: 1, also when the server has closed;
  // 0 when nothing came in time (connection kept); -1 error or no connection.
  int awaitMesg();

 private:
  int m_connect();
  int m_tryConnect();
  int m_disconnect();
  bool m_isConnected() const;
  bool m_ensureConnected();

  char m_path[kPathRoom + 1];
  tarn::UniqueFd m_fd;
  int64_t m_lastFailure = 0;  // of the last failed connection attempt, seconds since the epoch
};
