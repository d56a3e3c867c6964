#pragma once

// What archiving says to syslog.
namespace tarn {

inline constexpr char kMsgArchiveEndangered[] =
    "CardArchiver: %zu recordings that the ring overwrites next are not %s, the first is %s";
inline constexpr char kMsgArchiveFailed[] = "CardArchiver: %s";
inline constexpr char kMsgArchiveGood[] = "CardArchiver: all that is over is archived";
inline constexpr char kMsgArchiveEvent[] = "CardArchiver: event %u is archived";

}  // namespace tarn
