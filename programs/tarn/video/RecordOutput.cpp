#include "video/RecordOutput.h"

#include <fmt/format.h>

#include <cstdio>

#include "media/MonotonicTime.h"
#include "programs/ServiceNotice.h"

namespace tarn {
namespace {

constexpr int64_t kTellUs = 50000;
constexpr int64_t kLineUs = 250000;

// Output that cannot be written is told at the end, and no reason to stop recording.
void say(const std::string& text) { fputs(text.c_str(), stdout); }

double millions(int64_t number) { return static_cast<double>(number) / 1e6; }

}  // namespace

RecordOutput::RecordOutput(bool alone, bool progress)
    : alone_(alone),
      progress_(progress),
      watchdogUs_(SafetyWatch::limitOfManager()),
      safety_(watchdogUs_, monotonicUs()) {
  if (alone_) line_.emplace();
}

std::string RecordOutput::label(uint8_t channel) const {
  return alone_ ? "" : fmt::format("channel {}: ", channel);
}

void RecordOutput::told(uint8_t channel, const std::string& sentence) {
  complain(label(channel) + sentence);
}

// Whoever watches may kill us at any moment, so each line goes out at once. That nobody reads them
// any more is no reason to stop recording.
void RecordOutput::tellProgress(const ChannelRecording& recording) {
  const RecordingStatistics& statistics = recording.statistics;
  const std::lock_guard<std::mutex> lock(mutex_);
  Progress& last = progresses_[recording.channel];
  const int64_t now = monotonicUs();
  const bool written = statistics.pictures != last.written && now - last.toldUs >= kTellUs;
  if (statistics.confirmed == last.safe && !written) return;
  last = {statistics.confirmed, statistics.pictures, now};
  say(label(recording.channel) +
      fmt::format("{} pictures written, {} safe\n", statistics.pictures, statistics.confirmed));
  fflush(stdout);
}

void RecordOutput::showLine(const ChannelRecording& recording) {
  const int64_t now = monotonicUs();
  if (now - lineUs_ < kLineUs) return;
  lineUs_ = now;
  line_->show(fmt::format("{} pictures, {:.1f} s, {:.1f} MB", recording.statistics.pictures,
                          millions(recording.lengthUs),
                          static_cast<double>(recording.statistics.bytes) / 1e6));
}

void RecordOutput::progressed(const ChannelRecording& recording) {
  if (line_ && recording.statistics.pictures > 0) showLine(recording);
  if (progress_) tellProgress(recording);
}

void RecordOutput::meanwhile(uint64_t safePictures) {
  const SafetyWatch::Verdict verdict = safety_.look(safePictures, monotonicUs());
  if (verdict == SafetyWatch::Verdict::kFeed) notifyServiceManager("WATCHDOG=1");
  if (verdict == SafetyWatch::Verdict::kWarn)
    complain("no picture has become safe for " + std::to_string(watchdogUs_ / 2000000) +
             " s; after as long again the service manager starts the recording anew");
}

void RecordOutput::reportSound(const std::string& which, const RecordingStatistics& sound) {
  say(which + fmt::format("recorded {} frames of sound ({:.1f} MB) in {} recordings on {} chunks\n",
                          sound.confirmed, static_cast<double>(sound.bytes) / 1e6, sound.segments,
                          sound.chunks));
  if (sound.pictures > sound.confirmed)
    say(which +
        fmt::format("not on the card: {} frames of sound\n", sound.pictures - sound.confirmed));
}

void RecordOutput::report(const ChannelRecording& recording) {
  line_.reset();
  if (!recording.begun) return;
  const std::string which = label(recording.channel);
  const RecordingStatistics& s = recording.statistics;
  say(which +
      fmt::format(
          "recorded {} pictures ({:.1f} s, {:.1f} MB) in {} recordings on {} chunks, {} events\n",
          s.confirmed, millions(recording.lengthUs), static_cast<double>(s.bytes) / 1e6, s.segments,
          s.chunks, recording.events));
  if (s.pictures > s.confirmed)
    say(which + fmt::format("not on the card: {} pictures\n", s.pictures - s.confirmed));
  if (recording.hasSound) reportSound(which, recording.sound);
  say(which +
      fmt::format(
          "made room: {} oldest recordings and {} events deleted, ring ends passed {} times\n",
          s.recordingsDeleted + recording.sound.recordingsDeleted,
          s.eventsDeleted + recording.sound.eventsDeleted,
          s.streamWraps + recording.sound.streamWraps));
}

}  // namespace tarn
