// How pictures get into the rings: their bytes, time stamps and entries.
#include <algorithm>

#include "base/Crc16.h"
#include "base/Wrap.h"
#include "recorder/recording/AnnexB.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RowWriter.h"

namespace tarn {
namespace {

// Largest write that a stream chunk takes at once.
constexpr size_t kDataPiece = 1024 * 1024;

}  // namespace

void RowWriter::seekBoundary(PictureTime decode) {
  toBoundary_ =
      place_.isDue(unsafeMicros(decode), wrapSub32(written_.dataSize, confirmed_.dataSize));
}

// A flush on the way is of the pictures before this one, whose entry comes behind all its bytes.
bool RowWriter::writeData(const uint8_t* data, size_t size) {
  if (!toBoundary_) return writePieces(data, size);
  const uint32_t first =
      place_.distance(row_.chunkID, static_cast<uint32_t>(chunks_.stream()->getChunkSize()),
                      static_cast<uint32_t>(chunks_.stream()->getFreeAddr()));
  if (first > size) return writePieces(data, size);
  toBoundary_ = false;
  return writePieces(data, first) && flush() && writePieces(data + first, size - first);
}

bool RowWriter::writePieces(const uint8_t* data, size_t size) {
  const auto before = static_cast<uint32_t>(chunks_.stream()->getFreeAddr());
  dataCrc_ = crc16(data, size, dataCrc_);
  for (size_t done = 0; done < size;) {
    const size_t piece = std::min(size - done, kDataPiece);
    // The chunk only copies from the buffer; its interface has no const.
    auto* bytes = const_cast<uint8_t*>(data + done);
    if (chunks_.stream()->write(bytes, static_cast<long>(piece)) != static_cast<long>(piece))
      return false;
    done += piece;
  }
  if (chunks_.stream()->getFreeAddr() < before) ++statistics_->streamWraps;
  return true;
}

// Calendar work is done once a second of picture time.
void RowWriter::stamp(uint32_t seconds) {
  if (seiValid_ && seiSeconds_ == seconds) return;
  makeTimeStampSei(seconds, sei_);
  seiSeconds_ = seconds;
  seiValid_ = true;
}

bool RowWriter::writeStamped(const uint8_t* annexB, size_t size, uint32_t seconds) {
  stamp(seconds);
  const size_t place = timeStampSeiPlace(annexB, size);
  return (place == 0 || writeData(annexB, place)) && writeData(sei_, kTimeStampSeiSize) &&
         writeData(annexB + place, size - place);
}

bool RowWriter::append(const uint8_t* annexB, size_t size, const PictureEntry& given) {
  PictureEntry entry = given;
  entry.dataOffset = static_cast<uint32_t>(chunks_.stream()->getFreeAddr());
  entry.size = static_cast<uint32_t>(isSound(row_) ? size : size + kTimeStampSeiSize);
  dataCrc_ = 0;
  seekBoundary(entry.decodeTime());
  const bool written = isSound(row_) ? writeData(annexB, size)
                                     : writeStamped(annexB, size, entry.presentation.seconds);
  if (!written) {
    return fail(RecordingError::kCard, kErrWriteData);
  }
  entry.checksum = pictureChecksum(dataCrc_);
  return queueEntry(&entry);
}

bool RowWriter::appendCopy(const uint8_t* bytes, const PictureEntry& given) {
  PictureEntry entry = given;
  entry.dataOffset = static_cast<uint32_t>(chunks_.stream()->getFreeAddr());
  if (!writeData(bytes, entry.size)) return fail(RecordingError::kCard, kErrWriteData);
  return queueEntry(&entry);
}

bool RowWriter::queueEntry(PictureEntry* entry) {
  entry->key = row_.streamID;
  entry->number = wrapAdd32(header_.firstNumber, written_.pictures);
  encodePictureEntry(*entry, queue_.data() + size_t{queued_} * kRecordSize);
  if (queued_++ == 0) firstQueued_ = entry->decodeTime();
  written_.add(*entry);
  numbers_.used(entry->number);
  return queued_ < kQueueEntries || flush();
}

}  // namespace tarn
