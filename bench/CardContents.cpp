#include "CardContents.h"

#include <algorithm>
#include <cstring>

#include "Pair.h"
#include "base/Crc16.h"
#include "dblog/JournalFormat.h"
#include "recorder/recording/AnnexB.h"
#include "recorder/recording/RecordFormat.h"

namespace bench {
namespace {

constexpr uint32_t kSlot = tarn::kRecordSize;
constexpr uint32_t kFirstNumber = 100;  // of a recording's pictures: a multiple of 100
constexpr uint32_t kGop = 30;
constexpr uint32_t kFewPictures = 9;  // of each of the many recordings
constexpr uint32_t kSmallPicture = 1024;
constexpr uint32_t kClosed = 0x2;  // status of a recording
constexpr uint32_t kOpen = 0x1;
constexpr size_t kStampBytes = 320;  // more than a repair reads of a picture

void writePair(Card* card, short chunk, const std::vector<uint8_t>& bytes) {
  if (bytes.size() > card->layout().family(tarn::kFileJournal).chunkSize) {
    give_up("the journal has no room for so many rows");
  }
  for (const int copy : {int{chunk}, chunk + tarn::kJournalMirrorStep}) {
    card->write(card->chunkByte(tarn::kFileJournal, static_cast<uint32_t>(copy)), bytes.data(),
                bytes.size());
  }
}

uint32_t rowsPerChunk(const Card& card, uint32_t count) {
  const uint32_t chunks = card.layout().family(tarn::kFileStream).chunks;
  return (count + chunks - 1) / chunks;
}

void writeSlot(Card* card, const DB_STREAM& row, uint32_t slot, const uint8_t* bytes) {
  card->write(
      card->chunkByte(tarn::kFilePicture, row.chunkID) + row.chunkOffset + uint64_t{slot} * kSlot,
      bytes, kSlot);
}

tarn::PictureEntry entryOf(const DB_STREAM& row, uint32_t index, uint32_t dataOffset,
                           uint32_t size) {
  tarn::PictureEntry entry;
  entry.key = row.streamID;
  entry.number = kFirstNumber + index;
  entry.dataOffset = dataOffset + index * size;
  entry.size = size;
  entry.presentation.seconds = row.startDate + index / kPicturesPerSecond;
  entry.flags = index % kGop == 0 ? tarn::kEntryKeyPicture : 0;
  return entry;
}

// Place of a row's data in its stream chunk, from its place in the picture chunk.
uint32_t dataOffsetOf(const DB_STREAM& row) {
  return row.chunkOffset / ((kFewPictures + 1) * kSlot) * (kFewPictures * kSmallPicture);
}

void writeClosed(Card* card, const DB_STREAM& row) {
  tarn::StreamHeader header;
  header.marker = tarn::kMarkerClosed;
  header.firstNumber = kFirstNumber;
  header.dataOffset = dataOffsetOf(row);
  header.dataSize = row.recSize * kSmallPicture;
  header.lastTime = row.endDate;
  header.pictures = row.recSize;
  header.gops = 1;
  uint8_t bytes[kSlot];
  tarn::encodeStreamHeader(header, bytes);
  writeSlot(card, row, 0, bytes);
  for (uint32_t i = 0; i < row.recSize; ++i) {
    tarn::encodePictureEntry(entryOf(row, i, header.dataOffset, kSmallPicture), bytes);
    writeSlot(card, row, i + 1, bytes);
  }
}

// The head of a picture with its time.
void stampPicture(uint32_t seconds, uint8_t* out) {
  memset(out, 0x11, kStampBytes);
  tarn::makeTimeStampSei(seconds, out);
}

}  // namespace

void writeEventJournal(Card* card, std::vector<DB_EVENT> rows) {
  std::vector<uint8_t> bytes(rows.size() * tarn::kEventRecordSize);
  for (size_t i = 0; i < rows.size(); ++i) {
    rows[i].backOffset = static_cast<uint32_t>(i * tarn::kEventRecordSize);
    tarn::encodeEventRecord(rows[i], bytes.data() + rows[i].backOffset);
  }
  writePair(card, tarn::kEventJournalChunk, bytes);
}

void writeStreamJournal(Card* card, std::vector<DB_STREAM> rows) {
  std::vector<uint8_t> bytes(rows.size() * tarn::kStreamRecordSize);
  for (size_t i = 0; i < rows.size(); ++i) {
    rows[i].backOffset = static_cast<uint32_t>(i * tarn::kStreamRecordSize);
    tarn::encodeStreamRecord(rows[i], bytes.data() + rows[i].backOffset);
  }
  writePair(card, tarn::kStreamJournalChunk, bytes);
}

namespace {

// The pictures' heads as the check reads them, with their checksums where all bytes are known.
void writePictures(Card* card, const DB_STREAM& row, uint32_t dataOffset, uint32_t size,
                   bool whole = false) {
  std::vector<uint8_t> picture(size, 0);
  std::vector<uint8_t> entries(size_t{row.recSize} * kSlot);
  uint16_t checksum = 0;
  for (uint32_t i = 0; i < row.recSize; ++i) {
    tarn::PictureEntry entry = entryOf(row, i, dataOffset, size);
    if (i % kPicturesPerSecond == 0) {  // the others of the second are the same
      stampPicture(entry.presentation.seconds, picture.data());
      checksum = tarn::pictureChecksum(tarn::crc16(picture.data(), size));
    }
    entry.checksum = checksum;
    tarn::encodePictureEntry(entry, entries.data() + size_t{i} * kSlot);
    card->write(card->chunkByte(tarn::kFileStream, row.chunkID) + entry.dataOffset, picture.data(),
                whole ? size : kStampBytes);
  }
  card->write(card->chunkByte(tarn::kFilePicture, row.chunkID) + row.chunkOffset + kSlot,
              entries.data(), entries.size());
}

void writeClosedHeader(Card* card, const DB_STREAM& row, uint32_t dataOffset, uint32_t size) {
  tarn::StreamHeader header;
  header.marker = tarn::kMarkerClosed;
  header.firstNumber = kFirstNumber;
  header.dataOffset = dataOffset;
  header.dataSize = row.recSize * size;
  header.lastTime = row.endDate;
  header.pictures = row.recSize;
  header.gops = (row.recSize + kGop - 1) / kGop;
  uint8_t bytes[kSlot];
  tarn::encodeStreamHeader(header, bytes);
  writeSlot(card, row, 0, bytes);
}

}  // namespace

void writeWhole(Card* card, const std::vector<DB_STREAM>& rows) {
  for (const DB_STREAM& row : rows) {
    writeClosedHeader(card, row, dataOffsetOf(row), kSmallPicture);
    writePictures(card, row, dataOffsetOf(row), kSmallPicture);
  }
}

std::vector<DB_STREAM> fullStreams(const Card& card, uint32_t pictureSize) {
  const auto& streams = card.layout().family(tarn::kFileStream);
  std::vector<DB_STREAM> rows(streams.chunks);
  for (uint32_t i = 0; i < streams.chunks; ++i) {
    DB_STREAM& row = rows[i];
    row.streamID = i + 1;
    row.frameSet = 2;
    row.recSize = (streams.chunkSize - 1) / pictureSize;
    row.chunkID = i;
    row.chunkSize = (row.recSize + 1) * kSlot;
    row.status = kClosed;
    row.startDate = kLifeBegins + 600 * i;
    row.endDate = row.startDate + (row.recSize - 1) / kPicturesPerSecond;
    if (row.chunkSize >= card.layout().family(tarn::kFilePicture).chunkSize)
      give_up("a picture chunk has no room for so many entries");
  }
  return rows;
}

uint64_t writeFull(Card* card, const std::vector<DB_STREAM>& rows, uint32_t pictureSize,
                   bool whole) {
  uint64_t bytes = 0;
  for (const DB_STREAM& row : rows) {
    writeClosedHeader(card, row, 0, pictureSize);
    writePictures(card, row, 0, pictureSize, whole);
    bytes += uint64_t{row.recSize} * pictureSize;
  }
  return bytes;
}

std::vector<DB_EVENT> manyEvents(uint32_t count) {
  std::vector<DB_EVENT> rows(count);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t start = kLifeBegins + 30 * i;
    rows[i] = {i + 1, static_cast<uint16_t>(i % 16), 5, start, start + 20, 120, 340, 0};
  }
  return rows;
}

std::vector<DB_STREAM> manyStreams(const Card& card, uint32_t count) {
  const uint32_t each = rowsPerChunk(card, count);
  constexpr uint32_t kRoom = (kFewPictures + 1) * kSlot;
  if (uint64_t{each} * kRoom >= card.layout().family(tarn::kFilePicture).chunkSize ||
      uint64_t{each} * kFewPictures * kSmallPicture >=
          card.layout().family(tarn::kFileStream).chunkSize) {
    give_up("the card has no room for so many recordings");
  }
  std::vector<DB_STREAM> rows(count);
  for (uint32_t i = 0; i < count; ++i) {
    DB_STREAM& row = rows[i];
    row.streamID = i + 1;
    row.inTrg = 1;
    row.frameSet = 2;
    row.bitrateSet = 4000000;
    row.recSize = kFewPictures;
    row.chunkID = i / each;
    row.chunkOffset = i % each * kRoom;
    row.chunkSize = kRoom;
    row.status = kClosed;
    row.startDate = kLifeBegins + 60 * i;
    row.endDate = row.startDate + 59;
  }
  return rows;
}

void writeHeaders(Card* card, const std::vector<DB_STREAM>& rows) {
  for (size_t i = 0; i < rows.size(); ++i) {
    const bool first = i == 0 || rows[i - 1].chunkID != rows[i].chunkID;
    const bool last = i + 1 == rows.size() || rows[i + 1].chunkID != rows[i].chunkID;
    if (first || last) writeClosed(card, rows[i]);
  }
}

DB_STREAM writeInterrupted(Card* card, uint32_t chunk, uint32_t key, uint32_t pictures,
                           uint32_t pictureSize) {
  const auto& streams = card->layout().family(tarn::kFileStream);
  if (uint64_t{pictures} * pictureSize >= streams.chunkSize ||
      uint64_t{pictures + 2} * kSlot >= card->layout().family(tarn::kFilePicture).chunkSize) {
    give_up("the card has no room for the interrupted recording");
  }
  DB_STREAM row = {};
  row.streamID = key;
  row.frameSet = 2;
  row.chunkID = chunk;
  row.status = kOpen;
  row.startDate = kLifeBegins + 60 * key;
  reopenHeader(card, row);
  std::vector<uint8_t> entries((size_t{pictures} + 1) * kSlot, 0);
  for (uint32_t i = 0; i < pictures; ++i) {
    tarn::encodePictureEntry(entryOf(row, i, 0, pictureSize), entries.data() + i * kSlot);
  }
  card->write(card->chunkByte(tarn::kFilePicture, chunk) + kSlot, entries.data(), entries.size());
  uint8_t stamp[kStampBytes];
  for (uint32_t i = 0; i < pictures; ++i) {
    if ((kFirstNumber + i) % 100 != 0 && i + 200 < pictures) continue;
    stampPicture(row.startDate + i / kPicturesPerSecond, stamp);
    card->write(card->chunkByte(tarn::kFileStream, chunk) + uint64_t{i} * pictureSize, stamp,
                sizeof stamp);
  }
  return row;
}

void reopenHeader(Card* card, const DB_STREAM& row) {
  tarn::StreamHeader header;
  header.firstNumber = kFirstNumber;
  header.gops = 1;
  uint8_t bytes[kSlot];
  tarn::encodeStreamHeader(header, bytes);
  writeSlot(card, row, 0, bytes);
}

}  // namespace bench
