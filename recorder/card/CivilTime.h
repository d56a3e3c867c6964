#pragma once

#include <cstdint>

namespace tarn {

// A date and a time of day. Not part of the interface.
struct CivilTime {
  int year = 1970;
  int month = 1;  // 1 to 12
  int day = 1;    // from 1
  int hour = 0;
  int minute = 0;
  int second = 0;
};

inline bool isLeapYear(int year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

inline int daysOfMonth(int year, int month) {
  constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kDays[month - 1] + (month == 2 && isLeapYear(year) ? 1 : 0);
}

// Seconds since 1970 as the clock on a wall in UTC has them, and the other way round. By hand,
// because the C library's ends in 2038 where its clock has 32 bits, and a card's does not. Dates of
// the years 1970 to 2200.
inline int64_t secondsOf(const CivilTime& time) {
  int64_t days = time.day - 1;
  for (int year = 1970; year < time.year; ++year) days += isLeapYear(year) ? 366 : 365;
  for (int month = 1; month < time.month; ++month) days += daysOfMonth(time.year, month);
  return ((days * 24 + time.hour) * 60 + time.minute) * 60 + time.second;
}

// An offset can lead to the last day before 1970.
inline CivilTime civilTime(int64_t seconds) {
  CivilTime time;
  int64_t days = seconds / 86400;
  int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  time.hour = static_cast<int>(rest / 3600);
  time.minute = static_cast<int>(rest / 60 % 60);
  time.second = static_cast<int>(rest % 60);
  while (days < 0) days += isLeapYear(--time.year) ? 366 : 365;
  for (; days >= (isLeapYear(time.year) ? 366 : 365); ++time.year)
    days -= isLeapYear(time.year) ? 366 : 365;
  for (; days >= daysOfMonth(time.year, time.month); ++time.month)
    days -= daysOfMonth(time.year, time.month);
  time.day = static_cast<int>(days) + 1;
  return time;
}

}  // namespace tarn
