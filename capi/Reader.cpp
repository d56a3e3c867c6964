#include <deque>

#include "capi/Guard.h"
#include "capi/Handles.h"

struct tarn_reader {
  std::shared_ptr<tarn::ReaderProcess> process;
  uint32_t recording = 0;
  uint32_t index = 0;  // of the next one to ask for
  std::deque<tarn::SampleFacts> waiting;
  tarn::SampleFacts current;  // what `sample` points into
  tarn_sound_format format = {};
  tarn_sample sample = {};
};

namespace tarn {
namespace {

bool fetch(tarn_reader* reader) {
  const auto take = [reader](const Message& answer) {
    return answer.take(&reader->waiting.emplace_back());
  };
  Message done;
  const Message question(MessageKind::kRead, ReadQuestion{reader->recording, reader->index});
  if (!reader->process->ask(question, take, &done, &lastError())) {
    reader->waiting.clear();
    return false;
  }
  ReadPlace place;
  if (done.take(&place)) reader->index = place.index;
  return true;
}

void show(tarn_reader* reader) {
  reader->current = std::move(reader->waiting.front());
  reader->waiting.pop_front();
  const SampleFacts& facts = reader->current;
  reader->format = {facts.codec.c_str(), facts.channels, facts.sampleRate, facts.config.data(),
                    facts.config.size()};
  tarn_sample& sample = reader->sample;
  sample.data = (facts.flags & TARN_LOST) != 0 ? nullptr : facts.bytes.data();
  sample.size = facts.bytes.size();
  sample.time_us = facts.timeUs;
  sample.decode_us = facts.decodeUs;
  sample.index = facts.index;
  sample.flags = facts.flags;
  sample.samples = facts.samples;
  sample.format = facts.codec.empty() ? nullptr : &reader->format;
}

// Proves that the recording is there to be read.
bool seek(tarn_reader* reader, int64_t timeUs) {
  Message done;
  const Message question(MessageKind::kSeek, SeekQuestion{reader->recording, timeUs});
  const auto none = [](const Message&) { return false; };
  if (!reader->process->ask(question, none, &done, &lastError())) return false;
  ReadPlace place;
  if (done.take(&place)) reader->index = place.index;
  reader->waiting.clear();
  return true;
}

// Of sound a block begins in front of the time that is looked for.
bool isBefore(const SampleFacts& facts, int64_t timeUs) {
  return facts.samples != 0 && facts.sampleRate != 0 && facts.timeUs != TARN_NO_TIME &&
         facts.timeUs + int64_t{facts.samples} * 1000000 / facts.sampleRate <= timeUs;
}

}  // namespace
}  // namespace tarn

tarn_reader* tarn_read(tarn_card* card, uint32_t recording) {
  return tarn::guarded<tarn_reader*>(nullptr, [&]() -> tarn_reader* {
    if (!tarn::isGiven(card, "card")) return nullptr;
    auto reader = std::make_unique<tarn_reader>();
    reader->process = card->process;
    reader->recording = recording;
    return tarn::seek(reader.get(), TARN_NO_TIME) ? reader.release() : nullptr;
  });
}

int tarn_reader_next(tarn_reader* reader, const tarn_sample** sample) {
  return tarn::guarded<int>(-1, [&] {
    if (sample != nullptr) *sample = nullptr;
    if (!tarn::isGiven(reader, "reader") || !tarn::isGiven(sample, "place for the sample"))
      return -1;
    if (reader->waiting.empty() && !tarn::fetch(reader)) return -1;
    if (reader->waiting.empty()) return 0;
    tarn::show(reader);
    *sample = &reader->sample;
    return 1;
  });
}

int tarn_reader_seek(tarn_reader* reader, int64_t time_us) {
  return tarn::guarded<int>(-1, [&] {
    if (!tarn::isGiven(reader, "reader") || !tarn::seek(reader, time_us)) return -1;
    if (!tarn::fetch(reader)) return -1;
    while (!reader->waiting.empty() && tarn::isBefore(reader->waiting.front(), time_us))
      reader->waiting.pop_front();
    return 0;
  });
}

void tarn_reader_close(tarn_reader* reader) { delete reader; }
