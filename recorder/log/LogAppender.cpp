#include "recorder/log/LogAppender.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "base/Omission.h"
#include "chunk/LogChunks.h"
#include "fat/ChunkFiles.h"
#include "fat/FailureMarker.h"
#include "recorder/card/NoThrow.h"
#include "recorder/log/LogFormat.h"
#include "recorder/log/LogMark.h"
#include "recorder/log/LogMessages.h"
#include "recorder/rows/ServerRetry.h"

namespace tarn {
namespace {

constexpr char kWriterLock[] = "/tmp/tarn-log.lock";
constexpr int kCardTries = 3;
constexpr short kFlagChunk = 0;  // its active flag counts
// What is collected goes out as one write: the chunk's own buffer takes no more than 32 KiB.
constexpr size_t kCollectBytes = 16 * 1024;
constexpr size_t kPieceBytes = 32 * 1024;

enum class Step { kLine, kEnd, kBlockEnd, kUnknown };

// Looks at what stands at `at` of a block. kLine moves `at` behind the line and takes its stamp.
Step lookAt(const std::string& block, size_t* at, std::string* lastStamp) {
  if (*at == block.size()) return Step::kBlockEnd;
  const std::string_view rest = std::string_view(block).substr(*at);
  if (rest.substr(0, kLogMarkBytes) == kLogMark) return Step::kEnd;
  const int64_t seconds = logStampSeconds(rest);
  const size_t feed = rest.find('\n');
  if (seconds == -1 || feed == std::string_view::npos) return Step::kUnknown;
  if (!lastStamp->empty() && seconds < logStampSeconds(*lastStamp)) return Step::kUnknown;
  *lastStamp = rest.substr(0, kLogStampBytes);
  *at += feed + 1;
  return Step::kLine;
}

}  // namespace

LogAppender::LogAppender() : manager_(kRecorderPartition), patienceMs_(kServerPatienceMs) {}

LogAppender::~LogAppender() {
  patienceMs_ = 0;
  if (open_) close();
  chunk_.closeChunkFile();
  manager_.closeManageData();
}

bool LogAppender::fail(const char* text) {
  error_ = text;
  syslog(LOG_ERR, kMsgLogWriter, text);
  return false;
}

int LogAppender::refuse(const char* text) {
  fail(text);
  return -1;
}

bool LogAppender::failServer() {
  return fail(cardRefused(manager_) ? kErrLogServerCard : kErrLogServer);
}

// Every request goes through here: a server that is being started again is waited for. One that
// answers that the card failed is asked a few times, for that may pass.
template <class Attempt>
bool LogAppender::served(Attempt&& attempt) {
  bool good = false;
  int refusals = 0;
  retryFor(patienceMs_, [&] {
    good = attempt();
    return good || (cardRefused(manager_) && ++refusals >= kCardTries);
  });
  return good || failServer();
}

// A server that has no card does not get one by being asked again.
bool LogAppender::connect() {
  bool good = false;
  retryFor(kServerPatienceMs, [&] {
    good = manager_.openManageData() == 0;
    if (!good) manager_.closeManageData();
    return good || cardRefused(manager_);
  });
  return good || failServer();
}

int LogAppender::open() {
  return orNoMemory(
      "LogWriter",
      [&]() -> int {
        if (open_) return refuse(kErrLogOrder);
        error_ = "";
        if (!lock_.lock(kWriterLock, false)) {
          return refuse(errno == EWOULDBLOCK ? kErrLogBusy : kErrLogLock);
        }
        geometry_ = CardGeometry::verifyRecorder();
        open_ = geometry_.ok() ? openActive() : fail(geometry_.text.c_str());
        if (!open_) abandon();
        return open_ ? 0 : -1;
      },
      [&]() -> int {
        open_ = false;
        abandon();
        return refuse(kErrNoMemory);
      });
}

void LogAppender::abandon() {
  open_ = false;
  chunk_.closeChunkFile();
  manager_.closeManageData();
  lock_.unlock();
}

bool LogAppender::openActive() {
  if (cardWriteFailed()) return fail(kErrLogMarker);
  if (!connect()) return false;
  const auto chunkBytes = static_cast<uint32_t>(manager_.getChunkSize());
  if (manager_.getNumChunk() < kLogChunks || chunkBytes < kLogLeastChunkBytes ||
      chunkBytes % kLogBlockBytes != 0) {
    return fail(kErrLogChunks);
  }
  layout_ = LogLayout(chunkBytes);
  pending_.clear();
  told_ = true;
  signed char active = -1;
  if (!served([&] { return manager_.getActiveFlag(kFlagChunk, &active) == 0; })) return false;
  if (active < 0 || active >= kLogChunks) {
    chunkNumber_ = kLogChunks - 1;
    return moveOn();
  }
  if (!openChunk(active)) return false;
  return resume(static_cast<uint32_t>(chunk_.getFreeAddr()));
}

bool LogAppender::openChunk(int number) {
  chunk_.closeChunkFile();
  chunkNumber_ = number;
  if (chunk_.openChunkFile(&manager_, static_cast<unsigned short>(number)) != 0)
    return fail(kErrLogOpen);
  // The open goes on without an answer of the server; the addresses must not be guessed.
  return chunk_.isUsageKnown() || served([&] { return chunk_.getUsageFromManager() == 0; });
}

bool LogAppender::resume(uint32_t saved) {
  std::string lastStamp;
  uint32_t end = 0;
  bool marked = false;
  if (!findEnd(saved, &end, &lastStamp, &marked)) {
    if (*error_ != '\0') return false;
    syslog(LOG_WARNING, kMsgLogNoEnd, chunkNumber_);
    return moveOn();
  }
  if (!marked && !put(end, end == 0 ? kLogEmpty : kLogMark, kLogMarkBytes)) return false;
  written_ = end;
  layout_.restart(end, lastStamp);
  return saved == end || tellServer();
}

// Follows the lines from the block of the saved free offset: a server that was killed, or lost
// power, knows an older one. False without an error when there is no end to go on at.
bool LogAppender::findEnd(uint32_t saved, uint32_t* end, std::string* lastStamp, bool* marked) {
  const auto chunkBytes = static_cast<uint32_t>(chunk_.getChunkSize());
  uint32_t position = saved == 0 ? 0 : (saved - 1) / kLogBlockBytes * kLogBlockBytes;
  for (std::string block; position < chunkBytes; position += kLogBlockBytes) {
    if (!readBlock(position, &block)) return fail(kErrLogRead);
    size_t at = 0;
    Step step = Step::kLine;
    while (step == Step::kLine) step = lookAt(block, &at, lastStamp);
    if (step == Step::kBlockEnd) continue;
    *end = position + static_cast<uint32_t>(at);
    // A mark at a chunk's start would itself begin a text.
    *marked = *end == 0 ? block.compare(0, kLogMarkBytes, kLogEmpty) == 0 : step == Step::kEnd;
    const bool known = step == Step::kEnd || *end == saved;
    return known && LogLayout::takesMark(*end, chunkBytes);
  }
  return false;
}

bool LogAppender::readBlock(uint32_t position, std::string* block) {
  block->resize(kLogBlockBytes);
  return chunk_.seek(static_cast<long>(position), SEEK_SET) == static_cast<long>(position) &&
         chunk_.read(block->data(), kLogBlockBytes) == static_cast<long>(kLogBlockBytes) &&
         !chunk_.lastReadFailed();
}

// The new chunk's old text is given up before it is written over, and the chunk looks empty on the
// card before it counts as the active one: power lost in between leaves the old chunk, as it was,
// with nothing missing, and no text whose first line is half gone.
bool LogAppender::moveOn() {
  const int next = (chunkNumber_ + 1) % kLogChunks;
  if (!openChunk(next)) return false;
  if (!served([&] { return giveUp(next); })) return false;
  if (!put(0, kLogEmpty, kLogMarkBytes)) return false;
  written_ = 0;
  told_ = true;  // of a chunk without text
  layout_.restart(0, "");
  return served([&] { return announce(next); });
}

bool LogAppender::giveUp(int number) {
  if (omitted("log-give-up")) return true;
  const auto chunk = static_cast<short>(number);
  chunk_.setUseAddr(0);
  chunk_.setFreeAddr(0);
  return manager_.setUseOffset(chunk, 0) == 0 && manager_.setFreeOffset(chunk, 0) == 0 &&
         manager_.saveManageData() == 0;
}

bool LogAppender::announce(int number) {
  return manager_.setActiveFlag(kFlagChunk, static_cast<signed char>(number)) == 0 &&
         manager_.saveManageData() == 0;
}

int LogAppender::append(const char* text, size_t size) { return append(text, size, time(nullptr)); }

int LogAppender::append(const char* text, size_t size, int64_t seconds) {
  return orNoMemory(
      "LogWriter",
      [&]() -> int {
        if (!open_) return refuse(kErrLogOrder);
        for (const std::string& piece : logSplitText(logCleanText({text, size}))) {
          if (!addLine(piece, seconds)) return -1;
          if (pending_.size() >= kCollectBytes && flush() != 0) return -1;
        }
        return 0;
      },
      [&]() -> int { return refuse(kErrNoMemory); });
}

bool LogAppender::addLine(const std::string& text, int64_t seconds) {
  if (layout_.add(text, seconds, &pending_)) return true;
  if (flush() != 0) return false;
  if (!moveOn()) {
    abandon();  // text in a chunk that does not count as the active one would be lost
    return false;
  }
  return layout_.add(text, seconds, &pending_) || fail(kErrLogChunks);
}

int LogAppender::flush() {
  return orNoMemory(
      "LogWriter",
      [&]() -> int {
        if (!open_) return refuse(kErrLogOrder);
        if (!pending_.empty() && !writeOut()) return -1;
        return told_ || tellServer() ? 0 : -1;
      },
      [&]() -> int { return refuse(kErrNoMemory); });
}

// What stands behind the newest line.
const char* LogAppender::endMark() {
  if (omitted("log-mark")) return "";
  return kLogMark;
}

// Within one sector all of it is there or nothing.
bool LogAppender::goesAtOnce(size_t length) const {
  if (omitted("log-mark-last")) return true;
  return written_ % kLogSectorBytes + length <= kLogSectorBytes;
}

bool LogAppender::writeOut() {
  const std::string bytes = pending_ + endMark();
  const auto first = std::min<size_t>(bytes.size(), kLogMarkBytes);
  if (goesAtOnce(bytes.size())) {
    if (!putOverMark(bytes.data(), bytes.size())) return false;
  } else if (!put(written_ + kLogMarkBytes, bytes.data() + first, bytes.size() - first) ||
             !putOverMark(bytes.data(), first)) {
    return false;
  }
  written_ += static_cast<uint32_t>(pending_.size());
  pending_.clear();
  told_ = false;
  return true;
}

// A part of it in place of the mark would leave the text without an end, or with one behind a line
// that nobody can read: then the mark is put back.
bool LogAppender::putOverMark(const char* bytes, size_t length) {
  if (put(written_, bytes, length)) return true;
  put(written_, written_ == 0 ? kLogEmpty : kLogMark, kLogMarkBytes);
  return false;
}

// Writes and waits until it has reached the card. In pieces: after a failure more may wait than the
// chunk takes at once.
bool LogAppender::put(uint32_t position, const char* bytes, size_t length) {
  std::string piece;  // the chunk takes no read-only bytes
  for (size_t done = 0; done < length; done += piece.size()) {
    piece.assign(bytes + done, std::min(length - done, kPieceBytes));
    const long at = static_cast<long>(position) + static_cast<long>(done);
    const auto size = static_cast<long>(piece.size());
    if (chunk_.seek(at, SEEK_SET) != at || chunk_.writeNoSeek(piece.data(), size) != size ||
        chunk_.flush() != 0 || cardWriteFailed()) {
      return fail(kErrLogWrite);
    }
  }
  return true;
}

bool LogAppender::tellServer() {
  chunk_.setFreeAddr(written_);
  told_ = served([this] { return chunk_.settle() == 0; });
  return told_;
}

int LogAppender::close() {
  return orNoMemory(
      "LogWriter",
      [&]() -> int {
        if (!open_) return refuse(kErrLogOrder);
        const bool flushed = flush() == 0;
        const bool closed = chunk_.closeChunkFile() == 0;
        const bool saved = told_ && served([this] { return manager_.saveManageData() == 0; });
        abandon();
        return flushed && closed && saved ? 0 : -1;
      },
      [&]() -> int {
        abandon();
        return refuse(kErrNoMemory);
      });
}

}  // namespace tarn
