#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"
#include "media/export/ExportReport.h"
#include "media/export/ExportTrack.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundBlock.h"

namespace tarn {

// The sound of one channel's recordings in a period, frame by frame. What cannot be read is
// counted, and is no reason to stop.
class TARN_API SoundExport : public ExportTrack {
 public:
  // Microseconds in front of pictures: decoders need some frames to swing in, AAC one or two, Opus
  // 80 ms.
  static constexpr int64_t kLeadUs = 100000;

  // `rows` of sound of one channel, in the order of their times. Frames that end before `from` or
  // begin behind `to` are left out.
  SoundExport(std::vector<DB_STREAM> rows, PictureTime from, PictureTime to);

  // Before the first next(): the pictures begin there. Some sound in front of them comes along. What
  // only reaches into them from the recording before, coded in another way, does not: a track that
  // began with it could not take what is their own.
  void beginWith(PictureTime picture);
  Result next() override;
  int64_t decodeUs() const override { return sound_.time.totalMicros(); }
  bool describe(MediaOutput* output, size_t track) const override;
  bool write(MediaOutput* output, size_t track) const override;

  // No track that has the frame before can take the one at hand: it is coded in another way.
  bool beginsFile() const { return begun_ && sound_.format != track_; }
  // Where another file begins: what the one before it has. From then on totals() are those of the
  // new one, to which the frame at hand belongs.
  SoundTotals closeFile();
  // The frame at hand.
  const OutputSound& sound() const { return sound_; }
  // Whether there is no frame at hand.
  bool atEnd() const { return atEnd_; }

  const SoundTotals& totals() const { return totals_; }
  // Of the frame at hand: which of the rows it is in, the block that holds it, and where in the
  // block's bytes it begins.
  size_t row() const { return row_; }
  const PictureEntry& block() const { return entry_; }
  size_t placeInBlock() const { return place_; }
  // Whether the card did not give something of it now: it may come at the next try.
  bool wasRefused() const { return refused_; }

 private:
  // A frame's place: its row, then its time.
  struct Place {
    size_t row = 0;
    PictureTime time;
  };
  Result nextFrame();
  Result begin();
  std::optional<Place> ownBeginning() const;
  bool isBefore(const Place& place) const;
  bool openRow();
  void skipEarlier();
  bool readBlock();
  PictureTime timeOf(PictureTime inBlock) const;
  bool isWanted(const SoundFrame& frame) const;
  void take(const SoundFrame& frame);
  void beginTrack();
  void count();

  const std::vector<DB_STREAM> rows_;
  PictureTime from_;
  const PictureTime to_;
  std::optional<PictureTime> picture_;  // the first one, until the first frame was read
  size_t row_ = 0;
  uint32_t index_ = 0;  // of the next block in it
  size_t frame_ = 0;    // next one of the block at hand
  std::unique_ptr<RecordingReader> reader_;
  std::vector<uint8_t> bytes_;
  SoundBlock block_;
  PictureEntry entry_;  // of the block at hand
  size_t place_ = 0;
  bool refused_ = false;
  int64_t laterUs_ = 0;  // than the block says, where its recording was re-dated
  OutputSound sound_;
  bool atEnd_ = true;
  bool begun_ = false;  // a frame was taken
  SoundFormat track_;   // of the file
  SoundTotals totals_;
  SoundTotals before_;  // of all before the frame at hand
};

}  // namespace tarn
