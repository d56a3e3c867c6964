#include "powercut/KeptLife.h"

#include <algorithm>
#include <set>

#include "powercut/Checks.h"
#include "powercut/Script.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/session/KeptCopies.h"

namespace powercut {
namespace {

constexpr uint32_t kEventLength = 8;

// Copies that are whole when the call returns have been promised then.
class Keeper {
 public:
  explicit Keeper(Recorded* out) : out_(out) {
    tarn::KeepOptions options;
    options.budgetChunks = 1;
    require(copies_.open(options) == 0, copies_.errorText());
  }

  void keep(uint32_t from, uint32_t to) {
    tarn::KeepWanted wanted;
    wanted.from = pictureTime(from);
    wanted.to = pictureTime(to);
    wanted.asItIs = true;
    tarn::KeepResult result;
    require(copies_.keep(wanted, nullptr, &result) == tarn::KeepOutcome::kDone,
            copies_.errorText());
    require(result.copies > 0, "nothing was copied");
    for (const DB_STREAM& row : listStreams()) {
      if (tarn::isKept(row) && known_.insert(row.streamID).second) promise(row);
    }
  }

  void release(uint32_t from, uint32_t to) {
    uint32_t count = 0;
    require(copies_.release(pictureTime(from), pictureTime(to), &count) == 0, copies_.errorText());
    require(count > 0, "nothing was released");
  }

 private:
  void promise(const DB_STREAM& row) {
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

  Recorded* out_;
  tarn::KeptCopies copies_;
  std::set<uint32_t> known_;
};

}  // namespace

void keptEvents(Recorded* out) {
  shape() = {65536, 2048, 4, 2048};
  formatCard();
  boot();
  const Server server;
  begin(out);
  Recorder recorder(out);
  const size_t session = recorder.open(0, 2);
  recorder.pictures(session, 0, 10);
  Keeper keeper(out);
  const uint32_t pause = 40 + variant() % 9;
  for (uint32_t from = 10, count = 0; count < 3; ++count, from += kEventLength + pause) {
    const uint32_t event = recorder.beginEvent(session, 5, from);
    recorder.pictures(session, from, from + kEventLength);
    recorder.endEvent(session, event, from + kEventLength);
    recorder.pictures(session, from + kEventLength, from + kEventLength + pause);
    keeper.keep(from, from + kEventLength);
  }
  keeper.release(10 + 2 * (kEventLength + pause), 10 + 3 * kEventLength + 2 * pause);
  recorder.close(session);
}

}  // namespace powercut
