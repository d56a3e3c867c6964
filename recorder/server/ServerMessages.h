#pragma once

// Texts of the management server: to the system log and to standard error.
namespace tarn {

inline constexpr char kMsgServerRuns[] = "another management server answers on %s";
inline constexpr char kMsgServerProbe[] = "cannot find out whether a server answers on %s: %s";
inline constexpr char kMsgServerLock[] = "the lock file %s can't be opened: %s";
inline constexpr char kMsgServerCard[] =
    "no management data can be opened: the card is missing, damaged or cannot be read";
inline constexpr char kMsgServerDatabase[] =
    "the database is locked: requests for a chunk to record to are refused";
inline constexpr char kMsgServerListen[] = "can't listen on %s";
inline constexpr char kMsgServerImage[] = "the card's database image can't be marked empty";
inline constexpr char kMsgServerReady[] = "management server listens on %s";
inline constexpr char kMsgServerStopped[] = "management server stopped";
inline constexpr char kMsgStoreNotOpen[] =
    "management data of the %s chunks can't be read: requests for them are refused";
inline constexpr char kMsgStoreBadCrc[] =
    "management data of the %s chunks are damaged: requests for them are refused";
// Not to be mixed up with the store's own line, which has the suffix of the files.
inline constexpr char kMsgServerFromBackup[] =
    "management data of the %s chunks are not good in their main copy: taken from the backup";
inline constexpr char kMsgStoreNotSaved[] = "management data of the %s chunks can't be saved";

}  // namespace tarn
