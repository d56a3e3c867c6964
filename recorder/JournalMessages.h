#pragma once

// Log texts of what the recorder does around the journal.
namespace tarn {

inline constexpr char kMsgJournalStale[] =
    "journal: free offset %u of the %s journal is stale, corrected to %u";  // LOG_WARNING
inline constexpr char kMsgJournalOutOfOrder[] =
    "journal: record of %s %u lies in the way, the row is deleted";
inline constexpr char kMsgJournalUnreadable[] = "journal: chunk %d cannot be opened";
inline constexpr char kMsgStartUpStep[] = "start-up: %s failed %s";

}  // namespace tarn
