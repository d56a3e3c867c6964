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
// The same of what is worth knowing and no failure.
void warn(const std::string& text);
// What complain() would write, with its line feed.
std::string complaint(const std::string& text);
// The form in which both say things from now on, for programs that read them: what it makes of a
// text, and of "error" or "warning", is a line of its own. Set before there is a second thread.
using ComplaintForm = std::string (*)(const char* kind, const std::string& text);
void complainAs(ComplaintForm form);

// A text of which no number is longer than anybody can read: digits behind the twentieth of a row
// go.
std::string withShortNumbers(const std::string& text);

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

}  // namespace tarn
