// The service's configuration, as a person wrote it. What is taken says the same when it is written
// out and read again.
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "media/record/RecordConfig.h"

using tarn::RecordRequest;
using tarn::TimesFrom;

namespace {

constexpr char kPath[] = "/tmp/record.conf";

bool read(const std::string& text, RecordRequest* request) {
  FILE* file = fopen(kPath, "wb");
  if (file == nullptr || fwrite(text.data(), 1, text.size(), file) != text.size()) abort();
  fclose(file);
  std::string error;
  const bool taken = tarn::readRecordConfig(kPath, request, &error);
  if (taken != error.empty()) abort();
  return taken;
}

std::string written(const RecordRequest& request) {
  char rate[64];
  snprintf(rate, sizeof rate, "%.17g", request.frameRate);
  std::string text = "[recording]\nsegment = " + std::to_string(request.segmentSeconds) +
                     "\nflush = " + std::to_string(request.flushMs) + "\n";
  if (request.frameRate != 0) text += "fps = " + std::string(rate) + "\n";
  if (request.times == TimesFrom::kArrival) text += "times = arrival\n";
  if (request.times == TimesFrom::kStream) text += "times = stream\n";
  for (const tarn::InputRequest& input : request.inputs)
    text += "[channel " + std::to_string(input.channel) + "]\ninput = " + input.input + "\n";
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  RecordRequest request;
  if (!read(std::string(reinterpret_cast<const char*>(data), size), &request)) return 0;
  std::set<uint8_t> channels;
  for (const tarn::InputRequest& input : request.inputs) {
    if (input.channel > 127 || input.input.empty()) abort();
    // It names a file, and whoever opens it stops at such a byte.
    if (input.input.find('\0') != std::string::npos) abort();
    if (!channels.insert(input.channel).second) abort();
  }
  const std::string text = written(request);
  RecordRequest again;
  if (channels.empty() || !read(text, &again) || written(again) != text) abort();
  return 0;
}
