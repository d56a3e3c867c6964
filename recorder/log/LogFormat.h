#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/Export.h"

// A line of the system log on the card: "YYYY-MM-DDTHH:MM:SS text\n", local time. Pure functions of
// text and time; where lines lie in a chunk is LogLayout's matter.
namespace tarn {

inline constexpr size_t kLogStampBytes = 19;  // "YYYY-MM-DDTHH:MM:SS"
// The smallest piece that a card writes whole or not at all.
inline constexpr uint32_t kLogSectorBytes = 512;

// The text of one line, at most. A longer one goes on in further lines: "[...]" ends each line but
// the last, and begins each but the first.
inline constexpr size_t kLogTextBytes = 3900;
inline constexpr char kLogMore[] = "[...]";

// Seconds since 1970 as local time, "YYYY-MM-DDTHH:MM:SS". Times outside of the years 1970 to 9999
// come out as the nearest that is inside.
TARN_API std::string logStamp(int64_t seconds);
// What the search for the text's end makes of a stamp: it takes no account of summer time. -1 for
// what is not exactly a stamp, and for times that 32 bits do not hold.
TARN_API int64_t logStampSeconds(std::string_view stamp);
// Seconds since 1970 of a stamp, summer time included where it was in force; -1 as above.
TARN_API int64_t logStampTime(std::string_view stamp);

// The stamp and the note in front of a line's text for a time, behind a line stamped `last` (empty:
// the first of its chunk). Stamps never go back inside a chunk: while the clock is behind, the last
// one is repeated and the clock's own time follows as "(clock YYYY-MM-DDTHH:MM:SS) ". The same goes
// for times up to the mark's (a clock that was never set) and beyond what the search can read.
TARN_API std::string logPrefix(std::string_view last, int64_t seconds);

// A text as it may stand in a line: line feeds, carriage returns and tabs become blanks, other
// control bytes '?', blanks at the end go. Other bytes stay, UTF-8 or not.
TARN_API std::string logCleanText(std::string_view text);
// The texts of the lines that a clean text takes; none for an empty one. Characters of UTF-8 are
// not cut in two.
TARN_API std::vector<std::string> logSplitText(std::string_view clean);

// A line as read back, without its line feed.
struct LogLine {
  int64_t seconds = -1;  // the clock's own time where the line has one; -1: no time
  std::string text;      // the line for a person: control bytes replaced, filling cut off
  bool filling = false;  // a mark, an empty chunk's sign, or a line that only fills a block
};
TARN_API LogLine parseLogLine(std::string_view line);

}  // namespace tarn
