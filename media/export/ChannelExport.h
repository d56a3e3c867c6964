#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "media/export/ExportReport.h"
#include "media/export/ExportTrack.h"
#include "recorder/recording/RecordingReader.h"

namespace tarn {

// The pictures of one channel's recordings in a period, one after the other.
class ChannelExport : public ExportTrack {
 public:
  // `rows` of one channel, in the order of their times.
  ChannelExport(int channel, std::vector<DB_STREAM> rows, PictureTime from, PictureTime to);

  Result next() override;
  int64_t decodeUs() const override {
    return picture_.presentation.totalMicros() + picture_.decodeOffsetUs;
  }
  bool describe(MediaOutput* output, size_t track) const override {
    return output->describe(track, picture_);
  }
  bool write(MediaOutput* output, size_t track) const override {
    return output->write(picture_, track);
  }
  const OutputPicture& picture() const { return picture_; }

  int channel() const { return channel_; }  // ChunkChannels::kUnknown where the card does not tell
  const ExportTotals& totals() const { return totals_; }

 private:
  bool openRow();
  uint32_t firstPicture();
  bool neededLater();
  bool take(const PictureEntry& entry);
  void noteDamage(const PictureEntry& entry);

  const int channel_;
  const std::vector<DB_STREAM> rows_;
  const PictureTime from_;
  const PictureTime to_;
  size_t row_ = 0;      // that is read, or is to be opened next
  uint32_t index_ = 0;  // of the next picture in it
  std::unique_ptr<RecordingReader> reader_;
  bool waitForKey_ = true;
  OutputPicture picture_;
  ExportTotals totals_;
};

}  // namespace tarn
