// Blocks of sound: from wherever, and as they are made. What is taken apart lies within the block;
// what was put in comes out, whether the block is taken apart or its start alone is read.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/Endian.h"
#include "fuzz/InputPieces.h"
#include "recorder/recording/SoundBlock.h"
#include "recorder/recording/SoundBlockBuilder.h"
#include "recorder/recording/SoundBlockFormat.h"

namespace {

using tarn_fuzz::InputPieces;

constexpr uint8_t kMade = 0x01;     // the input says what a block is made of
constexpr uint8_t kMended = 0x02;   // mark, version and time are made good
constexpr uint8_t kCounted = 0x04;  // so is the number of frames

void expectOrder(const tarn::SoundBlock& block, const std::vector<uint8_t>& bytes) {
  const uint8_t* at = bytes.data() + tarn::SoundBlock::kHeadSize + block.format().config.size();
  tarn::PictureTime time = block.start();
  for (const tarn::SoundFrame& frame : block.frames()) {
    if (frame.data != at + tarn::kSoundFrameHeadSize || frame.time < time) abort();
    if (frame.size >= tarn::kSoundFrameLimit || frame.samples >= tarn::kSoundFrameLimit) abort();
    at = frame.data + frame.size;
    time = frame.time;
  }
  if (at != bytes.data() + bytes.size() || block.end() < time) abort();
}

// How many frames there seem to be, one behind the other.
uint16_t countFrames(const std::vector<uint8_t>& bytes) {
  size_t at = tarn::SoundBlock::kHeadSize + bytes[tarn::kSoundConfigSizeOff];
  uint16_t count = 0;
  while (at + tarn::kSoundFrameHeadSize <= bytes.size()) {
    at += tarn::kSoundFrameHeadSize + tarn::getLe16(bytes.data() + at);
    ++count;
  }
  return count;
}

void takeAny(std::vector<uint8_t> bytes, uint8_t way) {
  if (bytes.size() >= tarn::SoundBlock::kHeadSize && (way & kMended) != 0) {
    memcpy(bytes.data(), tarn::kSoundMark, sizeof tarn::kSoundMark);
    bytes[tarn::kSoundVersionOff] = tarn::kSoundVersion;
    tarn::putLe32(bytes.data() + tarn::kSoundMicrosOff,
                  tarn::getLe32(bytes.data() + tarn::kSoundMicrosOff) % 1000000);
    if ((way & kCounted) != 0)
      tarn::putLe16(bytes.data() + tarn::kSoundFramesOff, countFrames(bytes));
  }
  tarn::SoundBlock block;
  const bool taken = block.decode(bytes.data(), bytes.size());
  if (taken == block.frames().empty()) abort();
  if (!taken) return;
  tarn::PictureTime start;
  if (!tarn::SoundBlock::readStart(bytes.data(), &start) || !(start == block.start())) abort();
  expectOrder(block, bytes);
}

tarn::SoundFormat formatOf(InputPieces* input) {
  tarn::SoundFormat format;
  format.codec = static_cast<tarn::SoundCodec>(input->byte());
  format.channels = input->byte();
  format.sampleRate = input->word();
  format.config = input->bytes(input->byte());
  return format;
}

void makeAndTake(InputPieces input) {
  tarn::SoundBlockBuilder builder;
  const tarn::SoundFormat format = formatOf(&input);
  const tarn::PictureTime start = {input.word(), input.word() % 1000000};
  if (!tarn::isUsable(format)) return;
  builder.setFormat(format);
  std::vector<std::vector<uint8_t>> frames;
  std::vector<uint32_t> samples;
  while (input.size > 0) {
    const uint32_t length = input.word();
    frames.push_back(input.bytes(1 + length % 64));
    samples.push_back(length >> 16);
    const size_t size = builder.sizeWith(frames.back().size());
    builder.continues(start, samples.back());
    builder.add(frames.back().data(), frames.back().size(), samples.back(), start);
    if (builder.bytes().size() != size || builder.frames() != frames.size()) abort();
  }
  tarn::SoundBlock block;
  if (block.decode(builder.bytes().data(), builder.bytes().size()) == frames.empty()) abort();
  if (frames.empty()) return;
  expectOrder(block, builder.bytes());
  if (block.format() != format || !(block.start() == start)) abort();
  if (block.frames().size() != frames.size()) abort();
  for (size_t i = 0; i < frames.size(); ++i) {
    const tarn::SoundFrame& frame = block.frames()[i];
    if (std::vector<uint8_t>(frame.data, frame.data + frame.size) != frames[i]) abort();
    if (frame.samples != samples[i]) abort();
  }
  const int64_t most = int64_t{UINT32_MAX} * 1000000 + 999999;
  if (block.end().totalMicros() != std::min(most, start.totalMicros() + builder.micros())) abort();
  builder.clear();
  if (!builder.isEmpty() || builder.micros() != 0) abort();
}

// A row's frame setting is read from a card as well.
void name(uint16_t setting) {
  DB_STREAM row = {};
  row.frameSet = setting;
  const tarn::SoundCodec codec = tarn::soundCodecOf(row);
  if (tarn::isSound(row) && codec != tarn::SoundCodec::kUnknown) {
    row.frameSet = tarn::frameSetOf(codec);
    if (tarn::soundCodecOf(row) != codec) abort();
  }
  const bool known = std::string(tarn::soundCodecName(codec)) != "unknown";
  if (known == (std::string(tarn::soundCodecText(codec)) == "sound")) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const uint8_t way = data[0];
  name(tarn::getLe16(data + 1));
  if ((way & kMade) != 0) {
    makeAndTake({data + 1, size - 1});
  } else {
    takeAny(std::vector<uint8_t>(data + 1, data + size), way);
  }
  return 0;
}
