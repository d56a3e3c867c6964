#include "Programs.h"

#include <cstdio>

namespace faults {
namespace {

constexpr uint32_t kLogLines = 30;
constexpr char kKeepEvent[] = "1";
// The media libraries ask for memory tens of thousands of times before a picture is there.
constexpr unsigned kMediaMemoryEvery = 50;

std::string logText(uint32_t first, uint32_t count) {
  std::string text;
  for (uint32_t number = first; number < first + count; ++number) {
    char head[32];
    snprintf(head, sizeof head, "line %06u ", number);
    text += head + std::string(250 + number * 31 % 90, static_cast<char>('a' + number % 26)) + "\n";
  }
  return text;
}

std::vector<std::string> logPromises(uint32_t first, uint32_t count) {
  std::vector<std::string> lines;
  for (uint32_t number = first; number < first + count; ++number)
    lines.push_back("line " + std::to_string(number));
  return lines;
}

// Tools around what has its own cases already.
constexpr unsigned kToolSampleEvery = 4;

std::string clip() { return std::string(kWork) + "/clip.mp4"; }

Program recorderOf(const std::string& binDir) {
  Program program;
  program.name = "recorder";
  program.scene = "started";
  program.beside = true;
  program.arguments = {binDir + "/faults_recorder", "life", "3", std::to_string(kLifePictures),
                       "edit"};
  program.wholeLife = "done";
  return program;
}

Program logOf(const std::string& tarn) {
  Program program;
  program.name = "log";
  program.scene = "started";
  program.beside = true;
  program.arguments = {tarn, "log", "--write"};
  program.input = logText(100, kLogLines);
  program.promisesAtEnd = logPromises(100, kLogLines);
  return program;
}

Program readerOf(const std::string& name, const std::string& scene,
                 const std::vector<std::string>& arguments) {
  Program program;
  program.name = name;
  program.scene = scene;
  program.kind = Program::Kind::kReads;
  program.arguments = arguments;
  return program;
}

Program changerOf(const std::string& name, const std::string& scene,
                  const std::vector<std::string>& arguments) {
  Program program = readerOf(name, scene, arguments);
  program.kind = Program::Kind::kChanges;
  return program;
}

void addMedia(const std::string& binDir, std::vector<Program>* programs) {
  Program record = changerOf("record", "started", recordArguments(binDir));
  record.beside = true;
  record.tellsSafe = true;
  record.sampleEvery = kToolSampleEvery;
  record.memoryEvery = kMediaMemoryEvery;
  programs->push_back(record);
  Program exporting =
      readerOf("export", "clipped",
               {binDir + kVideoTool, "export", "--from", "2023-11-15T00:00:00", "--to",
                "2023-11-16T00:00:00", "-o", std::string(kWork) + "/exported.mp4"});
  exporting.memoryEvery = kMediaMemoryEvery;
  programs->push_back(exporting);
}

}  // namespace

std::vector<Program> programsOf(const std::string& binDir, bool media) {
  const std::string tarn = binDir + kTool;
  std::vector<Program> programs = {changerOf("recover", "crashed", {tarn, "recover"}),
                                   changerOf("restart", "saved", {tarn, "recover"}),
                                   recorderOf(binDir)};
  programs.push_back(changerOf("server", "started", {binDir + kServer}));
  programs.back().kind = Program::Kind::kServes;
  programs.push_back(logOf(tarn));
  programs.push_back(changerOf("save", "stopped", {tarn, "save"}));
  programs.push_back(changerOf("keep", "keepable", keepArguments(binDir)));
  programs.back().beside = true;
  programs.back().promisesAtEnd = {keepPromises()};
  programs.back().sampleEvery = kToolSampleEvery;
  programs.push_back(changerOf("release", "kept", {tarn, "keep", "--release", kKeepEvent}));
  programs.back().beside = true;
  programs.back().promisesAtEnd = {"released"};
  programs.back().sampleEvery = 2 * kToolSampleEvery;
  programs.push_back(changerOf("format", "blank", formatArguments(binDir, kChunks)));
  programs.back().kind = Program::Kind::kFormats;
  programs.push_back(readerOf("list", "started", {tarn, "list", "--json"}));
  programs.push_back(readerOf("read", "started", {binDir + "/faults_recorder", "read"}));
  programs.push_back(readerOf("check", "started", {tarn, "check"}));
  programs.back().findsByCode = 4;
  programs.push_back(readerOf("show-log", "started", {tarn, "log"}));
  programs.back().beside = true;
  programs.push_back(changerOf("repair", "crashed",
                               {tarn, "check", kCard, "--repair", "--save-undo", "/tmp/undo"}));
  programs.back().sampleEvery = kToolSampleEvery;
  programs.back().goodCode = 1;  // all was mended
  programs.back().findsByCode = 4;
  // The tool, the tool inside its view, recovery, the server and the save, all with one count.
  programs.push_back(
      changerOf("run", "crashed", {tarn, "--card", kCard, "run", "--", "true", kWork}));
  programs.back().sampleEvery = kToolSampleEvery;
  if (media) addMedia(binDir, &programs);
  return programs;
}

std::vector<std::string> keepArguments(const std::string& binDir) {
  return {binDir + kTool, "keep", "--event", kKeepEvent};
}

// The groups of pictures of both channels that show the event, from the 5th picture to the 20th.
std::string keepPromises() {
  std::string lines;
  for (const char* channel : {"0", "1"})
    lines += "kept " + std::to_string(kKeepSession) + " " + channel + " 0 29\n";
  return lines;
}

// A card of two channels whose rings come round within a few seconds of video.
std::vector<std::string> formatArguments(const std::string& binDir, uint32_t chunks) {
  return {binDir + kTool,
          "format",
          kCard,
          "--force",
          "--cluster-size",
          "512",
          "--stream-chunk-size",
          "192K",
          "--stream-chunks",
          std::to_string(chunks),
          "--picture-chunk-size",
          "16K",
          "--picture-chunks",
          std::to_string(chunks),
          "--journal-chunk-size",
          "4K",
          "--journal-chunks",
          "4",
          "--syslog-chunk-size",
          "8K",
          "--syslog-chunks",
          "5",
          "--database-image-chunk-size",
          "64K",
          "--database-image-chunks",
          "1"};
}

std::vector<std::string> recordArguments(const std::string& binDir) {
  return {binDir + kVideoTool,
          "record",
          clip(),
          "--start",
          "2023-11-15T06:33:20",
          "--segment",
          "1",
          "--flush",
          "500",
          "--event",
          "40@1",
          "--event-length",
          "1",
          "--progress"};
}

std::vector<std::string> clipArguments() {
  return {"/usr/bin/ffmpeg",
          "-nostdin",
          "-v",
          "error",
          "-y",
          "-f",
          "lavfi",
          "-i",
          "testsrc2=size=64x48:rate=10:duration=4",
          "-c:v",
          "libx264",
          "-preset",
          "ultrafast",
          "-pix_fmt",
          "yuv420p",
          "-g",
          "5",
          clip()};
}

}  // namespace faults
