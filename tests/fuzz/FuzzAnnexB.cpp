// H.264 byte streams. Putting our time stamp in and taking it out gives back the same bytes.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "recorder/recording/AnnexB.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tarn::NalScanner scanner(data, size);
  tarn::NalUnit unit;
  while (scanner.next(&unit)) {
    if (unit.data < data || unit.data + unit.size > data + size) abort();
  }
  tarn::isKeyPicture(data, size);
  tarn::NalUnit sps;
  tarn::NalUnit pps;
  tarn::findParameterSets(data, size, &sps, &pps);
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
  return 0;
}
