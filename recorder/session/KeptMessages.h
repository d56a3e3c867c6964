#pragma once

#include <cinttypes>

// What keeping says to syslog and to a person.
namespace tarn {

inline constexpr char kMsgKeepFailed[] = "KeptCopies: %s";
inline constexpr char kMsgKept[] =
    "KeptCopies: recording %u of channel %d, %u pictures from %u on, is kept as %u";
inline constexpr char kMsgCopyDropped[] =
    "KeptCopies: copy %u was interrupted before all of it was on the card, dropped";
inline constexpr char kMsgCopyGivenUp[] =
    "KeptCopies: copy %u goes, the oldest one, to make room for another within the budget";

inline constexpr char kMsgKeeperElsewhere[] =
    "EventKeeper: another process keeps events on this machine";
inline constexpr char kMsgKeeperNoSocket[] =
    "EventKeeper: its socket in /tmp cannot be made; events are not kept";
inline constexpr char kMsgNotKept[] = "EventKeeper: event %u: %s";

inline constexpr char kErrKeeperFull[] =
    "too many requests to keep something are waiting already; ask again later";
inline constexpr char kErrKeepBusy[] = "another program keeps events on this card";
inline constexpr char kErrKeepOtherProcess[] =
    "another process records on this machine and takes no requests to keep; let it keep, or stop "
    "it";
inline constexpr char kErrKeepNothing[] = "nothing was recorded in that time";
inline constexpr char kErrKeepNotOver[] = "what is to be kept is still being recorded";
inline constexpr char kErrKeepRedated[] =
    "a recording that is to be kept was given its right time meanwhile; ask again";
inline constexpr char kErrKeepGone[] =
    "the recording was overwritten before all that is to be kept was copied";
inline constexpr char kErrKeepFull[] =
    "the budget for kept events is full; release one, give it more chunks, or let the oldest go";
inline constexpr char kErrKeepTooLarge[] =
    "what is to be kept is larger than the budget for kept events";
inline constexpr char kErrKeepStopped[] = "stopped before all was copied";
inline constexpr char kErrKeepRead[] = "a recording that is to be kept cannot be read";
inline constexpr char kErrKeepNoEvent[] = "there is no such event";
inline constexpr char kErrKeepNoCopy[] = "nothing is kept of it";
inline constexpr char kErrKeepOneChunk[] =
    "a card with a single chunk for recordings has no room for kept events";

}  // namespace tarn
