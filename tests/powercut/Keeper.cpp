#include "powercut/Keeper.h"

#include <utility>
#include <vector>

#include "powercut/Checks.h"
#include "powercut/Script.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingReader.h"

namespace powercut {

Keeper::Keeper(Recorded* out) : out_(out) {
  tarn::KeepOptions options;
  options.budgetChunks = 1;
  require(copies_.open(options) == 0, copies_.errorText());
}

void Keeper::keep(uint32_t from, uint32_t to) {
  tarn::KeepWanted wanted;
  wanted.from = pictureTime(from);
  wanted.to = pictureTime(to);
  wanted.asItIs = true;
  tarn::KeepResult result;
  require(copies_.keep(wanted, nullptr, &result) == tarn::KeepOutcome::kDone, copies_.errorText());
  require(result.copies > 0, "nothing was copied");
  for (const DB_STREAM& row : listStreams()) {
    if (tarn::isKept(row) && known_.insert(row.streamID).second) promise(row);
  }
}

void Keeper::release(uint32_t from, uint32_t to) {
  uint32_t count = 0;
  require(copies_.release(pictureTime(from), pictureTime(to), &count) == 0, copies_.errorText());
  require(count > 0, "nothing was released");
}

void Keeper::promise(const DB_STREAM& row) {
  std::vector<Picture> pictures;
  tarn::RecordingReader reader;
  tarn::PictureEntry entry;
  require(reader.open(row) == 0, "a copy cannot be opened");
  const int64_t start = pictureTime(0).totalMicros();
  for (uint32_t i = 0; reader.picture(i, &entry); ++i) {
    const int64_t number = (entry.presentation.totalMicros() - start) * kRate / 1000000;
    pictures.push_back({static_cast<uint32_t>(number), row.streamID});
  }
  const auto count = static_cast<uint32_t>(pictures.size());
  out_->safe.push_back(
      {Card::get().trace()->ops.size(), static_cast<int>(out_->sessions.size()), count, count});
  out_->sessions.push_back(std::move(pictures));
  out_->channels.push_back(tarn::kKeptChannel);
}

}  // namespace powercut
