#include "video/WearText.h"

#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>

namespace tarn {
namespace {

using Share = CardWear::Share;

constexpr double kMiB = 1024.0 * 1024.0;

Share sum(std::initializer_list<Share> shares) {
  Share all;
  for (const Share& share : shares) {
    all.bytes += share.bytes;
    all.writes += share.writes;
    all.flushes += share.flushes;
  }
  return all;
}

Share without(const Share& all, const Share& part) {
  return {all.bytes - part.bytes, all.writes - part.writes, all.flushes - part.flushes};
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
  const Share& data = wear.kinds[kFileStream];
  const Share entries = without(wear.kinds[kFilePicture], wear.headers);
  const Share& journal = wear.kinds[kFileJournal];
  const Share management = sum({wear.asked, wear.kinds[kFileStreamManage],
                                wear.kinds[kFileJournalManage], wear.kinds[kFileSyslogManage]});
  const Share& log = wear.kinds[kFileSyslog];
  const Share all = sum({data, entries, wear.headers, journal, management, log});
  return fmt::format("{:<12}{:>14}{:>11}{:>13}{:>12}{:>9}{:>10}{:>9}\n", "to the card", "bytes",
                     "of video", "a minute", "a MiB", "flushes", "a minute", "a MiB") +
         line("data", data, recorded) + line("entries", entries, recorded) +
         line("headers", wear.headers, recorded) + line("journal", journal, recorded) +
         line("management", management, recorded) + line("log", log, recorded) +
         line("all", all, recorded);
}

}  // namespace tarn
