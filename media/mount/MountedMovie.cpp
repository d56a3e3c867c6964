#include "media/mount/MountedMovie.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "media/export/ExportTrack.h"
#include "media/export/SoundExport.h"
#include "media/export/TrackTurns.h"
#include "media/mount/SampleBytes.h"
#include "media/serve/KeyFormat.h"

namespace tarn {
namespace {

constexpr uint32_t kSound = 0x80000000;  // of a piece's source: a block of sound
constexpr size_t kBoxHeader = 8;
constexpr size_t kGap = 1;  // in front of another format; the picture before it has less room
constexpr uint8_t kFreeBox[] = {'f', 'r', 'e', 'e'};

}  // namespace

// Pictures by their entries alone: as long as they will be, and holding nothing.
class MountedMovie::Pictures : public ExportTrack {
 public:
  Pictures(const MountedMovie& movie, const OutputPicture& first)
      : movie_(movie), sources_(movie.pictures_), first_(first) {}

  Result next() override {
    if (++next_ > sources_.size()) return Result::kEnd;
    const PictureEntry& entry = sources_[next_ - 1].entry;
    const size_t gap = movie_.endsRun(index()) ? kGap : 0;
    picture_.annexB.resize(entry.size + MoviePlan::kSampleRoom - gap);
    picture_.presentation = entry.presentation;
    picture_.decodeOffsetUs = entry.decodeOffsetUs;
    picture_.key = entry.isKey();
    return Result::kPiece;
  }
  int64_t decodeUs() const override {
    return picture_.presentation.totalMicros() + picture_.decodeOffsetUs;
  }
  bool describe(MediaOutput* output, size_t track) const override {
    return output->describe(track, first_);
  }
  bool write(MediaOutput* output, size_t track) const override {
    return output->write(picture_, track);
  }
  uint32_t index() const { return static_cast<uint32_t>(next_ - 1); }

 private:
  const MountedMovie& movie_;
  const std::vector<Source>& sources_;
  const OutputPicture& first_;
  size_t next_ = 0;
  OutputPicture picture_;
};

bool MountedMovie::fail(const std::string& text) {
  error_ = text;
  return false;
}

// As in an export: what cannot be decoded without a picture that is not there is left out with it.
bool MountedMovie::gather(uint32_t part, bool* waitForKey) {
  const MoviePart& one = plan_.parts[part];
  const std::string name = "recording " + std::to_string(one.row.streamID);
  RecordingReader reader;
  if (reader.open(one.row) != 0) return fail(name + " cannot be read");
  for (uint32_t index = one.first; index < one.end; ++index) {
    Source source;
    source.row = part;
    const bool known = reader.picture(index, &source.entry);
    if (!known && reader.wasRefused()) return fail(name + " is not delivered by the card now");
    *waitForKey = !known || (*waitForKey && !source.entry.isKey());
    if (*waitForKey) continue;
    pictures_.push_back(source);
    if (source.entry.isKey()) noteFormat(&reader, index);
  }
  return true;
}

// As an export judges it. A key picture that the card does not give now counts as one like those
// before it: its own bytes are refused when they are asked for, and those of the others are not.
void MountedMovie::noteFormat(RecordingReader* reader, uint32_t index) {
  std::vector<uint8_t> sequence;
  if (!KeyFormat::sequenceOf(reader, index, &sequence) || sequence.empty()) return;
  if (!formats_.empty() && sequence == sequences_[formats_.back().description]) return;
  const auto known = std::find(sequences_.begin(), sequences_.end(), sequence);
  const auto description = static_cast<uint32_t>(known - sequences_.begin());
  if (known == sequences_.end()) sequences_.push_back(sequence);
  // What the first picture says, or those without sets in front of the first that has them.
  const auto picture = static_cast<uint32_t>(formats_.empty() ? 0 : pictures_.size() - 1);
  formats_.push_back({picture, description});
}

bool MountedMovie::endsRun(uint32_t picture) const {
  const auto next = std::upper_bound(
      formats_.begin(), formats_.end(), picture,
      [](uint32_t place, const FormatStart& start) { return place < start.picture; });
  return next != formats_.end() && next->picture == picture + 1;
}

int64_t MountedMovie::longestGapUs() const {
  int64_t longest = 0;
  for (size_t i = 1; i < pictures_.size(); ++i) {
    longest = std::max(longest, pictures_[i].entry.decodeTime().totalMicros() -
                                    pictures_[i - 1].entry.decodeTime().totalMicros());
  }
  return longest;
}

bool MountedMovie::readPicture(uint32_t picture, OutputPicture* out) {
  const PictureEntry& entry = pictures_[picture].entry;
  out->presentation = entry.presentation;
  out->decodeOffsetUs = entry.decodeOffsetUs;
  out->key = true;
  if (!loadSource(pictures_[picture], false)) return false;
  out->annexB = source_;
  return true;
}

bool MountedMovie::describeFormats(MovieHead* head) {
  std::vector<std::vector<uint8_t>> others;
  for (size_t i = 1; i < formats_.size(); ++i) {
    if (formats_[i].description != others.size() + 1) continue;
    OutputPicture first;
    std::string error;
    if (!readPicture(formats_[i].picture, &first)) return false;
    others.push_back(sampleEntryOf(first, plan_.quickTime, &error));
    if (others.back().empty()) return fail(error);
  }
  return formats_.size() < 2 || head->describeFormats(others, formats_) || fail(head->error());
}

// The source of the frame at hand.
uint32_t MountedMovie::noteFrame(const SoundExport& sound) {
  const auto row = static_cast<uint32_t>(sound.row());
  if (blocks_.empty() || blocks_.back().row != row ||
      blocks_.back().entry.number != sound.block().number)
    blocks_.push_back({sound.block(), row});
  places_.push_back(
      {static_cast<uint32_t>(blocks_.size() - 1), static_cast<uint32_t>(sound.placeInBlock())});
  return kSound | static_cast<uint32_t>(places_.size() - 1);
}

// Sound that no movie of its kind holds is left out.
bool MountedMovie::lay(MovieHead* head, const OutputPicture& first) {
  Pictures pictures(*this, first);
  SoundExport sound(plan_.sound, plan_.soundFrom, plan_.soundTo);
  if (!pictures_.empty()) sound.beginWith(first.presentation);
  std::vector<ExportTrack*> tracks;
  if (pictures.next() == ExportTrack::Result::kPiece) tracks.push_back(&pictures);
  if (sound.next() == ExportTrack::Result::kPiece) tracks.push_back(&sound);
  if (!head->open({plan_.quickTime, tracks.size(), plan_.headRoom(), longestGapUs()}))
    return fail(head->error());
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (tracks[i]->describe(head, i)) continue;
    if (tracks[i] != &sound || tracks.size() == 1) return fail(head->error());
    tracks.pop_back();
  }
  return layPieces(tracks, &pictures, &sound, head);
}

bool MountedMovie::layPieces(const std::vector<ExportTrack*>& tracks, const Pictures* pictures,
                             const SoundExport* sound, MovieHead* head) {
  for (TrackTurns turns(tracks); turns.hasNext();) {
    const bool heard = &turns.piece() == sound;
    // A track has one format: what another one has is left out.
    if (!heard || !sound->beginsFile()) {
      if (!heard && pictures->index() > 0 && endsRun(pictures->index() - 1)) head->leaveGap();
      head->nextIs(heard ? noteFrame(*sound) : pictures->index());
      if (!turns.piece().write(head, turns.track())) return fail(head->error());
    }
    if (!turns.advance()) return fail(turns.error());
  }
  if (sound->wasRefused()) return fail("its sound is not delivered by the card now");
  return head->end() || fail(head->error());
}

bool MountedMovie::make(const MoviePlan& plan) {
  plan_ = plan;
  if (size() == 0) return true;
  bool waitForKey = true;
  for (uint32_t part = 0; part < plan_.parts.size(); ++part) {
    if (!gather(part, &waitForKey)) return false;
  }
  OutputPicture first;
  MovieHead head;
  if (pictures_.empty() && !plan_.parts.empty()) return fail("there is no key picture");
  if (!pictures_.empty() && !readPicture(0, &first)) return false;
  if (!lay(&head, first) || !describeFormats(&head)) return false;
  head_ = head.head();
  pieces_ = head.pieces();
  dataEnd_ = head.dataEnd();
  const bool fits = dataEnd_ + kBoxHeader <= size();
  return fits || fail("the movie is larger than its entries told");
}

// The head says where every byte of these recordings lies.
uint64_t MountedMovie::signature() const {
  std::string all(head_.begin(), head_.end());
  const auto add = [&all](const DB_STREAM& row) {
    for (const uint32_t number : {row.streamID, row.chunkID, row.chunkOffset})
      all += std::to_string(number) + " ";
  };
  for (const MoviePart& part : plan_.parts) add(part.row);
  for (const DB_STREAM& row : plan_.sound) add(row);
  return std::hash<std::string>()(all);
}

// The bytes of a picture or block into source_. One reader is kept: reading goes on in its
// recording.
bool MountedMovie::loadSource(const Source& source, bool sound) {
  const DB_STREAM& row = sound ? plan_.sound[source.row] : plan_.parts[source.row].row;
  const std::string name = "recording " + std::to_string(row.streamID);
  block_ = UINT32_MAX;
  loaded_ = SIZE_MAX;
  if (reader_ == nullptr || readerKey_ != row.streamID) {
    reader_ = std::make_unique<RecordingReader>();
    readerKey_ = row.streamID;
    if (reader_->open(row) != 0) {
      reader_.reset();
      return fail(name + " cannot be read");
    }
  }
  // Damaged ones are given as they lie on the card: nobody asks for their checksums.
  PictureEntry entry = source.entry;
  entry.checksum = 0;
  return reader_->readPicture(entry, &source_) || fail(name + " is not delivered by the card now");
}

bool MountedMovie::loadPiece(size_t index) {
  const MovieHead::Piece& piece = pieces_[index];
  if (loaded_ == index) return true;
  if (piece.silence) {
    bytes_.assign(piece.size, piece.fill);
  } else if ((piece.source & kSound) != 0) {
    const Place& place = places_[piece.source & ~kSound];
    const uint64_t at = uint64_t{place.offset} + piece.offset;
    if (block_ != place.block) {
      if (!loadSource(blocks_[place.block], true)) return false;
      block_ = place.block;
    }
    if (at + piece.size > source_.size()) return fail("a block of sound is shorter than it was");
    bytes_.assign(source_.begin() + static_cast<ptrdiff_t>(at),
                  source_.begin() + static_cast<ptrdiff_t>(at + piece.size));
  } else if (!loadSource(pictures_[piece.source], false)) {
    return false;
  } else if (!makeSample(source_, piece.size, &bytes_)) {
    return fail("a picture has more units than its place has room for");
  }
  loaded_ = index;
  return true;
}

bool MountedMovie::readPiece(uint64_t at, size_t size, uint8_t* out, size_t* done) {
  const auto behind = std::upper_bound(
      pieces_.begin(), pieces_.end(), at,
      [](uint64_t place, const MovieHead::Piece& piece) { return place < piece.at; });
  const auto index = static_cast<size_t>(behind - pieces_.begin()) - 1;
  if (!loadPiece(index)) return false;
  const auto inside = static_cast<size_t>(at - pieces_[index].at);
  // Behind it may be a gap.
  *done = inside < bytes_.size() ? std::min(size, bytes_.size() - inside) : 1;
  if (inside < bytes_.size()) {
    memcpy(out, bytes_.data() + inside, *done);
  } else {
    *out = 0;
  }
  return true;
}

// A box that players pass over.
void MountedMovie::readTail(uint64_t at, size_t size, uint8_t* out) const {
  uint8_t header[kBoxHeader];
  const uint64_t length = this->size() - dataEnd_;
  for (size_t i = 0; i < 4; ++i) header[i] = static_cast<uint8_t>(length >> 8 * (3 - i));
  memcpy(header + 4, kFreeBox, sizeof kFreeBox);
  for (size_t i = 0; i < size; ++i) {
    const uint64_t place = at + i - dataEnd_;
    out[i] = place < kBoxHeader ? header[place] : uint8_t{0};
  }
}

bool MountedMovie::read(uint64_t at, size_t size, uint8_t* out) {
  while (size > 0) {
    size_t done = size;
    if (at < head_.size()) {
      done = std::min(size, static_cast<size_t>(head_.size() - at));
      memcpy(out, head_.data() + at, done);
    } else if (at >= dataEnd_) {
      readTail(at, size, out);
    } else if (!readPiece(at, size, out, &done)) {
      return false;
    }
    at += done;
    out += done;
    size -= done;
  }
  return true;
}

}  // namespace tarn
