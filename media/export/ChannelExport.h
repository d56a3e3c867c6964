#pragma once

#include <cstdint>
#include <memory>
#include <optional>
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
  // No file that has the picture before can take the one at hand: its sequence parameter sets are
  // not those of the file. Where only picture parameter sets are others, which some encoders send
  // with each group, the file goes on: its pictures carry their own.
  bool beginsFile() const { return beginsFile_; }
  // Whether the picture at hand may begin a file: pictures before it are not needed.
  bool mayBeginFile() const { return !atEnd_ && picture_.key; }
  // Whether there is no picture at hand, as there are no more.
  bool atEnd() const { return atEnd_; }
  // When the picture at hand begins a file: what the one before it has. From then on totals() are
  // those of the new one. At the end the file before has them all.
  ExportTotals closeFile();
  const OutputPicture& picture() const { return picture_; }

  int channel() const { return channel_; }  // ChunkChannels::kUnknown where the card does not tell
  const ExportTotals& totals() const { return totals_; }

 private:
  bool openRow();
  uint32_t firstPicture();
  bool take(const PictureEntry& entry);
  void noteFormat();
  void count();
  void noteDamage();

  const int channel_;
  const std::vector<DB_STREAM> rows_;
  const PictureTime from_;
  const PictureTime to_;
  size_t row_ = 0;      // that is read, or is to be opened next
  uint32_t index_ = 0;  // of the next picture in it
  std::unique_ptr<RecordingReader> reader_;
  bool waitForKey_ = true;
  OutputPicture picture_;
  uint32_t pictureIndex_ = 0;  // of picture_
  bool damaged_ = false;       // and so is it
  bool begun_ = false;         // a picture was taken
  bool beginsFile_ = false;
  std::vector<uint8_t> sequence_;  // parameter sets
  PictureSize size_;
  std::optional<int32_t> zone_;  // of the recording that is read
  ExportTotals totals_;
  ExportTotals before_;  // of all before picture_, while it is a key picture
  bool atEnd_ = true;
};

}  // namespace tarn
