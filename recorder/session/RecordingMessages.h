#pragma once

#include <cinttypes>

// What recording says to syslog and, through errorText(), to a person.
namespace tarn {

inline constexpr char kMsgSessionFailed[] = "RecordingSession: channel %d: %s";
inline constexpr char kMsgLeftOver[] =
    "RecordingSession: recording %u was left open, %u pictures kept";
inline constexpr char kMsgLeftOverRefused[] =
    "RecordingSession: recording %u was left open and cannot be read, it stays open";
inline constexpr char kMsgClockStepped[] =
    "RecordingSession: channel %d: the clock was set by %" PRId64 " us, a new recording begins";
inline constexpr char kMsgClockKnown[] =
    "RecordingSession: channel %d: the clock became known and was set by %" PRId64 " us";
inline constexpr char kMsgNoClockEra[] =
    "RecordingSession: /tmp/tarn-clock-eras cannot be written, nothing will be re-dated";
inline constexpr char kMsgSpaceNoHeader[] =
    "RecordingSpace: header of recording %u in chunk %d cannot be read; continuing behind it";
inline constexpr char kMsgSpaceOrphan[] = "RecordingSpace: chunk %d holds no recording, emptied";

inline constexpr char kMsgQueueFull[] =
    "PictureQueue: more than %zu KiB wait for the session, the oldest pictures go";
inline constexpr char kMsgQueueDropped[] =
    "PictureQueue: %" PRIu64 " pictures of %u.%03u to %u.%03u were dropped: no room";

inline constexpr char kErrAudioBit[] = "bit 7 of the frame setting marks audio and must be clear";
inline constexpr char kErrSoundFormat[] =
    "sound needs a codec that is known, channels, a sample rate and at most 255 bytes of "
    "configuration";
inline constexpr char kErrSoundFrame[] = "the frame is empty or larger than 65535 bytes or samples";
inline constexpr char kErrChannel[] = "the channel must be 0 to 127";
inline constexpr char kErrKeptChannel[] =
    "channel 126 holds kept events and has no camera; record on another one";
inline constexpr char kErrChannelBusy[] = "another session records this channel";
inline constexpr char kErrChannelLock[] = "the channel's lock in /tmp cannot be taken";
inline constexpr char kErrTakeBackOtherProcess[] =
    "another process records on this machine; stop it before a re-dating is taken back";
inline constexpr char kErrTakeBackBusy[] = "another program keeps events on this card";
inline constexpr char kErrTakeBackNothing[] =
    "no recording has the times of that re-dating: overwritten, or taken back already";
inline constexpr char kErrOtherProcess[] =
    "another process records on this machine; all channels are recorded by one process";
inline constexpr char kErrInsertLock[] = "the recording process's lock in /tmp cannot be taken";
inline constexpr char kErrMarker[] =
    "the card failed before (/tmp/sd_err_mem_write exists); check it and remove the file";
inline constexpr char kErrServer[] = "the management server does not answer";
inline constexpr char kErrServerCard[] =
    "the management server cannot read or write the card's management data";
inline constexpr char kErrServerDatabase[] = "the database is locked by another program";
inline constexpr char kErrLock[] = "the allocation lock cannot be taken";
inline constexpr char kErrJournalPlace[] = "the journal has no safe place for a record";
inline constexpr char kErrNoRoom[] = "no chunk has room and nothing is left to delete";
inline constexpr char kErrTooFewChunks[] =
    "every chunk is being recorded into: the card has fewer chunks than channels and their sound";
inline constexpr char kErrForeignRows[] =
    "a chunk that counts as unused has recordings; the card needs recovery";
inline constexpr char kErrPictureSize[] = "the picture is empty or larger than a chunk";
inline constexpr char kErrOpenChunk[] = "a chunk cannot be opened";
inline constexpr char kErrReadChunk[] = "a picture chunk cannot be read";
inline constexpr char kErrNumbers[] = "the picture numbers of a chunk leave no gap";
inline constexpr char kErrWriteData[] = "writing stream data failed";
inline constexpr char kErrWriteEntries[] = "writing picture entries failed";
inline constexpr char kErrWriteHeader[] = "writing a stream header failed";

}  // namespace tarn
