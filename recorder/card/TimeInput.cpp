#include "recorder/card/TimeInput.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <optional>
#include <vector>

#include "recorder/card/CivilTime.h"
#include "recorder/card/TimeText.h"

namespace tarn {
namespace {

constexpr int64_t kMicros = 1000000;
constexpr int64_t kDay = 86400;
constexpr int64_t kLastMicro = int64_t{0xFFFFFFFF} * kMicros - 1;
constexpr char kOutside[] = "lies outside of the years 1970 to 2106";
// No zone is further from UTC, in either direction.
constexpr int32_t kMostOffset = 16 * 3600;
// Changes of a zone lie further apart.
constexpr int64_t kLookEach = 3600;

// Reads a text from its beginning on.
class Cursor {
 public:
  explicit Cursor(const std::string& text) : text_(text) {}

  bool atEnd() const { return at_ == text_.size(); }
  char peek() const { return atEnd() ? '\0' : text_[at_]; }
  bool take(const char* anyOf) {
    if (atEnd() || std::string(anyOf).find(text_[at_]) == std::string::npos) return false;
    ++at_;
    return true;
  }
  bool isDigit() const { return peek() >= '0' && peek() <= '9'; }
  // Exactly so many digits.
  bool number(int digits, int* value) {
    *value = 0;
    for (; digits > 0; --digits) {
      if (!isDigit()) return false;
      *value = *value * 10 + (text_[at_++] - '0');
    }
    return true;
  }
  // Digits, one or more, up to what twelve of them hold.
  bool anyNumber(int64_t* value) {
    if (!isDigit()) return false;
    for (*value = 0; isDigit(); ++at_) {
      if (*value > 99999999999) return false;
      *value = *value * 10 + (text_[at_] - '0');
    }
    return true;
  }
  // What stands behind a point or comma, in microseconds; further digits are passed over.
  bool fraction(uint32_t* micros) {
    if (!isDigit()) return false;
    *micros = 0;
    for (uint32_t worth = 100000; isDigit(); ++at_, worth /= 10)
      *micros += worth * static_cast<uint32_t>(text_[at_] - '0');
    return true;
  }
  bool startsWithDate() const { return text_.size() > 4 && text_[4] == '-'; }

 private:
  const std::string& text_;
  size_t at_ = 0;
};

// What of a time was typed.
struct Typed {
  CivilTime civil;
  bool hasTime = false;
  std::optional<uint32_t> micros;
  std::optional<int32_t> offset;
};

bool readDate(Cursor* text, CivilTime* civil) {
  return text->number(4, &civil->year) && text->take("-") && text->number(2, &civil->month) &&
         text->take("-") && text->number(2, &civil->day);
}

bool readTimeOfDay(Cursor* text, Typed* typed) {
  typed->hasTime = true;
  CivilTime& civil = typed->civil;
  if (!text->number(2, &civil.hour) || !text->take(":") || !text->number(2, &civil.minute))
    return false;
  if (!text->take(":")) return true;
  if (!text->number(2, &civil.second)) return false;
  uint32_t micros = 0;
  if (!text->take(".,")) return true;
  if (!text->fraction(&micros)) return false;
  typed->micros = micros;
  return true;
}

// Z, +02:00, +0200 or +02.
bool readOffset(Cursor* text, Typed* typed) {
  if (text->take("Zz")) {
    typed->offset = 0;
    return true;
  }
  const bool behind = text->peek() == '-';
  int hours = 0;
  int minutes = 0;
  if (!text->take("+-") || !text->number(2, &hours)) return false;
  const bool colon = text->take(":");
  if ((colon || text->isDigit()) && !text->number(2, &minutes)) return false;
  const int32_t ahead = hours * 3600 + minutes * 60;
  typed->offset = behind ? -ahead : ahead;
  return minutes < 60 && ahead <= kMostOffset;
}

bool isRight(const CivilTime& civil) {
  return civil.month >= 1 && civil.month <= 12 && civil.day >= 1 &&
         civil.day <= daysOfMonth(civil.year, civil.month) && civil.hour < 24 &&
         civil.minute < 60 && civil.second < 60;
}

// The moments at which the clock on the wall shows this, in order.
std::vector<int64_t> momentsOf(int64_t wall) {
  std::vector<int32_t> offsets;
  for (int64_t at = wall - kMostOffset; at <= wall + kMostOffset; at += kLookEach)
    offsets.push_back(TimeText::offsetAt(at));
  std::sort(offsets.begin(), offsets.end(), std::greater<>());
  offsets.erase(std::unique(offsets.begin(), offsets.end()), offsets.end());
  std::vector<int64_t> moments;
  for (const int32_t offset : offsets) {
    if (TimeText::offsetAt(wall - offset) == offset) moments.push_back(wall - offset);
  }
  return moments;
}

// The moment at which clocks skip what the wall's clock never shows.
int64_t skipOf(int64_t wall) {
  int64_t before = wall - kMostOffset;
  int64_t behind = wall + kMostOffset;
  while (behind - before > 1) {
    const int64_t middle = before + (behind - before) / 2;
    (middle + TimeText::offsetAt(middle) > wall ? behind : before) = middle;
  }
  return behind;
}

std::string clockText(int64_t moment, int32_t offset) {
  const std::string whole =
      TimeText::of(static_cast<uint32_t>(std::max<int64_t>(moment, 0)), 0, offset);
  return whole.substr(11, 8) + whole.substr(23);
}

class Reader {
 public:
  Reader(const std::string& text, TimeInput::Edge edge, PictureTime now)
      : text_(text), end_(edge == TimeInput::Edge::kEnd), now_(now) {}

  bool run() {
    if (text_ == "now") return take(now_.totalMicros());
    Cursor cursor(text_);
    if (cursor.take("@")) return readEpoch(&cursor);
    if (cursor.take("-")) return readAgo(&cursor);
    Typed typed;
    return readTyped(&cursor, &typed) && resolve(typed);
  }
  PictureTime time() const { return time_; }
  const std::string& error() const { return error_; }

 private:
  bool refuse(const std::string& why) {
    error_ = "\"" + text_ + "\" " + why;
    return false;
  }
  bool refuseForm() {
    return refuse(
        "is not a time; write 2026-03-01T08:00:00, with Z or +02:00 behind it for another zone, or "
        "2026-03-01, 08:00, @1772352000, now or -1h");
  }

  bool take(int64_t micros) {
    if (micros < 0 || micros > kLastMicro) return refuse(kOutside);
    time_ = PictureTime::fromMicros(micros);
    return true;
  }
  // A second, of which an end takes all.
  bool takeSecond(int64_t seconds, std::optional<uint32_t> micros) {
    return take(seconds * kMicros + micros.value_or(end_ ? kMicros - 1 : 0));
  }

  bool readEpoch(Cursor* cursor) {
    int64_t seconds = 0;
    if (!cursor->anyNumber(&seconds)) return refuseForm();
    std::optional<uint32_t> micros;
    if (cursor->take(".,") && !cursor->fraction(&micros.emplace())) return refuseForm();
    return cursor->atEnd() ? takeSecond(seconds, micros) : refuseForm();
  }

  bool readAgo(Cursor* cursor) {
    constexpr struct {
      const char* unit;
      int64_t seconds;
    } kUnits[] = {{"s", 1}, {"m", 60}, {"h", 3600}, {"d", kDay}, {"w", 7 * kDay}};
    int64_t ago = 0;
    do {
      int64_t count = 0;
      if (!cursor->anyNumber(&count)) return refuseForm();
      int64_t each = 0;
      for (const auto& unit : kUnits) {
        if (cursor->take(unit.unit)) each = unit.seconds;
      }
      if (each == 0) return refuseForm();
      ago = std::min(ago + std::min(count, kLastMicro / kMicros) * each, kLastMicro);
    } while (!cursor->atEnd());
    return take(now_.totalMicros() - std::min(ago, kLastMicro / kMicros + 1) * kMicros);
  }

  bool readTyped(Cursor* cursor, Typed* typed) {
    const bool dated = cursor->startsWithDate();
    if (dated && !readDate(cursor, &typed->civil)) return refuseForm();
    if (dated ? cursor->take("Tt ") : true) {
      if (!readTimeOfDay(cursor, typed)) return refuseForm();
    }
    if (!cursor->atEnd() && (!readOffset(cursor, typed) || !cursor->atEnd())) return refuseForm();
    if (!dated) setToday(typed);
    if (!isRight(typed->civil)) return refuse("is no time that a clock shows");
    return (typed->civil.year >= 1970 && typed->civil.year <= 2106) || refuse(kOutside);
  }

  void setToday(Typed* typed) const {
    const int32_t ahead = typed->offset.value_or(TimeText::offsetAt(now_.seconds));
    const CivilTime today = civilTime(int64_t{now_.seconds} + ahead);
    typed->civil.year = today.year;
    typed->civil.month = today.month;
    typed->civil.day = today.day;
  }

  bool resolve(const Typed& typed) {
    const int64_t wall = secondsOf(typed.civil);
    if (!typed.hasTime) return resolveDay(wall, typed.offset);
    if (typed.offset) return takeSecond(wall - *typed.offset, typed.micros);
    const std::vector<int64_t> moments = momentsOf(wall);
    if (moments.size() == 1) return takeSecond(moments[0], typed.micros);
    return moments.empty() ? refuseSkipped(wall) : refuseTwice(wall, moments);
  }

  // A day begins with its first moment, which need not be called midnight, and lasts up to that of
  // the next.
  bool resolveDay(int64_t wall, std::optional<int32_t> offset) {
    return end_ ? take(dayBegin(wall + kDay, offset) * kMicros - 1)
                : take(dayBegin(wall, offset) * kMicros);
  }
  static int64_t dayBegin(int64_t wall, std::optional<int32_t> offset) {
    if (offset) return wall - *offset;
    const std::vector<int64_t> moments = momentsOf(wall);
    return moments.empty() ? skipOf(wall) : moments[0];
  }

  bool refuseSkipped(int64_t wall) {
    const int64_t skip = skipOf(wall);
    return refuse("does not exist: clocks went from " +
                  clockText(skip, TimeText::offsetAt(skip - 1)) + " to " +
                  clockText(skip, TimeText::offsetAt(skip)));
  }

  bool refuseTwice(int64_t wall, const std::vector<int64_t>& moments) {
    std::string both;
    for (const int64_t moment : moments) {
      if (!both.empty()) both += " or ";
      both += text_ + TimeText::offset(static_cast<int32_t>(wall - moment));
    }
    return refuse("comes twice: write " + both);
  }

  const std::string& text_;
  const bool end_;
  const PictureTime now_;
  PictureTime time_;
  std::string error_;
};

}  // namespace

bool TimeInput::parse(const std::string& text, Edge edge, PictureTime* time, std::string* error) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return parse(text, edge,
               PictureTime::fromMicros(int64_t{now.tv_sec} * kMicros + now.tv_nsec / 1000), time,
               error);
}

bool TimeInput::parse(const std::string& text, Edge edge, PictureTime now, PictureTime* time,
                      std::string* error) {
  Reader reader(text, edge, now);
  const bool good = reader.run();
  if (good) *time = reader.time();
  if (!good) *error = reader.error();
  return good;
}

}  // namespace tarn
