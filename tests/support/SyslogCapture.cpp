#include "support/SyslogCapture.h"

#include <regex.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <new>
#include <ostream>

namespace tarn_test {
namespace {

std::recursive_mutex& captureMutex() {
  static auto* mutex = new std::recursive_mutex;  // outlives every static destructor that logs
  return *mutex;
}
SyslogCapture* g_current = nullptr;

void deliver(int priority, const char* format, va_list args) {
  const int savedErrno = errno;
  char text[8192];
  vsnprintf(text, sizeof text, format, args);
  {
    std::lock_guard<std::recursive_mutex> lock(captureMutex());
    // The system's log needs no memory of the caller's: a line is lost here where it would not be.
    try {
      if (g_current != nullptr) g_current->add(priority, text);
    } catch (const std::bad_alloc&) {
    }
  }
  errno = savedErrno;
}

std::string stripPrefix(const std::string& text) {
  // The system's expressions: those of C++ take ten seconds to compile under a sanitizer.
  static const regex_t prefix = [] {
    regex_t compiled;
    regcomp(&compiled, "^[~A-Za-z_0-9]+ line [0-9]+ (in|is) [A-Za-z_0-9.]+: ", REG_EXTENDED);
    return compiled;
  }();
  regmatch_t match;
  return regexec(&prefix, text.c_str(), 1, &match, 0) == 0
             ? text.substr(static_cast<size_t>(match.rm_eo))
             : text;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << "<" << line.priority << ">\"" << line.text << "\"";
}

SyslogCapture::SyslogCapture() {
  std::lock_guard<std::recursive_mutex> lock(captureMutex());
  outer_ = g_current;
  g_current = this;
}

SyslogCapture::~SyslogCapture() {
  std::lock_guard<std::recursive_mutex> lock(captureMutex());
  g_current = outer_;
}

void SyslogCapture::add(int priority, std::string text) {
  lines_.push_back({priority, std::move(text)});
}

std::vector<LogLine> SyslogCapture::lines() const {
  std::lock_guard<std::recursive_mutex> lock(captureMutex());
  return lines_;
}

std::vector<LogLine> SyslogCapture::withoutPrefix() const {
  std::vector<LogLine> result = lines();
  for (LogLine& line : result) line.text = stripPrefix(line.text);
  return result;
}

std::vector<LogLine> SyslogCapture::atPriority(int priority) const {
  std::vector<LogLine> result;
  for (LogLine& line : withoutPrefix()) {
    if (line.priority == priority) result.push_back(line);
  }
  return result;
}

size_t SyslogCapture::count(int priority, const std::string& text) const {
  size_t found = 0;
  for (const LogLine& line : lines()) {
    if (line.priority == priority && (line.text == text || stripPrefix(line.text) == text)) ++found;
  }
  return found;
}

bool SyslogCapture::has(int priority, const std::string& text) const {
  return count(priority, text) > 0;
}

void SyslogCapture::clear() {
  std::lock_guard<std::recursive_mutex> lock(captureMutex());
  lines_.clear();
}

}  // namespace tarn_test

// The libraries' calls resolve to these, because the executable comes first in symbol look-up.
extern "C" {
void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  tarn_test::deliver(priority, format, args);
  va_end(args);
}
void vsyslog(int priority, const char* format, va_list args) {
  tarn_test::deliver(priority, format, args);
}
void __syslog_chk(int priority, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  tarn_test::deliver(priority, format, args);
  va_end(args);
}
void __vsyslog_chk(int priority, int, const char* format, va_list args) {
  tarn_test::deliver(priority, format, args);
}
}
