#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/seal/SealRequest.h"

namespace tarn {

class SealingKey;

// What a sealed file says of itself in its box `suep`: who exported it, and from where.
struct ExportStatement {
  struct Source {
    uint16_t track = 0;  // as the file numbers its tracks
    std::string name;
    std::string url;
    std::string mac;
    std::string line;
  };
  std::string unitName;
  std::string unitUrl;
  std::string unitMac;
  uint64_t time = 0;  // seconds since 1904, UTC, when the export began
  std::string operatorName;
  std::vector<Source> sources;
};

// When the decode time 0 of a track was: 100 ns since 1601, UTC.
struct TrackStart {
  uint32_t track = 0;
  uint64_t time = 0;
};

// The clocks of the format.
constexpr int64_t kSecondsFrom1904 = 2082844800;
constexpr int64_t kSecondsFrom1601 = 11644473600;
inline uint64_t ticksOf(int64_t unixMicros) {
  return static_cast<uint64_t>(unixMicros + kSecondsFrom1601 * 1000000) * 10;
}

// "YYYY-MM-DDTHH:MM:SSZ"; "" of what is no such time.
std::string utcText(int64_t unixSeconds);

// What stands in the box `auib`: the program's own words, one a line, the note last.
TARN_API std::string sealWords(const SealRequest& request, int64_t unixSeconds);
// What of them tells a line; "" where none does. `name` is "sealed", "operator", "note".
std::string wordOf(const std::string& words, const std::string& name);

// One seal, box `sinf`, with a signature of zeros: *signatureAt is where that stands in it.
std::vector<uint8_t> makeSeal(const SealingKey& key, const std::string& words,
                              const std::vector<TrackStart>& starts, size_t* signatureAt);
// The box `meta` of a file with one seal: *sealAt is where that stands in it.
std::vector<uint8_t> makeMeta(const ExportStatement& statement, const std::vector<uint8_t>& seal,
                              size_t* sealAt);
// The box `meta` of a movie whose tracks are the statement's sources, in their order, and all begin
// to count at `originUs` (since 1970), with a signature of zeros: *signatureAt is where in the box.
std::vector<uint8_t> makeSealedMeta(const SealingKey& key, const std::string& words,
                                    const ExportStatement& statement, int64_t originUs,
                                    size_t* signatureAt);

}  // namespace tarn
