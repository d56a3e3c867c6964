#pragma once

#include <memory>

namespace tarn {

class Command;

std::unique_ptr<Command> makeRecordCommand();
std::unique_ptr<Command> makeExportCommand();
std::unique_ptr<Command> makeArchiveCommand();
std::unique_ptr<Command> makeMountCommand();
std::unique_ptr<Command> makeSealCommand();
std::unique_ptr<Command> makeVerifyCommand();
// For the library for C.
std::unique_ptr<Command> makeAnswerCommand();
// Where the build has libmicrohttpd and libarchive, too.
std::unique_ptr<Command> makeServeCommand();

// The commands of video/, which need the video libraries: more than a hundred files, which take
// longer to load than most other commands take. They are a program of their own, with all the
// commands in it, which the tool becomes where one of these is asked for.
struct VideoCommands {
  using Make = std::unique_ptr<Command> (*)();  // null: not in this program

  Make record = nullptr;
  Make exportVideo = nullptr;
  Make archive = nullptr;
  Make seal = nullptr;
  Make verify = nullptr;
  Make mount = nullptr;
  Make answer = nullptr;
  Make serve = nullptr;
};

// Of this program.
extern const VideoCommands kVideoCommands;

// The program that has them all, beside the tool or where an installation puts it.
inline constexpr char kVideoProgram[] = "tarn-video";

}  // namespace tarn
