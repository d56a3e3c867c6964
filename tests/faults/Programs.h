#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace faults {

inline constexpr char kCard[] = "/dev/sdblk0p1";
// The rig's own files; a place that a card's view shows, too, when it is named.
inline constexpr char kWork[] = "/dev/faults";
inline constexpr uint32_t kLifePictures = 45;
// Below the folder of programs: the product's as one file each, which take less time to load.
inline constexpr char kTool[] = "/faults-programs/faults_tarn";
inline constexpr char kServer[] = "/faults-programs/tarn-server";
// With the video libraries, which no one file holds.
inline constexpr char kVideoTool[] = "/tarn-video";
inline constexpr char kSetup[] = "/faults-programs/dbsetup";

// What is known of a program that faults are tried on.
struct Program {
  enum class Kind {
    kChanges,  // it changes the card: a judge looks at what became of it
    kReads,    // it leaves the card as it is, and prints and writes the same each time or fails
    kServes,   // the management server, beside a recorder
    kFormats,  // it makes a card
  };
  std::string name;
  std::string scene;
  Kind kind = Kind::kChanges;
  bool beside = false;  // beside a management server
  std::vector<std::string> arguments;
  std::string input;
  std::string wholeLife;  // what it has promised when it ended well
  std::vector<std::string> promisesAtEnd;
  int goodCode = 0;
  int findsByCode = 0;     // exit status that says: there is something on standard output
  bool tellsSafe = false;  // "N safe" on standard output is a promise
  unsigned sampleEvery =
      1;  // of the cases of a test run; the libraries below have theirs elsewhere
  unsigned memoryEvery = 1;  // of its many calls for memory, one in so many
};

// All of them; those of `binDir`. `media`: with those that need a clip, kWork/clip.mp4.
std::vector<Program> programsOf(const std::string& binDir, bool media);
// Makes the rig's card, with so many chunks for video.
inline constexpr uint32_t kChunks = 2;
inline constexpr uint32_t kKeepChunks = 4;
std::vector<std::string> formatArguments(const std::string& binDir, uint32_t chunks);
// Keeps what the first event of the session kKeepSession shows, and what that promises.
inline constexpr uint32_t kKeepSession = 4;
std::vector<std::string> keepArguments(const std::string& binDir);
std::string keepPromises();
// Records the clip, and makes it.
std::vector<std::string> recordArguments(const std::string& binDir);
std::vector<std::string> clipArguments();

}  // namespace faults
