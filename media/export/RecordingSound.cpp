#include "media/export/RecordingSound.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <set>

#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

// So much of both may be there from one row of sound to the next.
constexpr int64_t kSeamMs = 100;

int64_t startOf(const DB_STREAM& row) { return int64_t{row.startDate} * 1000 + row.startMSec; }

int64_t endOf(const DB_STREAM& row) {
  return row.endDate == 0 ? INT64_MAX : int64_t{row.endDate} * 1000 + row.endMSec;
}

bool lieApart(const DB_STREAM& a, const DB_STREAM& b) {
  return endOf(a) - kSeamMs <= startOf(b) || endOf(b) - kSeamMs <= startOf(a);
}

// Whether it only reaches into the pictures from what was recorded before, coded in another way than
// their own: no file would have a track for both.
bool isFormer(const DB_STREAM& row, const DB_STREAM& pictures, const DB_STREAM& own) {
  return soundCodecOf(row) != soundCodecOf(own) && endOf(row) - kSeamMs <= startOf(pictures);
}

}  // namespace

std::vector<DB_STREAM> soundOfRecording(const DB_STREAM& pictures,
                                        const std::vector<DB_STREAM>& beside) {
  const auto distance = [&](const DB_STREAM& row) {
    return std::llabs(startOf(row) - startOf(pictures));
  };
  std::vector<DB_STREAM> nearest = beside;
  std::stable_sort(nearest.begin(), nearest.end(), [&](const DB_STREAM& a, const DB_STREAM& b) {
    return distance(a) < distance(b);
  });
  std::vector<DB_STREAM> own;
  std::set<uint32_t> keys;
  for (const DB_STREAM& row : nearest) {
    const auto apart = [&](const DB_STREAM& one) { return lieApart(one, row); };
    if (!std::all_of(own.begin(), own.end(), apart) || isFormer(row, pictures, nearest.front()))
      continue;
    own.push_back(row);
    keys.insert(row.streamID);
  }
  own.clear();
  std::copy_if(beside.begin(), beside.end(), std::back_inserter(own),
               [&](const DB_STREAM& row) { return keys.count(row.streamID) != 0; });
  return own;
}

}  // namespace tarn
