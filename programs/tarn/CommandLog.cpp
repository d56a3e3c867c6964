#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <nlohmann/json.hpp>

#include "Command.h"
#include "Console.h"
#include "api/CApiTarnSyslogRead.h"
#include "chunk/LogChunks.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNSyslogManager.h"
#include "recorder/card/TimeText.h"
#include "recorder/log/LogChunkLines.h"
#include "recorder/log/LogFormat.h"
#include "recorder/log/LogWriter.h"
#include "recorder/rows/ServerRetry.h"

namespace tarn {
namespace {

constexpr int kFollowMs = 250;
constexpr size_t kReadBytes = 64 * 1024;
// Standard input without a line feed for so long is not kept any longer.
constexpr size_t kLongestLine = 256 * 1024;
// Text that keeps coming in is safe after so long at most.
constexpr int64_t kFlushMs = 1000;
// More lines than five chunks hold.
constexpr uint32_t kMostLines = 10000000;
constexpr char kNoServer[] =
    "the management server does not answer; use --card CARD to look at a card without one";

constexpr char kNoLogData[] =
    "the management server cannot read the card's management data of the system log";

class CommandLog : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("log", "Show the system log on the card, or write to it");
    addCard(app);
    CLI::Option* write =
        app->add_flag("--write", write_, "append each line of standard input, until its end");
    app->add_flag("-f,--follow", follow_, "go on showing what is added, until interrupted")
        ->excludes(write);
    addTime(app, "--since", "only lines of this time or later", TimeInput::Edge::kStart, &since_)
        ->excludes(write);
    app->add_option("-n,--lines", last_, "only the last N lines of what is there")
        ->type_name("N")
        ->check(CLI::Range(1u, kMostLines))
        ->excludes(write);
    app->add_flag("--json", json_, "print each line as JSON, an object a line")->excludes(write);
    app->add_option("--chunk", chunk_, "only this syslog chunk, 0 to 4")
        ->check(CLI::Range(0, kLogChunks - 1))
        ->excludes(write);
    return app;
  }

  bool changesCard() const override { return write_; }
  int run() override { return write_ ? writeLines() : showLines(); }

 private:
  // The reader complains on standard output, so it is asked only where there is a server. What is
  // wrong otherwise, or null.
  static const char* serverFault() {
    CTARNSyslogManager manager(kRecorderPartition);
    const bool answers = manager.openManageData() == 0;
    manager.closeManageData();
    if (answers) return nullptr;
    return cardRefused(manager) ? kNoLogData : kNoServer;
  }

  int showLines() {
    if (const char* fault = serverFault()) {
      complain(fault);
      return kExitFailed;
    }
    CApiTarnSyslogRead reader;
    const int active = reader.getActiveChunk(0);
    if (active < 0 || active >= kLogChunks) {
      complain("the management data names no active syslog chunk; the card needs recovery");
      return kExitFailed;
    }
    LogChunkLines lines;
    if (chunk_ >= 0) {
      lines.start(chunk_);
      if (!show(&reader, &lines)) return kExitFailed;
    }
    // From the oldest chunk, the one that is written next, to the active one.
    for (int i = 1; chunk_ < 0 && i <= kLogChunks; ++i) {
      lines.start((active + i) % kLogChunks);
      if (!show(&reader, &lines)) return kExitFailed;
    }
    if (!showLast()) return kExitFailed;
    return follow_ ? followLines(&reader, &lines) : kExitGood;
  }

  bool show(CApiTarnSyslogRead* reader, LogChunkLines* lines) {
    const bool read =
        lines->readNew(reader, [this](const std::string& line) { return showLine(line); });
    if (outputError_ != 0) return false;
    if (read) return true;
    complain(fmt::format("syslog chunk {} cannot be read", lines->chunk()));
    return false;
  }

  bool showLine(const std::string& text) {
    const LogLine line = parseLogLine(text);
    if (line.filling || (since_ && line.seconds < int64_t{since_->seconds})) return true;
    const std::string whole = (json_ ? asJson(line) : line.text) + "\n";
    if (last_ == 0 || lastShown_) return put(whole);
    kept_.push_back(whole);
    if (kept_.size() > last_) kept_.pop_front();
    return true;
  }

  // The lines that were held back until it was known which are the last; what comes from now on is
  // shown as it comes.
  bool showLast() {
    lastShown_ = true;
    while (!kept_.empty()) {
      if (!put(kept_.front())) return false;
      kept_.pop_front();
    }
    return true;
  }

  // The time is the clock's own where the line has one, or null.
  static std::string asJson(const LogLine& line) {
    const bool known = line.seconds >= 0;
    const nlohmann::ordered_json json = {
        {"time", known
                     ? nlohmann::ordered_json(TimeText::iso(static_cast<uint32_t>(line.seconds), 0))
                     : nlohmann::ordered_json(nullptr)},
        {"text", line.text}};
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  }

  bool put(const std::string& whole) {
    return fwrite(whole.data(), 1, whole.size(), stdout) == whole.size() || stopOutput();
  }

  // Whoever reads our output may have seen enough; anything else is worth a word.
  bool stopOutput() {
    outputError_ = errno;
    if (outputError_ != EPIPE) complain("standard output could not be written");
    return false;
  }

  int followLines(CApiTarnSyslogRead* reader, LogChunkLines* lines) {
    for (;;) {
      // A reader that went away shows first here, and a file or pipe gets its lines at once.
      if (fflush(stdout) != 0) {
        stopOutput();
        return kExitFailed;
      }
      if (stopRequested()) return kExitGood;
      poll(nullptr, 0, kFollowMs);
      // What was added before the change of chunk comes first.
      const int active = chunk_ >= 0 ? chunk_ : int{reader->getActiveChunk(0)};
      if (active < 0) complain(kNoServer);
      if (active < 0 || !show(reader, lines)) return kExitFailed;
      if (active == lines->chunk()) continue;
      lines->start((lines->chunk() + 1) % kLogChunks);
    }
  }

  int writeLines() {
    writer_ = std::make_unique<LogWriter>();
    if (writer_->open() != 0) return writeFailed();
    const bool good = copyInput();
    if (writer_->isOpen() && writer_->close() != 0) return writeFailed();
    return good ? kExitGood : writeFailed();
  }

  int writeFailed() {
    complain(std::string("the system log: ") +
             (inputError_.empty() ? writer_->errorText() : inputError_.c_str()));
    return kExitFailed;
  }

  // Lines are brought to the card when no more come in at once, and every second when they do.
  bool copyInput() {
    std::string rest;
    std::string block(kReadBytes, '\0');
    int64_t flushed = monotonicMs();
    while (!stopRequested()) {
      pollfd input = {STDIN_FILENO, POLLIN, 0};
      const bool idle = poll(&input, 1, 0) == 0;
      if (idle || monotonicMs() - flushed >= kFlushMs) {
        if (writer_->flush() != 0) return false;
        flushed = monotonicMs();
      }
      // The wait is short, for a signal just before it does not end it.
      if (idle && poll(&input, 1, kFollowMs) <= 0) continue;
      const ssize_t got = read(STDIN_FILENO, block.data(), block.size());
      if (got == 0) break;
      if (got < 0 && errno != EINTR && errno != EAGAIN) return refuseInput(errno);
      if (got > 0 && !takeInput(&rest, block.data(), static_cast<size_t>(got))) return false;
    }
    return rest.empty() || writer_->append(rest.data(), rest.size()) == 0;
  }

  bool takeInput(std::string* rest, const char* bytes, size_t length) {
    rest->append(bytes, length);
    size_t start = 0;
    for (size_t feed; (feed = rest->find('\n', start)) != std::string::npos; start = feed + 1) {
      if (writer_->append(rest->data() + start, feed - start) != 0) return false;
    }
    rest->erase(0, start);
    if (rest->size() < kLongestLine) return true;
    const bool good = writer_->append(rest->data(), rest->size()) == 0;
    rest->clear();
    return good;
  }

  bool refuseInput(int error) {
    inputError_ = std::string("standard input cannot be read: ") + strerror(error);
    return false;
  }

  bool write_ = false;
  bool follow_ = false;
  std::optional<PictureTime> since_;
  uint32_t last_ = 0;  // lines; 0: all
  bool lastShown_ = false;
  std::deque<std::string> kept_;  // the last ones so far
  bool json_ = false;
  int chunk_ = -1;
  std::string inputError_;
  int outputError_ = 0;
  // Made when it is needed.
  std::unique_ptr<LogWriter> writer_;
};

}  // namespace

std::unique_ptr<Command> makeLogCommand() { return std::make_unique<CommandLog>(); }

}  // namespace tarn
