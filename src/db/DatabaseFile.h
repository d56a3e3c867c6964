#pragma once

// The database as every process finds it: its file on the RAM disk, and the System V semaphore that
// guards it. Whoever else wants to use the database needs all of these.
namespace tarn {

inline constexpr char kDatabasePath[] = "/tmp/DB.dat";
// What SQLite leaves beside it of a transaction that was not ended.
inline constexpr char kDatabaseJournalPath[] = "/tmp/DB.dat-journal";
// The image from the card, until it has proved itself; and its own leavings.
inline constexpr char kRestoredImagePath[] = "/tmp/DB.dat.image";
inline constexpr char kRestoredImageJournalPath[] = "/tmp/DB.dat.image-journal";
// The rows of the journals while these are still being read, until it is known that they count.
inline constexpr char kEarlyDatabasePath[] = "/tmp/DB.dat.early";

// The semaphore's key is ftok() of these two, and the permissions of a new one.
inline constexpr char kDatabaseLockFile[] = "/bin/cp";
inline constexpr int kDatabaseLockProject = 1;
inline constexpr int kDatabaseLockMode = 0666;

}  // namespace tarn
