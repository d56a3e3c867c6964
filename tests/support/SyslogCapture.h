#pragma once

#include <string>
#include <vector>

namespace tarn_test {

// One line as it went to syslog(): the priority as passed and the formatted text.
struct LogLine {
  int priority;
  std::string text;
  bool operator==(const LogLine& other) const {
    return priority == other.priority && text == other.text;
  }
};
std::ostream& operator<<(std::ostream& out, const LogLine& line);

// Collects, while it lives, every line that this process logs, from all threads. The test program
// itself defines syslog(), so nothing reaches the machine's log. Captures nest; the innermost wins.
class SyslogCapture {
 public:
  SyslogCapture();
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;

  std::vector<LogLine> lines() const;
  // The lines without their "function line N in File.cpp: " (or "is File: ") prefix, where they
  // have one: line numbers are free, the rest is not. The prefix itself is checked against "name
  // line <digits> in|is word: " and any other text is kept whole.
  std::vector<LogLine> withoutPrefix() const;
  std::vector<LogLine> atPriority(int priority) const;
  // True when a line of exactly this priority and text (with or without prefix) was logged.
  bool has(int priority, const std::string& text) const;
  size_t count(int priority, const std::string& text) const;
  void clear();
  // Called by the interposed syslog functions.
  void add(int priority, std::string text);

 private:
  std::vector<LogLine> lines_;
  SyslogCapture* outer_;
};

}  // namespace tarn_test
