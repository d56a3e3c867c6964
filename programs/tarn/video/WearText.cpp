#include "video/WearText.h"

#include <fmt/format.h>

#include <algorithm>

#include "recorder/session/WearCauses.h"

namespace tarn {
namespace {

using Share = CardWear::Share;

constexpr double kMiB = 1024.0 * 1024.0;

void add(Share* all, const Share& share) {
  all->bytes += share.bytes;
  all->writes += share.writes;
  all->flushes += share.flushes;
}

struct Recorded {
  double bytes = 0;  // of the video, and of the sound that goes with it
  double minutes = 0;
};

Recorded recordedOf(const std::vector<ChannelRecording>& recordings) {
  Recorded all;
  for (const ChannelRecording& one : recordings) {
    all.bytes += static_cast<double>(one.statistics.bytes + one.sound.bytes);
    all.minutes = std::max(all.minutes, static_cast<double>(one.lengthUs) / 60e6);
  }
  return all;
}

double ratio(double value, double of) { return of > 0 ? value / of : 0; }

std::string line(const char* cause, const Share& share, const Recorded& recorded) {
  const auto bytes = static_cast<double>(share.bytes);
  const auto flushes = static_cast<double>(share.flushes);
  const double mib = recorded.bytes / kMiB;
  return fmt::format("{:<12}{:>14}{:>9.3f} %{:>13.0f}{:>12.0f}{:>9}{:>10.1f}{:>9.2f}\n", cause,
                     share.bytes, 100 * ratio(bytes, recorded.bytes),
                     ratio(bytes, recorded.minutes), ratio(bytes, mib), share.flushes,
                     ratio(flushes, recorded.minutes), ratio(flushes, mib));
}

}  // namespace

std::string wearText(const CardWear& wear, const std::vector<ChannelRecording>& recordings) {
  const Recorded recorded = recordedOf(recordings);
  std::string text =
      fmt::format("{:<12}{:>14}{:>11}{:>13}{:>12}{:>9}{:>10}{:>9}\n", "to the card", "bytes",
                  "of video", "a minute", "a MiB", "flushes", "a minute", "a MiB");
  Share all;
  for (const WearCause& cause : wearCauses(wear)) {
    text += line(cause.name, cause.share, recorded);
    add(&all, cause.share);
  }
  return text + line("all", all, recorded);
}

}  // namespace tarn
