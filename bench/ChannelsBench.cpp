// Sixteen channels at once on one card, a thread and a session each, against one channel that
// records as many bytes: what a MiB costs in processor time, of the process with its write threads
// and the management server.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <thread>

#include "Machine.h"
#include "Pair.h"
#include "dblog/CDbLog.h"
#include "fat/ChunkFiles.h"
#include "recorder/server/ManagementServer.h"
#include "recorder/session/RecordingSession.h"

namespace {

using namespace bench;

constexpr uint32_t kRate = 25;  // pictures a second
constexpr uint32_t kGop = 25;
constexpr size_t kPictureBytes = 20 * kKiB;  // 4 Mbit/s
constexpr uint32_t kStart = 1700000000;
constexpr int kChannels = 16;
constexpr uint32_t kChunks = 40;
constexpr uint32_t kSeconds = 12;      // of each of the sixteen
constexpr uint32_t kPacedSeconds = 5;  // by the clock

class Server {
 public:
  Server() {
    if (server_.start() != 0) give_up("no management server");
    thread_ = std::thread([this] { server_.run(); });
  }
  ~Server() {
    CDbLog::getInstance()->finish();
    server_.requestStop();
    thread_.join();
  }

 private:
  tarn::ManagementServer server_;
  std::thread thread_;
};

class ChannelsRig : public Rig {
 public:
  explicit ChannelsRig(bool paced)
      : card_(Medium::kRam, 512 * kMiB, smallChunks(8 * kMiB, 256 * kKiB, kChunks)),
        paced_(paced),
        picture_(kPictureBytes, 0x5A) {
    // What a chunk's first bytes cost is the machine's memory, not the recorder's work.
    for (uint32_t chunk = 0; chunk < kChunks; ++chunk) card_.fillChunk(tarn::kFileStream, chunk);
    makeEmptyDatabase();
    server_ = std::make_unique<Server>();
    const uint8_t head[] = {0, 0, 0, 1, 0x65};
    std::copy(std::begin(head), std::end(head), picture_.begin());
  }

  double ours() override {
    if (!warm_) record(kChannels, seconds());
    warm_ = true;
    return perMiB(kChannels, seconds(), &many_);
  }
  double bare() override { return perMiB(1, paced_ ? seconds() : kChannels * seconds(), &one_); }
  std::map<std::string, double> figures() override {
    return {{"us_per_MiB", many_ * 1e6}, {"us_per_MiB_alone", one_ * 1e6}};
  }

 private:
  uint32_t seconds() const { return paced_ ? kPacedSeconds : kSeconds; }

  double perMiB(int channels, uint32_t seconds, double* least) {
    const double before = cpuSeconds();
    record(channels, seconds);
    const double bytes = static_cast<double>(channels) * seconds * kRate * kPictureBytes;
    const double cost = (cpuSeconds() - before) / (bytes / static_cast<double>(kMiB));
    *least = *least == 0 ? cost : std::min(*least, cost);
    return cost;
  }

  // What cannot be recorded is told by the thread that may give up.
  void record(int channels, uint32_t seconds) {
    std::list<tarn::RecordingSession> sessions;
    for (int channel = 0; channel < channels; ++channel) {
      tarn::RecordingOptions options;
      options.channel = static_cast<int8_t>(channel);
      options.segmentSeconds = this->seconds();  // as many rows, however many channels
      if (sessions.emplace_back().open(options) != 0) give_up(sessions.back().errorText());
    }
    std::atomic<bool> good{true};
    std::list<std::thread> threads;
    for (tarn::RecordingSession& session : sessions)
      threads.emplace_back([&] { good = writeAll(&session, seconds) && good; });
    for (std::thread& thread : threads) thread.join();
    if (!good) give_up("a channel does not record");
    sessions.clear();
    next_ += seconds + 1;
  }

  bool writeAll(tarn::RecordingSession* session, uint32_t seconds) const {
    for (uint32_t i = 0; i < seconds * kRate; ++i) {
      if (paced_) usleep(1000000 / kRate);
      const auto time = tarn::PictureTime::fromMicros(int64_t{kStart + next_} * 1000000 +
                                                      int64_t{i} * (1000000 / kRate));
      if (session->writePicture(picture_.data(), picture_.size(), time, 0, i % kGop == 0) != 0)
        return false;
    }
    return session->close() == 0 && session->statistics().confirmed == seconds * kRate;
  }

  Card card_;
  const bool paced_;
  std::vector<uint8_t> picture_;
  std::unique_ptr<Server> server_;
  bool warm_ = false;
  uint32_t next_ = 0;  // seconds
  double many_ = 0;    // the least of all turns
  double one_ = 0;
};

const bool kAtOnce = add({"channels", "channels/burst", Goal::kCost, 1.2, 5,
                          [] { return std::make_unique<ChannelsRig>(false); }});
const bool kPaced = add({"channels", "channels/paced", Goal::kCost, 1.2, 2,
                         [] { return std::make_unique<ChannelsRig>(true); }});

}  // namespace
