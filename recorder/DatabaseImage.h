#pragma once

#include <string>

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
ImageRestore restoreDatabaseImage(std::string* error);

// Marks an image empty that a clean stop left and no start has taken: the recorder goes on without
// one, and the image will no longer be as new as the journal. To be called before rows can change.
// False when there is one and it cannot be marked empty.
bool dropDatabaseImage();

// Saves the database into its image; the old one is marked empty first. Nobody may use the database
// meanwhile. False, with the reason, when there is none to save or the chunk has no room; the next
// start then rebuilds it from the journal.
bool saveDatabaseImage(std::string* error);

}  // namespace tarn
