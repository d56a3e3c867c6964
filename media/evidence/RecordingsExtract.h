#pragma once

#include <string>
#include <vector>

#include "media/MediaInput.h"
#include "media/OutputFile.h"
#include "media/evidence/EvidenceStory.h"
#include "recorder/card/ChunkChannels.h"

namespace tarn {

class EvidenceFolder;
class ExportSelection;
class GapFinder;

// Takes out of the card what it holds of the recordings of a period beside their pictures: rows and
// entries as they are stored, and what they tell: first and last picture, gaps. Used by one thread.
class RecordingsExtract {
 public:
  // `story` has its period and its journal, gets its channels and events, and outlives this.
  RecordingsExtract(EvidenceFolder* folder, EvidenceStory* story, const StopAsked& stopAsked)
      : folder_(folder), story_(story), stopAsked_(stopAsked) {}

  // Into original/. False with error() set.
  bool write(const ExportSelection& selection);
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool readEvents();
  bool readBefore();
  const DB_STREAM* lastBefore(int channel) const;
  bool writeChannel(int channel, const std::vector<DB_STREAM>& rows);
  bool addRecording(const DB_STREAM& row, EvidenceChannel* channel, GapFinder* gaps);
  bool copyEntries(EvidenceRecording* recording, uint32_t pictures);
  void copyPiece(class ChunkSource* chunk, uint32_t at, uint32_t length,
                 EvidenceRecording* recording, std::vector<uint8_t>* bytes);
  void walk(class RecordingReader* reader, EvidenceRecording* recording, EvidenceChannel* channel,
            GapFinder* gaps);
  void notePicture(const struct PictureEntry& entry, uint32_t index, EvidenceRecording* recording,
                   EvidenceChannel* channel);

  EvidenceFolder* folder_;
  EvidenceStory* story_;
  const StopAsked& stopAsked_;
  ChunkChannels chunks_;
  std::vector<DB_STREAM> before_;  // rows that end in front of the period
  std::string rows_;               // stored
  std::string events_;
  OutputFile entries_;
  uint64_t entriesBytes_ = 0;
  std::string error_;
};

}  // namespace tarn
