#pragma once

// Log texts of what the recorder does around the journal, at LOG_ERR unless said otherwise.
namespace tarn {

inline constexpr char kMsgJournalStale[] =
    "journal: free offset %u of the %s journal is stale, corrected to %u";  // LOG_WARNING
inline constexpr char kMsgJournalOutOfOrder[] =
    "journal: record of %s %u lies in the way, the row is deleted";
inline constexpr char kMsgJournalFullOfCopies[] =
    "journal: every place holds the record of a kept copy; release some";
inline constexpr char kMsgNextPlaceRefused[] =
    "journal: %s cannot be read, nothing is written there";
inline constexpr char kMsgRecordOfLostRow[] =
    "journal: the next place holds %s %u, whose key the database has not given yet: it is older "
    "than "
    "the card, a start makes it anew";
inline constexpr char kMsgOtherInserts[] =
    "journal: another process on this machine inserts rows, and only one may";
inline constexpr char kMsgNoInsertLock[] =
    "journal: cannot take the lock of the inserting process: %s";
inline constexpr char kMsgJournalUnreadable[] = "journal: chunk %d cannot be opened";
inline constexpr char kMsgStartUpFailed[] = "start-up: %s";

// What a start-up reports for a person.
inline constexpr char kErrNoEmptyDatabase[] = "the empty database could not be set up";
inline constexpr char kErrEventReplay[] = "the events could not be rebuilt from the card's journal";
inline constexpr char kErrStreamReplay[] =
    "the recordings could not be rebuilt from the card's journal";
inline constexpr char kErrPlaceRefused[] =
    " cannot be read; nothing was changed, and the next start tries again";  // behind the place
inline constexpr char kErrSurvey[] = "the card's journal could not be read";
inline constexpr char kErrRowCount[] =
    "the rebuilt database has other rows than the card's journal";
inline constexpr char kErrJournalManage[] = "the card's journal could not be made ready";

}  // namespace tarn
