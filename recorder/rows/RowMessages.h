#pragma once

#include <cinttypes>

// What keeping the rows of the database says to syslog and to a person.
namespace tarn {

inline constexpr char kMsgNoReserve[] =
    "the RAM disk has no room for a reserve: recording ends when it is full";  // LOG_WARNING
inline constexpr char kMsgReserveGivenUp[] =
    "the RAM disk is full: recording goes on with its reserve; make room in /tmp";  // LOG_ERR

// What takes a re-dating back again: RedatingRecord reads it. LOG_NOTICE
inline constexpr char kMsgRedated[] =
    "RecordingSession: channel %d%s: re-dated %u of recordings %u to %u and %u of events %u to %u "
    "by %" PRId64 " s";
inline constexpr char kMsgRedatedSound[] = ", sound";  // behind the channel
inline constexpr char kMsgTakenBack[] =                // LOG_NOTICE
    "channel %d%s: taken back: %u of recordings %u to %u and %u of events %u to %u have the times "
    "of the earlier clock again, %" PRId64 " s earlier";
inline constexpr char kMsgTakingBackFinished[] =  // LOG_NOTICE
    "the interrupted taking back of a re-dating is finished: %u more recordings and %u "
    "events by %" PRId64 " s";
inline constexpr char kMsgTakingBackUnknown[] =  // LOG_WARNING
    "recording %u cannot be read: what was to be taken back with it keeps its time";
inline constexpr char kMsgTakingBackDropped[] =  // LOG_NOTICE
    "a re-dating that was to be taken back stands: the taking back was cut short before it began";
inline constexpr char kMsgRedatingFinished[] =  // LOG_NOTICE
    "channel %d: a re-dating that was cut short is finished: %u more moved by %" PRId64 " s";
inline constexpr char kMsgRedatingUnknown[] =  // LOG_WARNING
    "recording %u cannot be read: what was to be re-dated with it keeps its old time";

inline constexpr char kErrLockOfTheDead[] =
    "the database is locked by a program that died; tarn recover sets it free";
inline constexpr char kErrLockHeld[] =
    "the database has been locked by another program for too long";
inline constexpr char kErrDatabaseGone[] = "the database /tmp/DB.dat is gone";
inline constexpr char kErrDatabaseReplaced[] =
    "the database /tmp/DB.dat was replaced while it was in use";
inline constexpr char kErrDatabaseOlder[] =
    "the database has lost recordings that it had; the card needs recovery";
inline constexpr char kErrDatabase[] = "the database does not answer";
inline constexpr char kErrRow[] = "the database did not take the row";
inline constexpr char kErrDeleteRow[] = "the database did not delete the row";
inline constexpr char kErrJournal[] = "the journal did not take the record";

}  // namespace tarn
