#include "media/FragmentedMovie.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "media/MovieMuxer.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace tarn {
namespace {

constexpr size_t kIoBuffer = 64 * 1024;
constexpr size_t kMostWaiting = 64 * 1024 * 1024;
// Of a picture that nothing tells of how long it is shown.
constexpr int64_t kShownUs = 40000;
// A key picture that comes later than this, and than four pictures, stands behind a gap.
constexpr int64_t kLeastGapUs = 1000000;
// What 31 bits of microseconds hold is 35 minutes: no piece of a fragment lasts longer.
constexpr int64_t kMostLengthUs = int64_t{30} * 60 * 1000000;
// Sound alone: how long a fragment of it is, and how long it waits for a picture.
constexpr int64_t kSoundUs = 1000000;
constexpr int64_t kNoPictureUs = 10000000;

}  // namespace

class FragmentedMovie::Impl : public MovieMuxer {
 public:
  bool open(const Plan& plan, Sink sink);
  bool begin() override;
  bool endFragment();
  bool finish();
  PictureTime origin() const { return origin_; }

 private:
  struct Stream {
    AvOwned<AVPacket> held;  // the last picture, until it is known how long it is shown
    int64_t usualUs = kShownUs;
    int64_t lastUs = 0;   // when its last piece is decoded
    int64_t nextDts = 0;  // of sound: where the last frame ends
    bool started = false;
    bool known = false;       // the muxer has something of it
    bool inFragment = false;  // and so has the fragment at hand
  };

  static int take(void* self, uint8_t* data, int size);
  bool fillsGaps() const override { return false; }
  bool put(AVPacket* piece) override;
  bool putPicture(Stream* stream, AVPacket* piece);
  bool putSound(Stream* stream, AVPacket* piece);
  bool endsBefore(const Stream& stream, const AVPacket& picture) const;
  bool isGap(const Stream& stream, const AVPacket& picture) const;
  bool endsBeforeSound(const Stream& stream, const AVPacket& frame) const;
  bool release(Stream* stream, int64_t shownUs);
  bool queue(AVPacket* piece);
  bool flush();
  void direct();
  bool beginMuxer();
  bool beginAnew();
  static bool isTooLong(int64_t lengthUs) { return lengthUs > kMostLengthUs; }
  int64_t microsOf(const AVPacket& piece) const;

  Plan plan_;
  Sink sink_;
  bool refused_ = false;  // by the sink
  bool muted_ = false;    // what is written now, the sink has already
  AvOwned<AVIOContext> io_;
  PictureTime origin_;
  std::vector<Stream> streams_;
  uint32_t number_ = 0;  // of the next fragment
  int leading_ = -1;     // the stream whose key pictures begin fragments
  size_t waiting_ = 0;   // bytes of the fragment at hand
  int64_t beganUs_ = 0;  // when its first piece is decoded
  int64_t lastPictureUs_ = INT64_MIN / 2;
};

int FragmentedMovie::Impl::take(void* self, uint8_t* data, int size) {
  auto* movie = static_cast<Impl*>(self);
  if (movie->muted_) return size;
  if (!movie->refused_) movie->refused_ = !movie->sink_(data, static_cast<size_t>(size));
  return movie->refused_ ? AVERROR(EIO) : size;
}

bool FragmentedMovie::Impl::open(const Plan& plan, Sink sink) {
  plan_ = plan;
  sink_ = std::move(sink);
  if (!create(plan.quickTime ? "mov" : "mp4", "the movie", plan.tracks)) return false;
  auto* buffer = static_cast<uint8_t*>(av_malloc(kIoBuffer));
  if (buffer == nullptr) return fail("out of memory");
  io_.reset(avio_alloc_context(buffer, kIoBuffer, 1, this, nullptr, &Impl::take, nullptr));
  if (io_ == nullptr) {
    av_free(buffer);
    return fail("out of memory");
  }
  direct();
  return true;
}

void FragmentedMovie::Impl::direct() {
  muxer()->pb = io_.get();
  // The same pieces make the same bytes: the muxer does not write its own version into them.
  muxer()->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_BITEXACT;
  // Times are what they are: nobody moves them to zero.
  muxer()->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
}

bool FragmentedMovie::Impl::begin() {
  const int64_t first = earliestDecodeUs();
  if (first == INT64_MAX) return fail("no track of the movie was described");
  origin_ = plan_.origin.value_or(PictureTime::fromMicros(first));
  number_ = plan_.firstNumber;
  streams_.resize(muxer()->nb_streams);
  for (size_t i = streams_.size(); i-- > 0;) {
    if (!isSound(i)) leading_ = static_cast<int>(i);
  }
  return beginMuxer();
}

bool FragmentedMovie::Impl::beginMuxer() {
  AVDictionary* options = nullptr;
  // Offsets within a fragment, no table of fragments at the end, which would have to be changed
  // with the file, and no list of edits: a time is its decode time.
  av_dict_set(&options, "movflags",
              "frag_custom+empty_moov+default_base_moof+skip_trailer+frag_discont", 0);
  av_dict_set(&options, "use_editlist", "0", 0);
  av_dict_set_int(&options, "fragment_index", number_, 0);
  if (!writeHeader(origin_.totalMicros(), options)) return false;
  avio_flush(io_.get());
  return !refused_ || failWith("write", AVERROR(EIO));
}

// The muxer measures from the last piece that it knows, and no more than 31 bits.
bool FragmentedMovie::Impl::beginAnew() {
  if (!endFragment() || !renew()) return false;
  for (Stream& stream : streams_) stream.known = false;
  direct();
  muted_ = true;
  const bool good = beginMuxer();
  muted_ = false;
  return good;
}

int64_t FragmentedMovie::Impl::microsOf(const AVPacket& piece) const {
  return av_rescale_q(piece.dts, muxer()->streams[piece.stream_index]->time_base, kMicroseconds);
}

bool FragmentedMovie::Impl::put(AVPacket* piece) {
  if (piece->dts < 0) return fail("a piece is decoded before the beginning of the movie");
  Stream* stream = &streams_[static_cast<size_t>(piece->stream_index)];
  const bool sound = isSound(static_cast<size_t>(piece->stream_index));
  return sound ? putSound(stream, piece) : putPicture(stream, piece);
}

// Whether this picture begins a fragment.
bool FragmentedMovie::Impl::endsBefore(const Stream& stream, const AVPacket& picture) const {
  const bool leads = picture.stream_index == leading_ && plan_.fragments == Fragments::kAtKeys;
  return (picture.flags & AV_PKT_FLAG_KEY) != 0 &&
         (leads || (stream.inFragment && isGap(stream, picture)));
}

// Whether nothing was recorded right before this picture.
bool FragmentedMovie::Impl::isGap(const Stream& stream, const AVPacket& picture) const {
  const int64_t length = stream.started ? microsOf(picture) - stream.lastUs : 0;
  return isTooLong(length) || ((picture.flags & AV_PKT_FLAG_KEY) != 0 &&
                               length > std::max(kLeastGapUs, 4 * stream.usualUs));
}

bool FragmentedMovie::Impl::putPicture(Stream* stream, AVPacket* piece) {
  const int64_t at = microsOf(*piece);
  const int64_t length = at - stream->lastUs;
  if (stream->held != nullptr) {
    const bool gap = isGap(*stream, *piece);
    if (!gap) stream->usualUs = length;
    if (!release(stream, stream->usualUs)) return false;
  }
  if (endsBefore(*stream, *piece) && !flush()) return false;
  if (stream->known && isTooLong(length) && !beginAnew()) return false;
  stream->held.reset(av_packet_clone(piece));
  stream->lastUs = lastPictureUs_ = at;
  stream->started = true;
  return stream->held != nullptr || fail("out of memory");
}

// Samples of G.711 in one fragment follow each other whatever their times are.
bool FragmentedMovie::Impl::endsBeforeSound(const Stream& stream, const AVPacket& frame) const {
  if (waiting_ == 0) return false;
  const int64_t at = microsOf(frame);
  const AVCodecID codec = muxer()->streams[frame.stream_index]->codecpar->codec_id;
  const bool raw = codec == AV_CODEC_ID_PCM_ALAW || codec == AV_CODEC_ID_PCM_MULAW;
  if (stream.started &&
      (at - stream.lastUs > kMostLengthUs || (raw && frame.dts != stream.nextDts)))
    return true;
  return plan_.fragments == Fragments::kAtKeys && at - lastPictureUs_ > kNoPictureUs &&
         at - beganUs_ >= kSoundUs;
}

bool FragmentedMovie::Impl::putSound(Stream* stream, AVPacket* piece) {
  const int64_t length = microsOf(*piece) - stream->lastUs;
  if (stream->known && isTooLong(length) && !beginAnew()) return false;
  if (endsBeforeSound(*stream, *piece) && !endFragment()) return false;
  stream->lastUs = microsOf(*piece);
  stream->nextDts = piece->dts + piece->duration;
  stream->started = true;
  return queue(piece);
}

// The picture that was kept goes into the fragment at hand.
bool FragmentedMovie::Impl::release(Stream* stream, int64_t shownUs) {
  const AvOwned<AVPacket> picture = std::move(stream->held);
  if (picture == nullptr) return true;
  const AVRational base = muxer()->streams[picture->stream_index]->time_base;
  picture->duration = av_rescale_q(shownUs, kMicroseconds, base);
  return queue(picture.get());
}

bool FragmentedMovie::Impl::queue(AVPacket* piece) {
  const auto size = static_cast<size_t>(piece->size);
  if (waiting_ + size > kMostWaiting && !flush()) return false;
  if (waiting_ == 0) beganUs_ = microsOf(*piece);
  waiting_ += size;
  Stream& stream = streams_[static_cast<size_t>(piece->stream_index)];
  stream.known = stream.inFragment = true;
  const int result = av_write_frame(muxer(), piece);
  return result >= 0 || failWith("write", result);
}

bool FragmentedMovie::Impl::flush() {
  if (waiting_ == 0) return true;
  waiting_ = 0;
  ++number_;
  for (Stream& stream : streams_) stream.inFragment = false;
  const int result = av_write_frame(muxer(), nullptr);
  avio_flush(io_.get());
  if (result < 0 || refused_) return failWith("write", refused_ ? AVERROR(EIO) : result);
  // The next one begins at its own time, not where this one ends.
  const int set = av_opt_set(muxer()->priv_data, "movflags", "+frag_discont", 0);
  return set >= 0 || failWith("write", set);
}

bool FragmentedMovie::Impl::endFragment() {
  if (!begun() && !begin()) return false;
  for (Stream& stream : streams_) {
    if (!release(&stream, stream.usualUs)) return false;
  }
  return flush();
}

bool FragmentedMovie::Impl::finish() {
  if (!endFragment()) return false;
  const int result = av_write_trailer(muxer());
  avio_flush(io_.get());
  return (result >= 0 && !refused_) || failWith("complete", refused_ ? AVERROR(EIO) : result);
}

FragmentedMovie::FragmentedMovie() : impl_(std::make_unique<Impl>()) {}
FragmentedMovie::~FragmentedMovie() = default;
bool FragmentedMovie::open(const Plan& plan, Sink sink) {
  return impl_->open(plan, std::move(sink));
}
bool FragmentedMovie::describe(size_t track, const OutputPicture& first) {
  return impl_->describe(track, first);
}
bool FragmentedMovie::describe(size_t track, const OutputSound& first) {
  return impl_->describe(track, first);
}
bool FragmentedMovie::begin() { return impl_->begin(); }
bool FragmentedMovie::write(const OutputPicture& picture, size_t track) {
  return impl_->write(picture, track);
}
bool FragmentedMovie::write(const OutputSound& sound, size_t track) {
  return impl_->write(sound, track);
}
bool FragmentedMovie::endFragment() { return impl_->endFragment(); }
bool FragmentedMovie::finish() { return impl_->finish(); }
PictureTime FragmentedMovie::origin() const { return impl_->origin(); }
const std::string& FragmentedMovie::error() const { return impl_->error(); }

}  // namespace tarn
