#include "media/serve/PieceMaker.h"

#include <algorithm>
#include <cstdio>

#include "media/FragmentedMovie.h"
#include "media/PictureFormat.h"
#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

constexpr size_t kMostBytes = size_t{16} * 1024 * 1024;  // of a piece, whatever its pictures are

// A movie that is written into a string, with times that count from 1970.
bool openMovie(FragmentedMovie* movie, FragmentedMovie::Fragments fragments, std::string* out) {
  FragmentedMovie::Plan plan;
  plan.fragments = fragments;
  plan.origin = PictureTime{0, 0};
  return movie->open(plan, [out](const uint8_t* data, size_t size) {
    out->append(reinterpret_cast<const char*>(data), size);
    return out->size() <= kMostBytes;
  });
}

bool readPicture(RecordingReader* reader, uint32_t index, OutputPicture* out) {
  PictureEntry entry;
  if (!reader->picture(index, &entry) || !reader->readPicture(entry, &out->annexB)) return false;
  out->presentation = entry.presentation;
  out->decodeOffsetUs = entry.decodeOffsetUs;
  out->key = entry.isKey();
  return true;
}

bool isKeyAt(RecordingReader* reader, uint32_t index) {
  PictureEntry entry;
  return reader->picture(index, &entry) && entry.isKey();
}

OutputPicture emptyKeyAt(RecordingReader* reader, uint32_t index) {
  PictureEntry entry;
  reader->picture(index, &entry);
  return {{0, 0, 0, 1, kNalIdr}, entry.presentation, entry.decodeOffsetUs, true};
}

std::string codecOf(const NalUnit& sps) {
  char text[24];
  snprintf(text, sizeof text, "avc1.%02X%02X%02X", unsigned{sps.data[1]}, unsigned{sps.data[2]},
           unsigned{sps.data[3]});
  return text;
}

std::string bytesOf(const NalUnit& unit) {
  return {reinterpret_cast<const char*>(unit.data), unit.size};
}

bool fail(std::string* error, const std::string& text) {
  *error = text;
  return false;
}

}  // namespace

std::shared_ptr<const PieceMaker::Description> PieceMaker::look(const ServedRecording& recording) {
  RecordingReader reader;
  if (reader.open(recording.row) != 0) return nullptr;
  auto first = std::make_shared<OutputPicture>();
  NalUnit sps, pps;
  bool found = false;
  for (uint32_t i = 0; !found && i < reader.pictureCount(); ++i) {
    found = isKeyAt(&reader, i) && readPicture(&reader, i, first.get()) &&
            findParameterSets(first->annexB.data(), first->annexB.size(), &sps, &pps);
  }
  if (!found || sps.size < 4) return nullptr;
  return std::make_shared<Description>(Description{recording.row.streamID, codecOf(sps),
                                                   bytesOf(sps) + bytesOf(pps), first,
                                                   parameterSetsOf(first->annexB).sequence});
}

std::shared_ptr<const PieceMaker::Description> PieceMaker::describe(
    const ServedRecording& recording) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(kept_.begin(), kept_.end(), [&](const auto& one) {
      return one->streamID == recording.row.streamID;
    });
    if (found != kept_.end()) {
      kept_.splice(kept_.begin(), kept_, found);
      return kept_.front();
    }
  }
  std::shared_ptr<const Description> description = look(recording);
  if (description == nullptr) return nullptr;
  const std::lock_guard<std::mutex> lock(mutex_);
  kept_.push_front(description);
  if (kept_.size() > kKept) kept_.pop_back();
  return description;
}

bool PieceMaker::init(const Description& description, std::string* out, std::string* error) {
  FragmentedMovie movie;
  const bool good = openMovie(&movie, FragmentedMovie::Fragments::kAsTold, out) &&
                    movie.describe(0, *description.first) && movie.begin();
  return good || fail(error, movie.error());
}

bool PieceMaker::piece(const ServedRecording& recording, uint32_t first, uint32_t count,
                       bool keysOnly, std::string* out, std::string* error) {
  const std::shared_ptr<const Description> description = describe(recording);
  RecordingReader reader;
  if (description == nullptr || reader.open(recording.row) != 0 ||
      uint64_t{first} + count > reader.pictureCount())
    return fail(error, "these pictures are not there");
  FragmentedMovie movie;
  const uint32_t behind = first + count;
  const bool closed = isKeyAt(&reader, behind);
  const auto fragments =
      closed ? FragmentedMovie::Fragments::kAtKeys : FragmentedMovie::Fragments::kAsTold;
  bool good =
      openMovie(&movie, fragments, out) && movie.describe(0, *description->first) && movie.begin();
  out->clear();  // the part for init()
  OutputPicture picture;
  for (uint32_t i = first; good && i < behind; ++i) {
    if (keysOnly && !isKeyAt(&reader, i)) continue;
    // A picture that the card does not give is missing, and nothing else.
    if (readPicture(&reader, i, &picture)) good = movie.write(picture);
  }
  // The key picture behind the piece tells how long the last one is shown, and ends it. It is kept
  // for the next fragment, so nothing but its time counts.
  if (good) good = closed ? movie.write(emptyKeyAt(&reader, behind)) : movie.endFragment();
  return good || fail(error, movie.error());
}

}  // namespace tarn
