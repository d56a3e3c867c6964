#include "media/archive/ClipSeal.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "media/archive/ContentHasher.h"

namespace tarn {
namespace {

constexpr char kErrOtherPictures[] =
    "the card gave other pictures when it was asked for them again, to seal them; a later run "
    "tries "
    "once more";

}  // namespace

ClipSeal::ClipSeal(SealingKey* key, const SealRequest& request, const std::string& recorder,
                   const std::string& object)
    : key_(key), object_(object) {
  const auto now = static_cast<int64_t>(time(nullptr));
  words_ = sealWords(request, now);
  statement_.unitName = recorder;
  statement_.time = static_cast<uint64_t>(now + kSecondsFrom1904);
  statement_.operatorName = request.operatorName;
}

bool ClipSeal::fail(const std::string& text) {
  error_ = text;
  return false;
}

void ClipSeal::begin(const ByteSink* sink, std::vector<ExportStatement::Source> sources) {
  sink_ = sink;
  signed_ = Digest();
  unsealed_ = Digest();
  statement_.sources = std::move(sources);
  for (size_t i = 0; i < statement_.sources.size(); ++i) {
    statement_.sources[i].track = static_cast<uint16_t>(i + 1);
    statement_.sources[i].url = object_;
  }
}

bool ClipSeal::give(const uint8_t* data, size_t size) {
  signed_.add(data, size);
  return sink_ == nullptr || (*sink_)(data, size);
}

bool ClipSeal::add(const uint8_t* data, size_t size) {
  unsealed_.add(data, size);
  return give(data, size);
}

// What is signed has zeros where the signature will be.
bool ClipSeal::addSeal(int64_t originUs) {
  size_t inMeta = 0;
  std::vector<uint8_t> meta = makeSealedMeta(*key_, words_, statement_, originUs, &inMeta);
  signed_.add(meta.data(), meta.size());
  if (sink_ == nullptr) return true;
  std::copy(signature_.begin(), signature_.end(), meta.begin() + static_cast<ptrdiff_t>(inMeta));
  return (*sink_)(meta.data(), meta.size());
}

bool ClipSeal::end() {
  Digest::Value all{};
  Digest::Value content{};
  if (!signed_.finish(&all) || !unsealed_.finish(&content))
    return fail("cannot work out a checksum: " + cryptoError());
  content_ = hexText(content.data(), content.size());
  if (sink_ != nullptr) return all == toSign_ || fail(kErrOtherPictures);
  toSign_ = all;
  return key_->sign(all, &signature_) || fail(key_->error());
}

}  // namespace tarn
