// A card that is mounted: its movies read as files, against reading as many bytes of the card
// itself; and 10,000 recordings listed with their sizes, against as many empty files.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CardContents.h"
#include "Machine.h"
#include "Pair.h"
#include "base/UniqueFd.h"
#include "fat/ChunkFiles.h"

namespace {

using namespace bench;

constexpr char kPlace[] = "/tmp/mnt";
constexpr size_t kPiece = 128 * kKiB;  // as cp and cat read
constexpr uint32_t kRecordings = 10000;

struct Found {
  uint64_t files = 0;
  uint64_t bytes = 0;
  std::vector<std::string> movies;
};

// All below a directory; events hold what recordings do, and are passed over.
void walk(const std::string& directory, Found* found) {
  DIR* open = opendir(directory.c_str());
  if (open == nullptr) give_up("cannot list " + directory);
  while (const dirent* entry = readdir(open)) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || name == "events") continue;
    std::string path = directory;
    path.append("/").append(name);
    struct stat file {};
    if (lstat(path.c_str(), &file) != 0) give_up("cannot look at " + path);
    if (S_ISDIR(file.st_mode)) {
      walk(path, found);
      continue;
    }
    ++found->files;
    found->bytes += static_cast<uint64_t>(file.st_size);
    found->movies.push_back(path);
  }
  closedir(open);
}

uint64_t readAll(const std::string& path, uint64_t from, uint64_t bytes) {
  static std::vector<uint8_t> piece(kPiece);
  const tarn::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  uint64_t done = 0;
  while (done < bytes) {
    const ssize_t got = pread(file.get(), piece.data(), std::min<uint64_t>(kPiece, bytes - done),
                              static_cast<off_t>(from + done));
    if (got <= 0) give_up("cannot read " + path);
    done += static_cast<uint64_t>(got);
  }
  return done;
}

// `tarn mount`, until the object goes.
class Mounted {
 public:
  Mounted() {
    mkdir(kPlace, 0755);
    std::string said;
    if (runProgram({programPath("tarn"), "--utc", "mount", kPlace}, &said) != 0)
      give_up("nothing can be mounted: " + said);
  }
  ~Mounted() {
    umount2(kPlace, MNT_DETACH);
    // It has gone when nobody holds the card any more; the next one needs nothing of it.
  }
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;
};

class ReadRig : public Rig {
 public:
  explicit ReadRig(Medium medium)
      : card_(medium, kGiB, smallChunks(32 * kMiB, 512 * kKiB, medium == Medium::kSlow ? 2 : 6)) {
    makeClip();
    makeEmptyDatabase();
    const ServerProcess server;
    const char* loops = medium == Medium::kSlow ? "3" : "12";
    if (runProgram({programPath("tarn"), "record", kClip, "--loop", loops, "--start",
                    "2026-03-01T08:00:00Z"}) != 0)
      give_up("nothing was recorded");
  }
  ~ReadRig() override { unlink(kClip); }

  double ours() override {
    const Mounted mounted;
    Found found;
    walk(kPlace, &found);
    bytes_ = found.bytes;
    if (bytes_ == 0) give_up("nothing is mounted");
    card_.dropCache();
    return timed([&] {
      for (const std::string& movie : found.movies) readAll(movie, 0, sizeOf(movie));
    });
  }
  double bare() override {
    card_.dropCache();
    return timed([&] { readAll(card_.path(), card_.chunkByte(tarn::kFileStream, 0), bytes_); });
  }
  std::map<std::string, double> figures() override {
    return {{"MiB", static_cast<double>(bytes_) / kMiB}};
  }

 private:
  // What a camera sends: 8 Mbit/s, a key picture each second.
  static void makeClip() {
    if (runProgram({"ffmpeg",   "-nostdin", "-v",
                    "error",    "-y",       "-f",
                    "lavfi",    "-i",       "testsrc2=size=1280x720:rate=25",
                    "-t",       "10",       "-c:v",
                    "libx264",  "-preset",  "ultrafast",
                    "-pix_fmt", "yuv420p",  "-g",
                    "25",       "-b:v",     "8M",
                    "-maxrate", "8M",       "-minrate",
                    "8M",       "-bufsize", "8M",
                    "-nal-hrd", "cbr",      kClip}) != 0)
      give_up("no clip to record");
  }

  static constexpr char kClip[] = "/tmp/mount.mp4";

  static uint64_t sizeOf(const std::string& path) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) give_up("cannot look at " + path);
    return static_cast<uint64_t>(file.st_size);
  }

  Card card_;
  uint64_t bytes_ = 0;
};

class ListRig : public Rig {
 public:
  ListRig() : card_(Medium::kRam, 8 * kGiB) {
    const std::vector<DB_STREAM> rows = manyStreams(card_, kRecordings);
    writeWhole(&card_, rows);
    writeStreamJournal(&card_, rows);
    if (runProgram({programPath("tarn"), "recover"}) != 0) give_up("the rows do not come back");
    mkdir(kPlain, 0755);
    for (uint32_t i = 0; i < kRecordings; ++i) {
      const std::string path = std::string(kPlain) + "/" + std::to_string(i);
      tarn::UniqueFd(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    }
  }

  // For the first time, with the size of each.
  double ours() override {
    const Mounted mounted;
    Found found;
    seconds_ = timed([&] { walk(kPlace, &found); });
    if (found.files != kRecordings) give_up(std::to_string(found.files) + " movies are listed");
    return seconds_;
  }
  double bare() override {
    Found found;
    return timed([&] { walk(kPlain, &found); });
  }
  std::map<std::string, double> figures() override { return {{"seconds", seconds_}}; }

 private:
  static constexpr char kPlain[] = "/tmp/plain";

  Card card_;
  double seconds_ = 0;
};

bool addRead(const char* name, Medium medium, Goal goal) {
  return add({"mount", name, goal, goal == Goal::kNone ? 0 : 0.8, 5,
              [medium] { return std::make_unique<ReadRig>(medium); }});
}

const bool kAll =
    addRead("mount/slow", Medium::kSlow, Goal::kSpeed) &&
    addRead("mount/card", Medium::kCard, Goal::kSpeed) &&
    addRead("mount/disk", Medium::kDisk, Goal::kNone) &&
    addRead("mount/ram", Medium::kRam, Goal::kNone) &&
    add({"mount", "mount/list", Goal::kNone, 0, 5, [] { return std::make_unique<ListRig>(); }});

}  // namespace
