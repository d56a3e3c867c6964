#include "media/StreamInput.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "media/MonotonicTime.h"
#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

constexpr size_t kBlockSize = 65536;
constexpr double kUsualRate = 25;
// A live stream that brings nothing for so long has stalled.
constexpr int kStallMs = 1000;

}  // namespace

std::unique_ptr<MediaInput> StreamInput::open(std::unique_ptr<InputBytes> bytes, double frameRate,
                                              std::string* error) {
  av_log_set_level(AV_LOG_FATAL);
  auto input = std::make_unique<StreamInput>();
  input->live_ = bytes->isLive();
  input->bytes_ = std::move(bytes);
  input->givenRate_ = frameRate;
  input->frameRate_ = frameRate > 0 ? frameRate : kUsualRate;
  input->block_.resize(kBlockSize + AV_INPUT_BUFFER_PADDING_SIZE);
  const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
  input->parser_.reset(av_parser_init(AV_CODEC_ID_H264));
  if (decoder != nullptr) input->codec_.reset(avcodec_alloc_context3(decoder));
  if (input->parser_ == nullptr || input->codec_ == nullptr) {
    *error = "libavcodec was built without H.264";
    return nullptr;
  }
  return input;
}

// Only the first key picture counts: a later change would shift the times of what came before.
void StreamInput::takeFrameRate() {
  const double rate = depth_.pictureRate;
  if (givenRate_ <= 0 && sequence_ == 1 && rate >= 1 && rate <= 1000) frameRate_ = rate;
}

void StreamInput::takeDepth(const std::vector<uint8_t>& keyPicture) {
  NalUnit sps, pps;
  if (!findParameterSets(keyPicture.data(), keyPicture.size(), &sps, &pps)) return;
  depth_ = reorderDepthOf(sps.data, sps.size);
  if (depth_.told) lead_ = std::max<int64_t>(lead_, depth_.most);
}

// Of a stream that does not tell how far decoding must run ahead: as far as its first pictures
// need, which are all here when the first one has its place. What comes later and needs more is
// decoded when it is presented.
void StreamInput::observeDepth() {
  if (lead_ >= 0) return;
  lead_ = 0;
  for (size_t decode = 0; decode < waiting_.size(); ++decode) {
    const int64_t presentation =
        std::count_if(waiting_.begin(), waiting_.end(),
                      [&](const Waiting& other) { return other.order < waiting_[decode].order; });
    lead_ = std::max(lead_, static_cast<int64_t>(decode) - presentation);
  }
}

void StreamInput::add(const uint8_t* data, int size) {
  Waiting waiting;
  waiting.picture.annexB.assign(data, data + size);
  waiting.picture.arrivalUs = arrivalUs_;
  waiting.picture.key = isKeyPicture(data, static_cast<size_t>(size));
  preamble_.complete(&waiting.picture.annexB, waiting.picture.key);
  if (waiting.picture.key) {
    settle(true);  // nothing is presented across an IDR picture
    ++sequence_;
    takeDepth(waiting.picture.annexB);
    takeFrameRate();
  }
  waiting.order = sequence_ * (int64_t{1} << 33) + parser_->output_picture_number;
  waiting_.push_back(std::move(waiting));
  settle(false);
}

void StreamInput::settle(bool all) {
  for (;;) {
    Waiting* first = nullptr;
    size_t open = 0;
    for (Waiting& waiting : waiting_) {
      if (waiting.presentation >= 0) continue;
      ++open;
      if (first == nullptr || waiting.order < first->order) first = &waiting;
    }
    if (open == 0 || (!all && open <= depth_.most)) return;
    first->presentation = nextPresentation_++;
  }
}

void StreamInput::parse(const uint8_t* data, int size, int64_t now) {
  do {
    uint8_t* picture = nullptr;
    int length = 0;
    const int used = av_parser_parse2(parser_.get(), codec_.get(), &picture, &length, data, size,
                                      AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    data += used;
    size -= used;
    if (length > delimiter_) add(picture + delimiter_, length - delimiter_);
    if (length > 0) {
      delimiter_ = 0;
      arrivalUs_ = now;  // what follows began in this block
    } else if (ended_) {
      break;
    }
  } while (size > 0 || ended_);
}

// A picture ends where the next one begins. An encoder that stalls does not begin one, and what it
// gave must not wait for that: it gets a beginning of ours, which is taken out again. Where the
// stall was in the middle of a picture its rest stands at the head of the next one.
void StreamInput::endPicture() {
  static constexpr uint8_t kDelimiter[] = {0, 0, 0, 1, kNalDelimiter, 0xF0};
  constexpr int kSize = sizeof kDelimiter;
  stalled_ = true;
  if (arrivalUs_ < 0) return;  // nothing has come yet
  memcpy(block_.data(), kDelimiter, sizeof kDelimiter);
  memset(block_.data() + kSize, 0, AV_INPUT_BUFFER_PADDING_SIZE);
  parse(block_.data(), kSize, -1);
  // A picture that has not got to its slices yet keeps it.
  if (arrivalUs_ < 0) delimiter_ = kSize;
  settle(true);
}

bool StreamInput::readMore() {
  const bool mayStall = live_ && !stalled_;
  const ssize_t got =
      bytes_->read(block_.data(), kBlockSize, mayStall ? kStallMs : InputBytes::kForever);
  if (got < 0 && errno == ETIMEDOUT) {
    endPicture();
    return true;
  }
  if (got < 0) {
    error_ = std::string("reading the stream failed: ") + strerror(errno);
    return false;
  }
  ended_ = got == 0;
  stalled_ = false;
  const int64_t now = monotonicUs();
  if (arrivalUs_ < 0) arrivalUs_ = now;
  memset(block_.data() + got, 0, AV_INPUT_BUFFER_PADDING_SIZE);
  parse(block_.data(), static_cast<int>(got), now);
  if (ended_) settle(true);
  return true;
}

MediaInput::Result StreamInput::next(MediaPicture* out) {
  while (waiting_.empty() || waiting_.front().presentation < 0) {
    if (ended_ && waiting_.empty()) return Result::kEnd;
    if (!readMore()) return Result::kError;
  }
  observeDepth();
  const double frameUs = 1e6 / frameRate_;
  const auto timeOf = [frameUs](int64_t frames) {
    return static_cast<int64_t>(std::llround(static_cast<double>(frames) * frameUs));
  };
  Waiting& first = waiting_.front();
  *out = std::move(first.picture);
  out->presentationUs = timeOf(first.presentation);
  out->decodeUs = std::min(timeOf(nextDecode_ - lead_), out->presentationUs);
  out->durationUs = timeOf(1);
  ++nextDecode_;
  lengthUs_ = std::max(lengthUs_, out->presentationUs + out->durationUs);
  waiting_.pop_front();
  return Result::kPicture;
}

}  // namespace tarn
