#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "base/Export.h"
#include "media/serve/ServedRows.h"

namespace tarn {

// A stretch of time, microseconds since 1970.
struct TimeSpan {
  int64_t fromUs = 0;
  int64_t toUs = 0;
};

// What was recorded when, counted into bins of equal length. Pure functions.
class TARN_API Timeline {
 public:
  // What is nearer than this to the recording before follows it without a gap: recordings end with
  // the beginning of their last picture.
  static constexpr int64_t kJoinUs = 1000000;

  // The stretches that rows of one channel show, in order, none touching another. `runningTo` is
  // where those that run have come to, asked by their key.
  template <typename RunningTo>
  static std::vector<TimeSpan> covered(const ServedRows& rows, const std::vector<uint32_t>& places,
                                       RunningTo runningTo) {
    std::vector<TimeSpan> spans;
    for (uint32_t place : places) {
      const ServedRecording& one = rows.recordings[place];
      add(&spans, {one.startUs(), one.isRunning() ? runningTo(one) : one.endUs()});
    }
    return spans;
  }
  // Of each bin the thousandths that `spans` cover.
  static std::vector<uint16_t> shares(const std::vector<TimeSpan>& spans, TimeSpan period,
                                      uint32_t bins);
  // What lies between the spans, within the period; the `most` longest, in order. *left is how many
  // more there are.
  static std::vector<TimeSpan> gaps(const std::vector<TimeSpan>& spans, TimeSpan period,
                                    size_t most, size_t* left);
  // Of each bin how many events begin in it.
  static std::vector<uint32_t> events(const std::vector<DB_EVENT>& events, TimeSpan period,
                                      uint32_t bins);

 private:
  // Rows come in the order of their beginnings.
  static void add(std::vector<TimeSpan>* spans, TimeSpan span);
};

}  // namespace tarn
