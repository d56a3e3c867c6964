#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/Export.h"
#include "fat/CFATAccess.h"
#include "recorder/card/ReadPatience.h"

namespace tarn {

class CardReader;

// What became of a question to the card. What a device refused proves nothing: it may come at the
// next try, so nothing is written, deleted, given free or reported as lost because of it.
enum class Delivery : uint8_t {
  kGood,     // the device gave it, and it is what it should be
  kBad,      // the device gave something else
  kRefused,  // the device gave nothing, also when asked again
};

// The bytes of one chunk, for whoever judges what lies in it: the same judges read an open chunk of
// the recorder's card and a card image on a desk. Not part of the interface. Used by one thread.
class TARN_API Source {
 public:
  virtual ~Source() = default;
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  bool isOpen() const { return size_ != 0; }
  uint32_t size() const { return size_; }  // bytes of the chunk; 0 when it is not open
  // "journal chunk 2", for messages.
  const std::string& name() const { return name_; }

  // `length` bytes at `offset`, as in a ring: what lies behind the chunk's end is read from its
  // start. kGood, or kRefused: asked again a few times, as long as this source's patience lasts, so
  // that a card that hiccups is waited for and a dead region does not hold a start up for minutes.
  // kBad for a place or length that the chunk does not have. After anything but kGood `out` holds
  // nothing of use.
  Delivery read(uint32_t offset, void* out, uint32_t length);
  // Waits as long as *ms lasts, in common with others that share it, and takes off what it waits.
  void sharePatience(uint32_t* ms) { patience_ = ms; }
  // The same, asked once.
  Delivery readOnce(uint32_t offset, void* out, uint32_t length);

 protected:
  Source() = default;
  // A stretch that does not cross the chunk's end.
  virtual bool readPiece(uint32_t offset, void* out, uint32_t length) = 0;

  uint32_t size_ = 0;
  std::string name_;

 private:
  uint32_t patienceMs_ = kReadPatienceMs;
  uint32_t* patience_ = &patienceMs_;
};

// A chunk of the recorder's own card, opened by itself; no server is needed. The descriptor is this
// object's own. Writes go to the device at once (stream, picture and log chunks are read only).
class TARN_API ChunkSource : public Source {
 public:
  // `fileType` is one of fat/ChunkFiles.h, `flags` O_RDONLY or O_RDWR. A chunk number that the card
  // does not have is not open, and `placeless`: no retry will help.
  ChunkSource(int fileType, uint32_t chunk, int flags);

  bool isPlaceless() const { return placeless_; }
  // Sizes of the two areas of a recording, whatever this chunk is; 0 when it is not open.
  uint32_t streamSize() const { return streamSize_; }
  uint32_t pictureSize() const { return pictureSize_; }

  // False when the device does not take all of it. Within the chunk only.
  bool write(uint32_t offset, const void* data, uint32_t length);
  // Brings what was written to the medium. True without a device call when nothing was.
  bool flush();

 protected:
  bool readPiece(uint32_t offset, void* out, uint32_t length) override;

 private:
  void openPatiently(const char* name, int flags);

  CFATAccess fat_;
  int handle_ = -1;
  bool placeless_ = false;
  bool written_ = false;
  uint32_t streamSize_ = 0;
  uint32_t pictureSize_ = 0;
};

// A chunk of a card that is read directly, from outside. The reader stays the caller's and outlives
// this.
class CardSource : public Source {
 public:
  CardSource(const CardReader& card, int fileType, uint32_t chunk);

 protected:
  bool readPiece(uint32_t offset, void* out, uint32_t length) override;

 private:
  const CardReader& card_;
  const int fileType_;
  const uint32_t chunk_;
};

}  // namespace tarn
