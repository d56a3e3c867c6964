#include "recorder/log/LogWriter.h"

#include <syslog.h>

#include "recorder/card/NoThrow.h"
#include "recorder/log/LogAppender.h"

namespace tarn {
namespace {

int refuseWithoutMemory() {
  syslog(LOG_ERR, kMsgOutOfMemory, "LogWriter");
  return -1;
}

}  // namespace

LogWriter::LogWriter()
    : appender_(orNoMemory(
          "LogWriter", [] { return std::make_unique<LogAppender>(); },
          []() -> std::unique_ptr<LogAppender> { return nullptr; })) {}

LogWriter::~LogWriter() = default;

int LogWriter::open() { return appender_ ? appender_->open() : refuseWithoutMemory(); }

int LogWriter::append(const char* text, size_t size) {
  return appender_ ? appender_->append(text, size) : refuseWithoutMemory();
}

int LogWriter::append(const char* text, size_t size, int64_t seconds) {
  return appender_ ? appender_->append(text, size, seconds) : refuseWithoutMemory();
}

int LogWriter::flush() { return appender_ ? appender_->flush() : refuseWithoutMemory(); }

int LogWriter::close() { return appender_ ? appender_->close() : refuseWithoutMemory(); }

bool LogWriter::isOpen() const { return appender_ && appender_->isOpen(); }

size_t LogWriter::collectedBytes() const { return appender_ ? appender_->collectedBytes() : 0; }

int LogWriter::chunk() const { return appender_ ? appender_->chunk() : -1; }

uint32_t LogWriter::freeOffset() const { return appender_ ? appender_->freeOffset() : 0; }

const char* LogWriter::errorText() const {
  return appender_ ? appender_->errorText() : kErrNoMemory;
}

}  // namespace tarn
