// A recording while earlier ones are archived into a directory of the machine's memory, against the
// same without: archiving must not hold it up. As a camera delivers it, onto the slow card; and as
// fast as it goes, where every byte that archiving reads is taken from it.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "Machine.h"
#include "Pair.h"
#include "dblog/CDbLog.h"
#include "recorder/session/RecordingSession.h"

namespace {

using namespace bench;

constexpr uint32_t kRate = 25;  // pictures a second
constexpr uint32_t kGop = 25;
constexpr size_t kPictureBytes = 40000;  // 1 MB/s of the card's 10
constexpr uint32_t kStart = 1700000000;
constexpr char kArchive[] = "/tmp/bench-archive";
constexpr uint32_t kEarlier = 20;  // seconds that are archived meanwhile

// Parameter sets of 64 by 48 and the begin of a key picture; nobody decodes what follows.
constexpr uint8_t kKey[] = {0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0xc0, 0x0a, 0xda, 0x11, 0xec,
                            0x04, 0x40, 0x00, 0x00, 0x03, 0x00, 0x40, 0x00, 0x00, 0x03, 0x00,
                            0x83, 0xc4, 0x89, 0xa8, 0x00, 0x00, 0x00, 0x01, 0x68, 0xce, 0x0f,
                            0xc8, 0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x84, 0x3a};
constexpr uint8_t kOther[] = {0x00, 0x00, 0x00, 0x01, 0x41, 0x9a};

// The tool's own command in a process of its own, from now to the object's end.
class Archiving {
 public:
  Archiving() {
    std::filesystem::remove_all(kArchive);
    std::filesystem::create_directory(kArchive);
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      execl(TARN_BIN_DIR "/tarn", "tarn", "archive", kArchive, "--recorder", "bench",
            "--while-recording", "--json", static_cast<char*>(nullptr));
      _exit(127);
    }
    if (pid_ < 0) give_up("cannot start an archive");
  }
  ~Archiving() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    std::filesystem::remove_all(kArchive);
  }
  // Bytes that have arrived so far.
  static double bytes() {
    double sum = 0;
    for (const auto& one : std::filesystem::recursive_directory_iterator(kArchive)) {
      std::error_code gone;
      const auto size = one.is_regular_file(gone) ? one.file_size(gone) : 0;
      if (!gone) sum += static_cast<double>(size);
    }
    return sum;
  }

 private:
  pid_t pid_ = -1;
};

class ArchiveRig : public Rig {
 public:
  // `seconds` of pictures, at their times or as fast as they can be written.
  ArchiveRig(bool paced, uint32_t seconds)
      : card_(Medium::kSlow, 0, smallChunks(8 * kMiB, 256 * kKiB, 24)),
        paced_(paced),
        seconds_(seconds),
        key_(kPictureBytes, 0x5A),
        other_(kPictureBytes, 0x5A) {
    std::copy(std::begin(kKey), std::end(kKey), key_.begin());
    std::copy(std::begin(kOther), std::end(kOther), other_.begin());
    makeEmptyDatabase();
    server_ = std::make_unique<ServerProcess>();
    tarn::RecordingSession session;
    open(&session);
    for (uint32_t i = 0; i < kEarlier * kRate; ++i) write(&session);
    if (session.close() != 0) give_up(session.errorText());
  }
  ~ArchiveRig() override { CDbLog::getInstance()->finish(); }

  double ours() override {
    card_.dropCache();
    const Archiving archiving;
    // Not before it reads.
    for (int i = 0; i < 1000 && Archiving::bytes() == 0; ++i) usleep(10000);
    const double before = Archiving::bytes();
    if (before == 0) give_up("nothing is archived");
    const double seconds = record();
    archivedBytes_ = Archiving::bytes() - before;
    recordedSeconds_ = seconds;
    return seconds;
  }
  double bare() override {
    card_.dropCache();
    return record();
  }
  std::map<std::string, double> figures() override {
    return {{"archived_kb_per_s", archivedBytes_ / 1e3 / recordedSeconds_}};
  }

 private:
  static void open(tarn::RecordingSession* session) {
    if (session->open({}) != 0) give_up(session->errorText());
  }
  void write(tarn::RecordingSession* session) {
    const bool key = next_ % kGop == 0;
    const std::vector<uint8_t>& picture = key ? key_ : other_;
    const auto time = tarn::PictureTime::fromMicros(int64_t{kStart} * 1000000 +
                                                    int64_t{next_++} * (1000000 / kRate));
    if (session->writePicture(picture.data(), picture.size(), time, 0, key) != 0)
      give_up(session->errorText());
  }
  double record() {
    next_ += kGop - next_ % kGop;
    tarn::RecordingSession session;
    open(&session);
    const double begin = now();
    for (uint32_t i = 0; i < seconds_ * kRate; ++i) {
      const double due = begin + static_cast<double>(i) / kRate;
      const double early = paced_ ? due - now() : 0;
      if (early > 0) usleep(static_cast<useconds_t>(early * 1e6));
      write(&session);
    }
    if (session.flush() != 0) give_up(session.errorText());
    const double seconds = now() - begin;
    session.close();
    return seconds;
  }

  Card card_;
  const bool paced_;
  const uint32_t seconds_;
  std::unique_ptr<ServerProcess> server_;
  std::vector<uint8_t> key_;
  std::vector<uint8_t> other_;
  uint32_t next_ = 0;
  double archivedBytes_ = 0;
  double recordedSeconds_ = 1;
};

const bool kPaced = add({"archive", "archive/recording", Goal::kCost, 1.02, 3,
                         [] { return std::make_unique<ArchiveRig>(true, 4); }});
const bool kStream = add({"archive", "archive/stream", Goal::kCost, 1.02, 3,
                          [] { return std::make_unique<ArchiveRig>(false, 30); }});

}  // namespace
