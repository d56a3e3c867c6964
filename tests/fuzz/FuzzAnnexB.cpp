// H.264 byte streams. Putting our time stamp in and taking it out gives back the same bytes.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "media/ReorderDepth.h"
#include "media/StreamPreamble.h"
#include "recorder/recording/AnnexB.h"

namespace {

void stamp(const uint8_t* data, size_t size) {
  const size_t place = tarn::timeStampSeiPlace(data, size);
  if (place > size) abort();
  std::vector<uint8_t> stamped(data, data + place);
  stamped.resize(place + tarn::kTimeStampSeiSize);
  tarn::makeTimeStampSei(1700000000, stamped.data() + place);
  stamped.insert(stamped.end(), data + place, data + size);
  size_t found = 0;
  if (!tarn::findTimeStampSei(stamped.data(), stamped.size(), &found)) abort();
  const size_t left = tarn::removeTimeStampSei(stamped.data(), stamped.size());
  if (left != size || memcmp(stamped.data(), data, size) != 0) abort();
}

// What a key picture carried, the next one is given that lacks it.
void complete(const uint8_t* data, size_t size) {
  tarn::StreamPreamble preamble;
  std::vector<uint8_t> first(data, data + size);
  preamble.complete(&first, true);
  if (first != std::vector<uint8_t>(data, data + size)) abort();
  std::vector<uint8_t> bare = {0, 0, 0, 1, 0x65, 0x88};
  preamble.complete(&bare, true);
  tarn::NalUnit sps;
  tarn::NalUnit pps;
  if (tarn::findParameterSets(data, size, &sps, &pps) &&
      !tarn::findParameterSets(bare.data(), bare.size(), &sps, &pps)) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tarn::NalScanner scanner(data, size);
  tarn::NalUnit unit;
  while (scanner.next(&unit)) {
    if (unit.data < data || unit.data + unit.size > data + size) abort();
  }
  tarn::isKeyPicture(data, size);
  tarn::NalUnit sps;
  tarn::NalUnit pps;
  if (tarn::findParameterSets(data, size, &sps, &pps) &&
      tarn::reorderDepthOf(sps.data, sps.size).most > tarn::ReorderDepth::kMost) {
    abort();
  }
  std::vector<uint8_t> bare(data, data + size);
  tarn::removeTimeStampSei(bare.data(), bare.size());
  stamp(data, size);
  complete(data, size);
  return 0;
}
