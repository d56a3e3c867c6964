#include "media/PictureFormat.h"

#include <algorithm>
#include <iterator>

#include "media/Av.h"
#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

constexpr uint8_t kStart[] = {0, 0, 0, 1};

class UnitList {
 public:
  // Some encoders say the same set twice.
  void add(const NalUnit& unit) {
    const bool known = std::any_of(units_.begin(), units_.end(), [&](const NalUnit& one) {
      return std::equal(one.data, one.data + one.size, unit.data, unit.data + unit.size);
    });
    if (!known) units_.push_back(unit);
  }
  std::vector<uint8_t> bytes() const {
    std::vector<uint8_t> all;
    for (const NalUnit& unit : units_) {
      all.insert(all.end(), std::begin(kStart), std::end(kStart));
      all.insert(all.end(), unit.data, unit.data + unit.size);
    }
    return all;
  }

 private:
  std::vector<NalUnit> units_;
};

}  // namespace

ParameterSets parameterSetsOf(const std::vector<uint8_t>& annexB) {
  UnitList sequence, picture;
  NalScanner scanner(annexB.data(), annexB.size());
  NalUnit unit;
  // Behind the first slice there is none.
  while (scanner.next(&unit) && (unit.type() == 0 || unit.type() > kNalIdr)) {
    if (unit.type() == kNalSps) sequence.add(unit);
    if (unit.type() == kNalPps) picture.add(unit);
  }
  return {sequence.bytes(), picture.bytes()};
}

PictureSize pictureSizeOf(const std::vector<uint8_t>& annexB) {
  const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
  AvOwned<AVCodecContext> codec(avcodec_alloc_context3(decoder));
  AvOwned<AVCodecParserContext> parser(av_parser_init(AV_CODEC_ID_H264));
  if (codec == nullptr || parser == nullptr) return {};
  parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
  std::vector<uint8_t> padded(annexB);
  padded.resize(padded.size() + AV_INPUT_BUFFER_PADDING_SIZE);
  uint8_t* out = nullptr;
  int outSize = 0;
  av_parser_parse2(parser.get(), codec.get(), &out, &outSize, padded.data(),
                   static_cast<int>(annexB.size()), 0, 0, 0);
  return {static_cast<uint32_t>(std::max(parser->width, 0)),
          static_cast<uint32_t>(std::max(parser->height, 0))};
}

}  // namespace tarn
