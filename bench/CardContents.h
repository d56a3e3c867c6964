#pragma once

#include <cstdint>
#include <vector>

#include "Machine.h"
#include "db/DbRecords.h"

// What a card holds after a long life, written straight to its places.
namespace bench {

inline constexpr uint32_t kLifeBegins = 1700000000;  // seconds
inline constexpr uint32_t kPicturesPerSecond = 30;

// Fills both copies of a journal from its beginning with live records. backOffset and key of each
// row are set by its place.
void writeEventJournal(Card* card, std::vector<DB_EVENT> rows);
void writeStreamJournal(Card* card, std::vector<DB_STREAM> rows);

// `count` closed events, and as many closed recordings spread over the chunks of a card in ring
// order, a minute each.
std::vector<DB_EVENT> manyEvents(uint32_t count);
std::vector<DB_STREAM> manyStreams(const Card& card, uint32_t count);

// Gives the first and last recording of each chunk header and entries that fit.
void writeHeaders(Card* card, const std::vector<DB_STREAM>& rows);

// Gives each recording header and entries that fit, and its pictures their heads: a check finds
// nothing.
void writeWhole(Card* card, const std::vector<DB_STREAM>& rows);

// A recording for each chunk, which fills it with pictures of `pictureSize` bytes, and what they
// hold: heads of pictures, and else zeros, where a sparse card has no block unless they are written
// `whole`. The bytes of all pictures.
std::vector<DB_STREAM> fullStreams(const Card& card, uint32_t pictureSize);
uint64_t writeFull(Card* card, const std::vector<DB_STREAM>& rows, uint32_t pictureSize,
                   bool whole = false);

// A recording that the power ended: an open header and `pictures` entries, and a time stamp in each
// picture that a repair looks at. Returns its row, whose recSize is 0.
DB_STREAM writeInterrupted(Card* card, uint32_t chunk, uint32_t key, uint32_t pictures,
                           uint32_t pictureSize);
// Puts its header back to what it was.
void reopenHeader(Card* card, const DB_STREAM& row);

}  // namespace bench
