#pragma once

// Log texts of the start-up recovery.
namespace tarn {

inline constexpr char kMsgRecoveryFailed[] = "recovery: %s";                    // LOG_ERR
inline constexpr char kMsgRecoveryProblem[] = "recovery: %s";                   // LOG_WARNING
inline constexpr char kMsgRecoveryChange[] = "recovery: %s";                    // LOG_NOTICE
inline constexpr char kMsgRecoveryAgain[] = "recovery: tried again after: %s";  // LOG_WARNING

// What stops a recovery, for a person.
inline constexpr char kErrServerRuns[] =
    "a management server is running; recovery must run before it starts";
inline constexpr char kErrServerUnknown[] = "cannot find out whether a management server runs";
inline constexpr char kErrServerLock[] = "the management server's lock in /tmp cannot be taken";
inline constexpr char kErrGeometry[] = "the card's geometry could not be verified";
inline constexpr char kErrLockOfDead[] =
    "the database is locked by a process that is gone, and a recording is running: end it first";
inline constexpr char kErrManageFiles[] =
    "the card's management files cannot be read or written (is there a card?)";
inline constexpr char kErrRedating[] =
    "recordings of a clock that has become known could not all be re-dated";
inline constexpr char kErrOvertaken[] = "recordings left open long ago could not be deleted";
inline constexpr char kErrVideoRows[] = "interrupted recordings could not be repaired";
inline constexpr char kErrRemaining[] = "interrupted recordings could not be closed";
inline constexpr char kErrEvents[] = "events left open could not be ended";
inline constexpr char kErrHeaders[] = "the recordings' stream headers could not be repaired";
inline constexpr char kErrManageData[] = "the management data could not be rebuilt";
inline constexpr char kErrFlush[] = "the card could not be flushed";
inline constexpr char kErrFuseRows[] = "the recordings of each chunk could not be listed";
inline constexpr char kErrFuseJournal[] = "the journals could not be looked through once more";
// Behind "pictures are there".
inline constexpr char kFuseOrRefused[] = ", or what is there cannot be read";
// Behind what would be done.
inline constexpr char kFuseStop[] =
    "; none of it was done. Look at the card first (tarn check), or copy it; \"recover "
    "--accept\" "
    "goes on and does it, \"recover --unattended\" goes on and guards those chunks";
inline constexpr char kFuseGuard[] =
    "; it was not done, the chunks are guarded until \"tarn recover --accept\"";
inline constexpr char kFuseDone[] =
    "; it was done, and chunks with recordings that have no record are guarded until \"tarn "
    "recover "
    "--accept\"";
// Before the numbers.
inline constexpr char kProblemGuarded[] =
    "guarded until \"tarn recover --accept\", nothing is recorded into them: stream chunks ";
// Behind a recording's name.
inline constexpr char kProblemLost[] =
    ": nothing of its header and entries can be read; it stays until its room is needed, or until "
    "\"tarn recover --accept\"";
inline constexpr char kFuseAccepted[] = "; it was accepted";

// What keeps the database from being saved at a clean stop.
inline constexpr char kErrSaveServerRuns[] =
    "a management server is running; the database is saved when it has stopped";
inline constexpr char kErrSaveRecording[] =
    "a recording is running; the database is saved when it has ended";
inline constexpr char kErrSaveRecordingLock[] =
    "the lock of a recording in /tmp cannot be taken, so nobody knows whether it is running";
inline constexpr char kErrSaveLockOfDead[] =
    "the database is locked by a process that is gone; the next start rebuilds it";
inline constexpr char kErrSaveNoDatabase[] = "there is no database /tmp/DB.dat to save";

}  // namespace tarn
