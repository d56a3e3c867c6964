#include "media/MediaInput.h"

#include "media/ContainerInput.h"
#include "media/StreamInput.h"
#include "recorder/AnnexB.h"

namespace tarn::tool {
namespace {

void appendUnit(std::vector<uint8_t>* out, const NalUnit& unit) {
  static constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
  out->insert(out->end(), std::begin(kStartCode), std::end(kStartCode));
  out->insert(out->end(), unit.data, unit.data + unit.size);
}

}  // namespace

void ParameterSets::complete(std::vector<uint8_t>* annexB, bool key) {
  std::vector<uint8_t> found;
  size_t afterDelimiter = 0;
  NalScanner scanner(annexB->data(), annexB->size());
  for (NalUnit unit; scanner.next(&unit);) {
    if (unit.type() == kNalSps || unit.type() == kNalPps) appendUnit(&found, unit);
    if (unit.type() == kNalDelimiter && afterDelimiter == 0)
      afterDelimiter = static_cast<size_t>(unit.data - annexB->data()) + unit.size;
  }
  if (!found.empty()) {
    sets_ = std::move(found);
  } else if (key && !sets_.empty()) {
    annexB->insert(annexB->begin() + static_cast<std::ptrdiff_t>(afterDelimiter), sets_.begin(),
                   sets_.end());
  }
}

std::unique_ptr<MediaInput> MediaInput::open(const std::string& path, double frameRate,
                                             std::string* error) {
  if (path == "-") return StreamInput::open(0, frameRate, error);
  return ContainerInput::open(path, frameRate, error);
}

}  // namespace tarn::tool
