#include "media/StreamPreamble.h"

#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

void appendUnit(std::vector<uint8_t>* out, const NalUnit& unit) {
  static constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
  out->insert(out->end(), std::begin(kStartCode), std::end(kStartCode));
  out->insert(out->end(), unit.data, unit.data + unit.size);
}

// Unregistered user data, by which encoders name themselves.
bool isEncoderNote(const NalUnit& unit) {
  constexpr uint8_t kUserDataUnregistered = 5;
  return unit.type() == kNalSei && unit.size > 1 && unit.data[1] == kUserDataUnregistered;
}

}  // namespace

void StreamPreamble::complete(std::vector<uint8_t>* annexB, bool key) {
  std::vector<uint8_t> sets;
  std::vector<uint8_t> notes;
  size_t place = 0;  // behind a delimiter, which must stay first
  NalScanner scanner(annexB->data(), annexB->size());
  for (NalUnit unit; scanner.next(&unit);) {
    if (unit.type() == kNalSps || unit.type() == kNalPps) appendUnit(&sets, unit);
    if (isEncoderNote(unit)) appendUnit(&notes, unit);
    if (unit.type() == kNalDelimiter && place == 0)
      place = static_cast<size_t>(unit.data - annexB->data()) + unit.size;
  }
  if (!sets.empty()) parameterSets_ = sets;
  if (!key) return;
  std::vector<uint8_t> missing;
  if (sets.empty()) missing = parameterSets_;
  // Only notes that came with a key picture are the encoder's about the stream.
  if (!notes.empty()) {
    encoderNotes_ = std::move(notes);
  } else {
    missing.insert(missing.end(), encoderNotes_.begin(), encoderNotes_.end());
  }
  annexB->insert(annexB->begin() + static_cast<std::ptrdiff_t>(place), missing.begin(),
                 missing.end());
}

}  // namespace tarn
