#include "media/serve/Timeline.h"

#include <algorithm>

namespace tarn {
namespace {

constexpr int64_t kWhole = 1000;

// Where a bin begins. The last one's end is the period's, whatever divides.
int64_t binBegin(TimeSpan period, uint32_t bins, uint32_t bin) {
  const int64_t length = period.toUs - period.fromUs;
  return period.fromUs + length / bins * bin + length % bins * bin / bins;
}

// A period takes up to 52 bits, so its product with the number of bins takes too many.
uint32_t binOf(TimeSpan period, uint32_t bins, int64_t at) {
  constexpr int64_t kFine = 1024;  // of a long bin the remainder of the division hardly matters
  const int64_t length = period.toUs - period.fromUs;
  const int64_t offset = at - period.fromUs;
  const int64_t near = length >= kFine * bins ? offset / (length / bins) : offset * bins / length;
  auto bin = static_cast<uint32_t>(std::min<int64_t>(near, bins - 1));
  while (bin > 0 && binBegin(period, bins, bin) > at) --bin;
  while (bin + 1 < bins && binBegin(period, bins, bin + 1) <= at) ++bin;
  return bin;
}

}  // namespace

void Timeline::add(std::vector<TimeSpan>* spans, TimeSpan span) {
  span.toUs = std::max(span.toUs, span.fromUs);
  if (spans->empty() || span.fromUs - spans->back().toUs >= kJoinUs) {
    spans->push_back(span);
  } else {
    spans->back().toUs = std::max(spans->back().toUs, span.toUs);
  }
}

std::vector<uint16_t> Timeline::shares(const std::vector<TimeSpan>& spans, TimeSpan period,
                                       uint32_t bins) {
  std::vector<int64_t> covered(bins, 0);
  for (const TimeSpan& span : spans) {
    const int64_t from = std::max(span.fromUs, period.fromUs);
    const int64_t to = std::min(span.toUs, period.toUs);
    if (from >= to) continue;
    for (uint32_t bin = binOf(period, bins, from); bin < bins; ++bin) {
      const int64_t begin = std::max(from, binBegin(period, bins, bin));
      const int64_t end = std::min(to, binBegin(period, bins, bin + 1));
      if (begin >= to) break;
      covered[bin] += end - begin;
    }
  }
  std::vector<uint16_t> shares(bins);
  for (uint32_t bin = 0; bin < bins; ++bin) {
    const int64_t length = binBegin(period, bins, bin + 1) - binBegin(period, bins, bin);
    if (length == 0 || covered[bin] == 0) continue;
    // What is there at all shows.
    const int64_t share = covered[bin] * kWhole / length;
    shares[bin] = static_cast<uint16_t>(std::clamp<int64_t>(share, 1, kWhole));
  }
  return shares;
}

std::vector<TimeSpan> Timeline::gaps(const std::vector<TimeSpan>& spans, TimeSpan period,
                                     size_t most, size_t* left) {
  std::vector<TimeSpan> gaps;
  for (size_t i = 1; i < spans.size(); ++i) {
    const TimeSpan gap = {std::max(spans[i - 1].toUs, period.fromUs),
                          std::min(spans[i].fromUs, period.toUs)};
    if (gap.fromUs < gap.toUs) gaps.push_back(gap);
  }
  *left = gaps.size() > most ? gaps.size() - most : 0;
  if (*left == 0) return gaps;
  const auto longer = [](const TimeSpan& a, const TimeSpan& b) {
    return a.toUs - a.fromUs > b.toUs - b.fromUs;
  };
  std::nth_element(gaps.begin(), gaps.begin() + static_cast<ptrdiff_t>(most), gaps.end(), longer);
  gaps.resize(most);
  std::sort(gaps.begin(), gaps.end(),
            [](const TimeSpan& a, const TimeSpan& b) { return a.fromUs < b.fromUs; });
  return gaps;
}

std::vector<uint32_t> Timeline::events(const std::vector<DB_EVENT>& events, TimeSpan period,
                                       uint32_t bins) {
  std::vector<uint32_t> counts(bins, 0);
  for (const DB_EVENT& event : events) {
    const int64_t at = startUs(event);
    if (at >= period.fromUs && at < period.toUs) ++counts[binOf(period, bins, at)];
  }
  return counts;
}

}  // namespace tarn
