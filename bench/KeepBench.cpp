// A recording as a camera delivers it, onto the slow card, while an earlier recording is being
// kept, against the same without: keeping must not hold it up.
#include <unistd.h>

#include <algorithm>

#include "Machine.h"
#include "Pair.h"
#include "dblog/CDbLog.h"
#include "recorder/session/EventKeeper.h"
#include "recorder/session/RecordingSession.h"

namespace {

using namespace bench;

constexpr uint32_t kRate = 25;  // pictures a second
constexpr uint32_t kGop = 25;
constexpr size_t kPictureBytes = 40000;  // 1 MB/s of the card's 10
constexpr uint32_t kStart = 1700000000;

class KeepRig : public Rig {
 public:
  KeepRig()
      : card_(Medium::kSlow, 0, smallChunks(8 * kMiB, 256 * kKiB, 8)),
        picture_(kPictureBytes, 0x5A) {
    makeEmptyDatabase();
    server_ = std::make_unique<ServerProcess>();
    const uint8_t head[] = {0, 0, 0, 1, 0x65};
    std::copy(std::begin(head), std::end(head), picture_.begin());
  }
  ~KeepRig() override { CDbLog::getInstance()->finish(); }

  double ours() override {
    const uint32_t event = prepare();
    tarn::EventKeeper keeper;
    if (keeper.start({}) != 0 || keeper.keepEvent(event) != 0) give_up("nobody keeps");
    const double seconds = record(&longestKeeping_);
    keeper.stop();
    return seconds;
  }
  double bare() override {
    prepare();
    return record(&longest_);
  }
  std::map<std::string, double> figures() override {
    return {{"longest_ms", longestKeeping_ * 1e3}, {"longest_alone_ms", longest_ * 1e3}};
  }

 private:
  static constexpr uint32_t kSeconds = 4;

  void write(tarn::RecordingSession* session, uint32_t number) {
    const auto time = tarn::PictureTime::fromMicros(int64_t{kStart} * 1000000 +
                                                    int64_t{number} * (1000000 / kRate));
    if (session->writePicture(picture_.data(), picture_.size(), time, 0, number % kGop == 0) != 0)
      give_up(session->errorText());
  }
  void open(tarn::RecordingSession* session) {
    tarn::RecordingOptions options;
    if (session->open(options) != 0) give_up(session->errorText());
  }

  // What is kept meanwhile: an event as long as what is recorded then.
  uint32_t prepare() {
    tarn::RecordingSession session;
    open(&session);
    const auto time = [this] { return tarn::PictureTime{kStart + next_ / kRate, 0}; };
    const uint32_t event = session.beginEvent(1, time(), 0);
    for (uint32_t i = 0; i < kSeconds * kRate; ++i) write(&session, next_++);
    if (session.endEvent(event, time()) != 0 || session.close() != 0) give_up(session.errorText());
    return event;
  }

  double record(double* longest) {
    tarn::RecordingSession session;
    open(&session);
    const double begin = now();
    for (uint32_t i = 0; i < kSeconds * kRate; ++i) {
      const double due = begin + static_cast<double>(i) / kRate;
      if (const double early = due - now(); early > 0) usleep(static_cast<useconds_t>(early * 1e6));
      const double call = now();
      write(&session, next_++);
      *longest = std::max(*longest, now() - call);
    }
    if (session.flush() != 0) give_up(session.errorText());
    const double seconds = now() - begin;
    session.close();
    return seconds;
  }

  Card card_;
  std::unique_ptr<ServerProcess> server_;
  std::vector<uint8_t> picture_;
  uint32_t next_ = 0;
  double longest_ = 0;
  double longestKeeping_ = 0;
};

const bool kKeep = add(
    {"slow", "keep/recording", Goal::kCost, 1.05, 3, [] { return std::make_unique<KeepRig>(); }});

}  // namespace
