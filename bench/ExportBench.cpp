// A recording exported to a file that players read, against copying the same pictures from file to
// file without decoding them.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "Machine.h"
#include "Pair.h"
#include "db/CApiDb.h"

namespace {

using namespace bench;

constexpr char kFirst[] = "/tmp/first.mp4";
constexpr char kOurs[] = "/tmp/ours.mp4";
constexpr char kBare[] = "/tmp/bare.mp4";

class ExportRig : public Rig {
 public:
  ExportRig() : card_(Medium::kRam, kGiB) {
    const char* clip = getenv("TARN_BENCH_CLIP");
    if (clip == nullptr || *clip == '\0') give_up("no clip to record");
    makeEmptyDatabase();
    server_ = std::make_unique<ServerProcess>();
    run({programPath("tarn"), "record", clip, "--loop", "100", "--start", "2026-03-01T08:00:00"});
    exportTo(kFirst);
    struct stat file {};
    if (stat(kFirst, &file) != 0 || file.st_size == 0) give_up("nothing was exported");
    bytes_ = static_cast<double>(file.st_size);
  }
  ~ExportRig() override {
    for (const char* path : {kFirst, kOurs, kBare}) unlink(path);
  }

  double ours() override {
    unlink(kOurs);
    return timed([this] { exportTo(kOurs); });
  }
  double bare() override {
    unlink(kBare);
    return timed([this] {
      run({"ffmpeg", "-nostdin", "-v", "error", "-i", kFirst, "-map", "0:v:0", "-c", "copy",
           kBare});
    });
  }
  std::map<std::string, double> figures() override { return {{"MiB", bytes_ / kMiB}}; }

 private:
  static void run(const std::vector<std::string>& command) {
    const int status = runProgram(command);
    if (status != 0) give_up(command[0] + " failed with status " + std::to_string(status));
  }
  void exportTo(const char* path) {
    run({programPath("tarn"), "export", "--from", "2026-03-01T08:00:00", "--to",
         "2026-03-01T09:00:00", "-o", path});
  }

  Card card_;
  std::unique_ptr<ServerProcess> server_;
  double bytes_ = 0;
};

const bool kExport = add(
    {"export", "export/mp4", Goal::kSpeed, 0.9, 9, [] { return std::make_unique<ExportRig>(); }});

}  // namespace
