#pragma once

#include <string>

#include "recorder/recovery/JournalSurvey.h"

namespace tarn {

enum class ImageRestore {
  kNone,      // the card has no image
  kRestored,  // the database is there, and the image is marked empty
  kUnusable,  // there was one that is not to be trusted; it is marked empty
  kFailed,    // it could not be marked empty
};

// Puts the image that the last clean stop left on the card in the database's place. It is marked
// empty before anything relies on it: a power loss later must not bring it back, it is then older
// than the journal. *error says what was wrong with an unusable one. Not part of the interface.
//
// What an image must prove: its bytes are those that were saved and the journals hold what they
// held then (recorder/recovery/ImageFormat.h; images of before there were seals need not); it
// defines our tables and nothing else; and its newest rows are the journals' newest live records.
// `events` and `streams` are what a survey of the journals just found.
ImageRestore restoreDatabaseImage(const JournalSurvey& events, const JournalSurvey& streams,
                                  std::string* error);

// Marks an image empty that a clean stop left and no start has taken: the recorder goes on without
// one, and the image will no longer be as new as the journal. To be called before rows can change.
// False when there is one and it cannot be marked empty.
bool dropDatabaseImage();

// Saves the database into its image; the old one is marked empty first. Nobody may use the database
// meanwhile. What was saved is read back and compared. False, with the reason, when there is none
// to save, the chunk has no room, or the copy is not what the database is: there is no image then,
// and the next start rebuilds the database from the journal.
//
// With kAgain only the image that the database came from is marked full again, if it is still the
// database's; none is written. False where it is not.
enum class ImageSave { kAnew, kAgain };
bool saveDatabaseImage(ImageSave how, std::string* error);

}  // namespace tarn
