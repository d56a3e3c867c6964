#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dblog/CDbLog.h"
#include "powercut/Workload.h"
#include "recorder/session/RecordingSession.h"

// What lives are written with.
namespace powercut {

inline constexpr uint32_t kRate = 25;  // pictures a second

// Of the card that is formatted next.
struct Shape {
  uint32_t streamChunk = 256 * 1024;
  uint32_t pictureChunk = 16 * 1024;
  uint32_t streams = 3;
  uint32_t journalChunk = 4096;
};
Shape& shape();
uint32_t variant();        // 0: as described; others differ in sizes and lengths
uint32_t flushPictures();  // between two flushes

void require(bool good, const std::string& what);
// Everything from here on is the life; what the card holds is what it begins with.
void begin(Recorded* out);
// Recovery, as at every start.
void boot();
// Rows of before are versions that nobody has to have seen come.
void knowRows(Recorded* out);
void cleanStop();

// A program that records: sessions of several channels in one thread, so that the order of the
// writes is the same in every run.
class Recorder {
 public:
  explicit Recorder(Recorded* out) : out_(out), firstSession_(out->sessions.size()) {
    out_->flushPictures = flushPictures();
  }
  ~Recorder() {
    sessions_.clear();
    CDbLog::getInstance()->finish();
  }

  size_t open(int8_t channel, uint32_t segmentSeconds = 60) {
    tarn::RecordingOptions options;
    options.channel = channel;
    options.segmentSeconds = segmentSeconds;
    options.flushIntervalMs = flushPictures() * 1000 / kRate;
    options.inTrg = 7;
    sessions_.push_back(std::make_unique<tarn::RecordingSession>());
    out_->sessions.emplace_back();
    out_->channels.push_back(channel);
    require(sessions_.back()->open(options) == 0, sessions_.back()->errorText());
    return sessions_.size() - 1;
  }
  void picture(size_t session, uint32_t number) {
    require(tryPicture(session, number), sessions_[session]->errorText());
  }
  // False when the session gives up. It is closed then.
  bool tryPicture(size_t session, uint32_t number) {
    const std::vector<uint8_t> bytes = pictureBytes(number);
    tarn::RecordingSession& to = *sessions_[session];
    if (to.writePicture(bytes.data(), bytes.size(), pictureTime(number), 0, isKeyPicture(number)) !=
        0) {
      to.close();
      return false;
    }
    out_->sessions[firstSession_ + session].push_back({number, to.streamID()});
    note(session);
    return true;
  }
  void pictures(size_t session, uint32_t from, uint32_t to) {
    for (uint32_t number = from; number < to; ++number) picture(session, number);
  }
  uint32_t beginEvent(size_t session, uint16_t trigger, uint32_t number) {
    const uint32_t key = sessions_[session]->beginEvent(trigger, pictureTime(number), 1);
    require(key != 0, sessions_[session]->errorText());
    return key;
  }
  void endEvent(size_t session, uint32_t key, uint32_t number) {
    require(sessions_[session]->endEvent(key, pictureTime(number)) == 0, "event does not end");
  }
  void clockBecameKnown(size_t session, uint32_t seconds) {
    require(sessions_[session]->clockBecameKnown(int64_t{seconds} * 1000000) == 0,
            sessions_[session]->errorText());
    note(session);
  }
  void close(size_t session) {
    require(sessions_[session]->close() == 0, sessions_[session]->errorText());
    note(session);
  }
  const tarn::RecordingSession& at(size_t session) const { return *sessions_[session]; }

 private:
  void note(size_t session) {
    const Trace* trace = Card::get().trace();
    if (trace == nullptr) return;
    const tarn::RecordingStatistics now = sessions_[session]->statistics();
    out_->safe.push_back({trace->ops.size(), static_cast<int>(firstSession_ + session),
                          static_cast<uint32_t>(now.confirmed),
                          static_cast<uint32_t>(now.pictures)});
  }

  Recorded* out_;
  size_t firstSession_;
  std::vector<std::unique_ptr<tarn::RecordingSession>> sessions_;
};

}  // namespace powercut
