#include "media/mount/MovieHead.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "media/MovieMuxer.h"
#include "media/mount/MovieFormats.h"

namespace tarn {
namespace {

constexpr size_t kIoBuffer = 64 * 1024;
constexpr char kDecoderBox[] = "avcC";
constexpr size_t kBoxHeader = 8;
// Ticks of a second: no two pictures may be more than 31 bits of them apart.
constexpr int64_t kTicks[] = {1000000, 90000, 1000};

// How the decoder is set up, in the form in which samples have lengths and no start codes. Empty
// where the picture tells nothing.
std::vector<uint8_t> decoderOf(const OutputPicture& first, bool quickTime, std::string* error) {
  const std::vector<uint8_t> entry = sampleEntryOf(first, quickTime, error);
  const auto box = std::search(entry.begin(), entry.end(), kDecoderBox, kDecoderBox + 4);
  if (box == entry.end() || box - entry.begin() < 4) return {};
  size_t size = 0;
  for (int i = -4; i < 0; ++i) size = size << 8 | box[i];
  if (size < kBoxHeader || size - 4 > static_cast<size_t>(entry.end() - box)) return {};
  return {box + 4, box + static_cast<ptrdiff_t>(size) - 4};
}

}  // namespace

class MovieHead::File : public MovieMuxer {
 public:
  bool open(const Layout& layout);
  bool setDecoder(const OutputPicture& first);
  bool end();
  // The piece at hand: what it is, and the bytes of which a part may be written.
  void pieceIs(const uint8_t* data, size_t size) {
    data_ = data;
    dataSize_ = size;
  }
  void nextIs(uint32_t source) { source_ = source; }
  void leaveGap();
  bool describeFormats(const std::vector<std::vector<uint8_t>>& others,
                       const std::vector<FormatStart>& starts) {
    return tarn::describeFormats(others, starts, &head_) ||
           fail("its pictures change their format more often than a head has room for: export it");
  }

  const std::vector<uint8_t>& head() const { return head_; }
  const std::vector<Piece>& pieces() const { return pieces_; }
  uint64_t dataEnd() const { return dataEnd_; }

 private:
  static int take(void* self, uint8_t* data, int size);
  static int64_t seek(void* self, int64_t offset, int whence);
  bool begin() override;
  bool put(AVPacket* piece) override;
  bool setExtradata();

  Layout layout_;
  AvOwned<AVIOContext> io_;
  std::vector<uint8_t> decoder_;
  std::vector<uint8_t> head_;
  bool headDone_ = false;  // what is behind it is data
  uint64_t at_ = 0;        // in the file
  uint64_t dataEnd_ = 0;
  std::vector<Piece> pieces_;
  const uint8_t* data_ = nullptr;
  size_t dataSize_ = 0;
  uint32_t source_ = 0;
};

// What goes into the head is kept, and of data only that they were there.
int MovieHead::File::take(void* self, uint8_t* data, int size) {
  auto* file = static_cast<File*>(self);
  const auto length = static_cast<uint64_t>(size);
  if (!file->headDone_ && file->head_.size() < file->at_ + length)
    file->head_.resize(static_cast<size_t>(file->at_ + length));
  if (file->at_ < file->head_.size()) {
    const uint64_t kept = std::min<uint64_t>(length, file->head_.size() - file->at_);
    memcpy(file->head_.data() + file->at_, data, static_cast<size_t>(kept));
  }
  file->at_ += length;
  return size;
}

int64_t MovieHead::File::seek(void* self, int64_t offset, int whence) {
  auto* file = static_cast<File*>(self);
  if (whence != SEEK_SET || offset < 0) return AVERROR(ENOSYS);
  file->at_ = static_cast<uint64_t>(offset);
  return offset;
}

bool MovieHead::File::open(const Layout& layout) {
  layout_ = layout;
  if (!create(layout.quickTime ? "mov" : "mp4", "the movie", layout.tracks)) return false;
  auto* buffer = static_cast<uint8_t*>(av_malloc(kIoBuffer));
  if (buffer == nullptr) return fail("out of memory");
  io_.reset(avio_alloc_context(buffer, kIoBuffer, 1, this, nullptr, &File::take, &File::seek));
  if (io_ == nullptr) {
    av_free(buffer);
    return fail("out of memory");
  }
  muxer()->pb = io_.get();
  // The same pieces make the same bytes.
  muxer()->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_BITEXACT;
  return true;
}

bool MovieHead::File::setDecoder(const OutputPicture& first) {
  std::string error;
  decoder_ = decoderOf(first, layout_.quickTime, &error);
  return !decoder_.empty() || fail(error.empty() ? "the decoder is not described" : error);
}

// In place of the parameter sets with start codes, with which the muxer would look into each piece.
bool MovieHead::File::setExtradata() {
  for (unsigned i = 0; i < muxer()->nb_streams; ++i) {
    AVCodecParameters* parameters = muxer()->streams[i]->codecpar;
    if (parameters->codec_type != AVMEDIA_TYPE_VIDEO) continue;
    auto* data = static_cast<uint8_t*>(av_mallocz(decoder_.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (data == nullptr) return fail("out of memory");
    memcpy(data, decoder_.data(), decoder_.size());
    av_free(parameters->extradata);
    parameters->extradata = data;
    parameters->extradata_size = static_cast<int>(decoder_.size());
  }
  return true;
}

bool MovieHead::File::begin() {
  if (!setExtradata()) return false;
  const int64_t* ticks = kTicks;
  while (ticks + 1 < std::end(kTicks) &&
         layout_.longestGapUs / 1000000 >= (INT32_MAX - *ticks) / *ticks)
    ++ticks;
  AVDictionary* options = nullptr;
  av_dict_set_int(&options, "video_track_timescale", *ticks, 0);
  av_dict_set_int(&options, "moov_size", static_cast<int64_t>(layout_.room), 0);
  if (!writeHeader(firstShownUs(), options)) return false;
  avio_flush(io_.get());
  headDone_ = true;
  dataEnd_ = head_.size();
  return true;
}

bool MovieHead::File::put(AVPacket* packet) {
  const auto size = static_cast<uint32_t>(packet->size);
  Piece piece = {dataEnd_, size, source_, 0, false, 0};
  if (packet->data >= data_ && packet->data + size <= data_ + dataSize_) {
    piece.offset = static_cast<uint32_t>(packet->data - data_);
  } else {
    piece.silence = true;
    piece.fill = packet->data[0];
  }
  // Past the buffer: nothing is done with the bytes.
  io_->direct = AVIO_FLAG_DIRECT;
  const int result = av_write_frame(muxer(), packet);
  io_->direct = 0;
  if (result < 0) return failWith("lay out", result);
  dataEnd_ += size;
  pieces_.push_back(piece);
  if (static_cast<uint64_t>(avio_tell(io_.get())) == dataEnd_) return true;
  return fail("the movie's data do not lie where they were put");
}

void MovieHead::File::leaveGap() {
  avio_w8(io_.get(), 0);
  avio_flush(io_.get());
  ++dataEnd_;
}

bool MovieHead::File::end() {
  if (!begun()) return fail("there is nothing to show");
  const int result = av_write_trailer(muxer());
  avio_flush(io_.get());
  return result >= 0 || failWith("complete", result);
}

bool MovieHead::told(bool good) {
  if (!good) error_ = file_->error();
  return good;
}

bool MovieHead::open(const Layout& layout) {
  file_ = std::make_shared<File>();
  return told(file_->open(layout));
}

bool MovieHead::describe(size_t track, const OutputPicture& first) {
  return told(file_->setDecoder(first) && file_->describe(track, first));
}

bool MovieHead::describe(size_t track, const OutputSound& first) {
  return told(file_->describe(track, first));
}

void MovieHead::nextIs(uint32_t source) { file_->nextIs(source); }

void MovieHead::leaveGap() { file_->leaveGap(); }

bool MovieHead::describeFormats(const std::vector<std::vector<uint8_t>>& others,
                                const std::vector<FormatStart>& starts) {
  return told(file_->describeFormats(others, starts));
}

bool MovieHead::write(const OutputPicture& picture, size_t track) {
  file_->pieceIs(picture.annexB.data(), picture.annexB.size());
  return told(file_->write(picture, track));
}

bool MovieHead::write(const OutputSound& sound, size_t track) {
  file_->pieceIs(sound.frame.data(), sound.frame.size());
  return told(file_->write(sound, track));
}

bool MovieHead::end() { return told(file_->end()); }
const std::vector<uint8_t>& MovieHead::head() const { return file_->head(); }
const std::vector<MovieHead::Piece>& MovieHead::pieces() const { return file_->pieces(); }
uint64_t MovieHead::dataEnd() const { return file_->dataEnd(); }

}  // namespace tarn
