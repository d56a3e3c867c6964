#pragma once

// What the log writer tells syslog and, through errorText(), a person.
namespace tarn {

inline constexpr char kMsgLogWriter[] = "LogWriter: %s";
inline constexpr char kMsgLogNoEnd[] =
    "LogWriter: the end of syslog chunk %d cannot be found; continuing in the next one";

inline constexpr char kErrLogBusy[] = "another program writes the system log";
inline constexpr char kErrLogMarker[] =
    "the card failed before (/tmp/sd_err_mem_write exists); check it and remove the file";
inline constexpr char kErrLogServer[] = "the management server does not answer";
inline constexpr char kErrLogServerCard[] =
    "the management server cannot read or write the card's management data";
inline constexpr char kErrLogLock[] = "the lock file /tmp/tarn-log.lock cannot be opened";
inline constexpr char kErrLogChunks[] = "the card has too few syslog chunks, or they are too small";
inline constexpr char kErrLogOpen[] = "a syslog chunk cannot be opened";
inline constexpr char kErrLogRead[] = "a syslog chunk cannot be read";
inline constexpr char kErrLogWrite[] = "writing to a syslog chunk failed";
inline constexpr char kErrLogOrder[] = "the log writer is not open, or open already";

}  // namespace tarn
