#include "media/serve/PieceMaker.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "media/FragmentedMovie.h"
#include "media/PictureFormat.h"
#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

constexpr size_t kMostBytes = size_t{16} * 1024 * 1024;  // of a piece, whatever its pictures are

constexpr char kNotThere[] = "these pictures are not there";
constexpr char kNoSoundThere[] = "this sound is not there";
constexpr char kOtherFormat[] = "the pictures change their format there: ask for the pieces anew";
constexpr int64_t kBlockUs = 1000000;  // no block of sound is as long

// A movie that is written into a string, with times that count from 1970.
bool openMovie(FragmentedMovie* movie, FragmentedMovie::Fragments fragments, size_t tracks,
               std::string* out) {
  FragmentedMovie::Plan plan;
  plan.tracks = tracks;
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

// Where a key picture has no sets of its own, those before it hold.
bool isOther(const PieceMaker::Description& description, const OutputPicture& key) {
  const ParameterSets sets = parameterSetsOf(key.annexB);
  return !sets.sequence.empty() && sets.sequence != description.sequence;
}

bool fail(std::string* error, const std::string& text) {
  *error = text;
  return false;
}

// Sound of the time of a piece, written in step with its pictures.
class SoundBeside {
 public:
  SoundBeside(FragmentedMovie* movie, std::unique_ptr<SoundFrames> frames)
      : movie_(movie), frames_(std::move(frames)) {}
  // All that begins before that time.
  bool writeUntil(int64_t us) {
    while (frames_ != nullptr && frames_->frame() != nullptr &&
           frames_->frame()->time.totalMicros() < us) {
      if (!movie_->write(*frames_->frame(), 1)) return false;
      frames_->next();
    }
    return true;
  }

 private:
  FragmentedMovie* movie_;
  std::unique_ptr<SoundFrames> frames_;
};

// When the piece's first picture is shown, and the one behind it: where nothing follows in the
// recording, all of the sound that was recorded while its last one was shown.
bool timeOf(RecordingReader* reader, uint32_t first, uint32_t count, int64_t* fromUs,
            int64_t* toUs) {
  constexpr int64_t kShownUs = 40000;
  PictureEntry entry;
  if (!reader->picture(first, &entry)) return false;
  *fromUs = entry.presentation.totalMicros();
  if (reader->picture(first + count, &entry)) {
    *toUs = entry.presentation.totalMicros();
    return true;
  }
  *toUs = *fromUs;
  for (uint32_t i = first; i < first + count; ++i) {
    if (reader->picture(i, &entry))
      *toUs = std::max(*toUs, entry.presentation.totalMicros() + kShownUs);
  }
  return true;
}

}  // namespace

std::shared_ptr<const PieceMaker::Description> PieceMaker::look(const ServedRecording& recording,
                                                                uint32_t format) {
  RecordingReader reader;
  if (reader.open(recording.row) != 0) return nullptr;
  auto first = std::make_shared<OutputPicture>();
  NalUnit sps, pps;
  bool found = false;
  for (uint32_t i = format; !found && i < reader.pictureCount(); ++i) {
    found = isKeyAt(&reader, i) && readPicture(&reader, i, first.get()) &&
            findParameterSets(first->annexB.data(), first->annexB.size(), &sps, &pps);
  }
  if (!found || sps.size < 4) return nullptr;
  return std::make_shared<Description>(Description{recording.row.streamID, format, codecOf(sps),
                                                   bytesOf(sps) + bytesOf(pps), first,
                                                   parameterSetsOf(first->annexB).sequence});
}

std::shared_ptr<const PieceMaker::Description> PieceMaker::describe(
    const ServedRecording& recording, uint32_t format) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(kept_.begin(), kept_.end(), [&](const auto& one) {
      return one->streamID == recording.row.streamID && one->format == format;
    });
    if (found != kept_.end()) {
      kept_.splice(kept_.begin(), kept_, found);
      return kept_.front();
    }
  }
  std::shared_ptr<const Description> description = look(recording, format);
  if (description == nullptr) return nullptr;
  const std::lock_guard<std::mutex> lock(mutex_);
  kept_.push_front(description);
  if (kept_.size() > kKept) kept_.pop_back();
  return description;
}

namespace {

// Tracks of what there is: pictures first.
bool describeTracks(FragmentedMovie* movie, const PieceMaker::Description* pictures,
                    const PieceMaker::Sound* sound) {
  if (pictures != nullptr && !movie->describe(0, *pictures->first)) return false;
  return sound == nullptr || movie->describe(pictures != nullptr ? 1 : 0, *sound->first);
}

}  // namespace

bool PieceMaker::init(const Description* pictures, const Sound* sound, std::string* out,
                      std::string* error) {
  FragmentedMovie movie;
  const size_t tracks = size_t{pictures != nullptr} + size_t{sound != nullptr};
  const bool good = openMovie(&movie, FragmentedMovie::Fragments::kAsTold, tracks, out) &&
                    describeTracks(&movie, pictures, sound) && movie.begin();
  return good || fail(error, movie.error());
}

bool PieceMaker::piece(const ServedRecording& recording, const PiecePlace& place,
                       const Sound* sound, const SoundRows& soundRows, std::string* out,
                       std::string* error) {
  const std::shared_ptr<const Description> description = describe(recording, place.format);
  RecordingReader reader;
  int64_t fromUs = 0, toUs = 0;
  if (description == nullptr || reader.open(recording.row) != 0 ||
      uint64_t{place.first} + place.count > reader.pictureCount() ||
      !timeOf(&reader, place.first, place.count, &fromUs, &toUs))
    return fail(error, kNotThere);
  FragmentedMovie movie;
  const uint32_t behind = place.first + place.count;
  const bool closed = isKeyAt(&reader, behind);
  const auto fragments =
      closed ? FragmentedMovie::Fragments::kAtKeys : FragmentedMovie::Fragments::kAsTold;
  bool good = openMovie(&movie, fragments, sound != nullptr ? 2 : 1, out) &&
              describeTracks(&movie, description.get(), sound) && movie.begin();
  out->clear();  // the part for init()
  SoundBeside beside(
      &movie, sound == nullptr ? nullptr
                               : std::make_unique<SoundFrames>(soundRows(fromUs, toUs),
                                                               sound->first->format, fromUs, toUs));
  OutputPicture picture;
  for (uint32_t i = place.first; good && i < behind; ++i) {
    if (place.keysOnly && !isKeyAt(&reader, i)) continue;
    // A picture that the card does not give is missing, and nothing else.
    if (!readPicture(&reader, i, &picture)) continue;
    if (picture.key && isOther(*description, picture)) return fail(error, kOtherFormat);
    good = beside.writeUntil(picture.presentation.totalMicros() + picture.decodeOffsetUs) &&
           movie.write(picture);
  }
  // The key picture behind the piece tells how long the last one is shown, and ends it. It is kept
  // for the next fragment, so nothing but its time counts.
  good = good && beside.writeUntil(toUs);
  if (good) good = closed ? movie.write(emptyKeyAt(&reader, behind)) : movie.endFragment();
  return good || fail(error, movie.error());
}

bool PieceMaker::soundPiece(const ServedRecording& recording, const PiecePlace& place,
                            const Sound& sound, std::string* out, std::string* error) {
  RecordingReader reader;
  int64_t fromUs = 0, toUs = 0;
  if (reader.open(recording.row) != 0 ||
      uint64_t{place.first} + place.count > reader.pictureCount() ||
      !timeOf(&reader, place.first, place.count, &fromUs, &toUs))
    return fail(error, kNoSoundThere);
  // Behind the last block nothing of the recording tells where it ends.
  if (place.first + place.count == reader.pictureCount()) toUs += kBlockUs;
  FragmentedMovie movie;
  bool good = openMovie(&movie, FragmentedMovie::Fragments::kAsTold, 1, out) &&
              describeTracks(&movie, nullptr, &sound) && movie.begin();
  out->clear();
  SoundFrames frames({recording.row}, sound.first->format, fromUs, toUs);
  for (; good && frames.frame() != nullptr; frames.next()) good = movie.write(*frames.frame(), 0);
  good = good && movie.endFragment();
  return good || fail(error, movie.error());
}

}  // namespace tarn
