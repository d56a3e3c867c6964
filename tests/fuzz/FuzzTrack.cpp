// The sound of an input, packet by packet, as a container or a camera delivers it: whatever the
// packets hold, what is recorded of them is frames that a block can hold.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/InputPieces.h"
#include "fuzz/Muted.h"
#include "media/ContainerSound.h"
#include "recorder/recording/SoundBlock.h"

namespace {

using tarn_fuzz::InputPieces;

// Of the first byte of a packet.
constexpr uint8_t kTimed = 0x01;
constexpr uint8_t kHeaded = 0x02;   // begins with a header of ADTS that is good but for its bits
constexpr uint8_t kTold = 0x04;     // tells another configuration
constexpr uint8_t kPadded = 0x08;   // says how much of its end is not to be heard
constexpr uint8_t kLasting = 0x10;  // says how long it is

void addStream(AVFormatContext* format, InputPieces* input) {
  static constexpr AVCodecID kCodecs[] = {AV_CODEC_ID_AAC, AV_CODEC_ID_PCM_ALAW,
                                          AV_CODEC_ID_PCM_MULAW, AV_CODEC_ID_OPUS, AV_CODEC_ID_MP3};
  AVStream* stream = avformat_new_stream(format, nullptr);
  if (stream == nullptr) abort();
  const uint8_t kind = input->byte();
  stream->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
  stream->codecpar->codec_id = kCodecs[kind % 5];
  stream->codecpar->ch_layout.nb_channels = static_cast<int8_t>(input->byte());
  stream->codecpar->sample_rate = static_cast<int>(input->word());
  stream->codecpar->frame_size = (kind & 0x80) != 0 ? static_cast<int>(input->word()) : 0;
  stream->time_base = {1, (kind & 0x40) != 0 ? stream->codecpar->sample_rate : 90000};
  if (stream->time_base.den <= 0) stream->time_base.den = 90000;
  const std::vector<uint8_t> extra = input->bytes((kind & 0x20) != 0 ? input->byte() : 0);
  if (extra.empty()) return;
  stream->codecpar->extradata =
      static_cast<uint8_t*>(av_mallocz(extra.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (stream->codecpar->extradata == nullptr) abort();
  memcpy(stream->codecpar->extradata, extra.data(), extra.size());
  stream->codecpar->extradata_size = static_cast<int>(extra.size());
}

// Synchronous word, no checksum, length of the frame.
void makeHeader(std::vector<uint8_t>* bytes) {
  if (bytes->size() < 7) return;
  uint8_t* head = bytes->data();
  head[0] = 0xFF;
  head[1] = static_cast<uint8_t>(0xF1 | (head[1] & 0x08));
  head[3] = static_cast<uint8_t>((head[3] & 0xFC) | bytes->size() >> 11);
  head[4] = static_cast<uint8_t>(bytes->size() >> 3);
  head[5] = static_cast<uint8_t>((bytes->size() & 7) << 5 | (head[5] & 0x1F));
  head[6] = static_cast<uint8_t>(head[6] & 0xFC);
}

void addSide(AVPacket* packet, AVPacketSideDataType type, const std::vector<uint8_t>& bytes) {
  uint8_t* side = av_packet_new_side_data(packet, type, bytes.size());
  if (side == nullptr) abort();
  memcpy(side, bytes.data(), bytes.size());
}

void fill(AVPacket* packet, InputPieces* input) {
  const uint8_t kind = input->byte();
  std::vector<uint8_t> bytes = input->bytes(input->byte());
  // One that is too long for a frame is nearly all zeros.
  if (kind >> 6 == 3) bytes.resize(bytes.size() << 10);
  if ((kind & kHeaded) != 0) makeHeader(&bytes);
  if (av_new_packet(packet, static_cast<int>(bytes.size())) < 0) abort();
  std::copy(bytes.begin(), bytes.end(), packet->data);
  if ((kind & kTimed) != 0) packet->pts = input->time();
  if ((kind & kLasting) != 0) packet->duration = input->time();
  if ((kind & kTold) != 0)
    addSide(packet, AV_PKT_DATA_NEW_EXTRADATA, input->bytes(1 + input->byte()));
  if ((kind & kPadded) != 0) addSide(packet, AV_PKT_DATA_SKIP_SAMPLES, input->bytes(10));
}

void expectFrame(const tarn::MediaSound& sound, const tarn::SoundFormat& format) {
  if (sound.frame.empty() || sound.frame.size() >= tarn::kSoundFrameLimit) abort();
  if (sound.samples == 0 || sound.samples >= tarn::kSoundFrameLimit) abort();
  if (!tarn::isUsable(format)) abort();
}

void takeAll(tarn::ContainerSound* sound, int64_t originUs) {
  tarn::MediaSound frame;
  tarn::SoundFormat format;
  while (sound->next(originUs, &frame, &format)) expectFrame(frame, format);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tarn_fuzz::muteStandardOutput();
  av_log_set_level(AV_LOG_QUIET);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  InputPieces input = {data, size};
  const tarn::AvOwned<AVFormatContext> format(avformat_alloc_context());
  const AVStream* video = avformat_new_stream(format.get(), nullptr);
  const uint8_t streams = input.byte() % 3 + 1;
  for (uint8_t i = 0; i < streams; ++i) addStream(format.get(), &input);
  const auto sound = tarn::ContainerSound::choose(format.get(), *video);
  if (sound == nullptr) return 0;
  const tarn::AvOwned<AVPacket> packet(av_packet_alloc());
  while (input.size > 0) {
    fill(packet.get(), &input);
    packet->stream_index = sound->stream()->index;
    if (!sound->isOf(*packet)) abort();
    if (sound->add(packet.get()) && packet->pts % 2 == 0) takeAll(sound.get(), 1000000);
    av_packet_unref(packet.get());
  }
  takeAll(sound.get(), 0);
  return 0;
}
