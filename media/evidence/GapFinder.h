#pragma once

#include <cstdint>
#include <vector>

#include "base/Export.h"
#include "media/evidence/EvidenceStory.h"
#include "recorder/card/Source.h"

namespace tarn {

class ChunkChannels;

// Finds the times of one channel of which there are no pictures, and why. Used by one thread. Not
// part of the interface.
class TARN_API GapFinder {
 public:
  // Pictures further apart are a gap between them: a camera that sends one a second has none.
  static constexpr int64_t kLeastUs = 2000000;

  // All outlive this. `before`: the recording in front of the period; null when there is none.
  GapFinder(int channel, const EvidenceJournal& journal, const ChunkChannels& chunks,
            const DB_STREAM* before)
      : channel_(channel), journal_(journal), chunks_(chunks), previous_(before) {}

  // In this order, recording by recording: where the period begins (unless it begins with the first
  // picture), and its pictures in the order of decoding.
  void beginAt(int64_t us);
  void recording(const DB_STREAM* row);
  void picture(int64_t us);
  // Instead of the pictures of a recording that are not looked at one by one: nothing is missing in
  // between.
  void stretch(int64_t fromUs, int64_t toUs);
  // Instead of a picture, or of all of a recording.
  void missing(Delivery why);
  void endAt(int64_t us);

  std::vector<EvidenceGap> take() { return std::move(gaps_); }

 private:
  void close(int64_t us);
  GapReason reasonOf(const EvidenceGap& gap, std::string* text) const;
  bool wasGivenUp(const EvidenceGap& gap, std::string* text, bool* certain) const;

  const int channel_;
  const EvidenceJournal& journal_;
  const ChunkChannels& chunks_;
  const DB_STREAM* previous_;  // the last recording that came to its end
  const DB_STREAM* current_ = nullptr;
  bool begun_ = false;
  bool ended_ = true;  // no recording goes on over what is looked at
  int64_t lastUs_ = 0;
  bool damaged_ = false;  // since the last picture
  bool unreadable_ = false;
  std::vector<EvidenceGap> gaps_;
};

}  // namespace tarn
