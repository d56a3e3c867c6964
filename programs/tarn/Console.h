#pragma once

#include <cstdint>
#include <string>

namespace tarn {

// Where a private view shows the user's /tmp.
inline constexpr char kOutsideTmp[] = "/tmp/.outside";
// A text in which paths read as the user knows them, also from inside a private view.
std::string asUserSees(std::string text);

// "tarn: text" on standard error, as the user sees it.
void complain(const std::string& text);

// One line on standard error that is written over and over, and only where a person looks at it.
class ProgressLine {
 public:
  ProgressLine();
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  void show(const std::string& text);

 private:
  bool terminal_;
  std::string shown_;
};

// From the first call on, SIGINT, SIGTERM and SIGHUP ask for an orderly stop instead of ending the
// program; a second SIGINT, half a second after it or later, ends it.
void catchStopSignals();
bool stopRequested();
// Back to what signals do by themselves; for a child process about to run another program.
void resetStopSignals();

// A size: digits with an optional K, M, G or T (powers of 1024; "MiB" and "MB" are the same). False
// for anything else and for what 64 bits cannot hold.
bool parseSize(const std::string& text, uint64_t* bytes);

// 'YYYY-MM-DDTHH:MM:SS' (or with a blank instead of T) in local time, to seconds. False for
// anything else, for days that do not exist, and for what 32 bits cannot hold.
bool parseTime(const std::string& text, uint32_t* seconds);
// Seconds and milliseconds as "YYYY-MM-DD HH:MM:SS.mmm" local time, and as ISO 8601 with the
// offset from UTC.
std::string timeText(uint32_t seconds, uint16_t milliseconds);
std::string isoTime(uint32_t seconds, uint16_t milliseconds);

}  // namespace tarn
