// Stream data written while four viewers play what was recorded before, against the same without
// them: they stand still meanwhile. What they play is in memory, as what was recorded lately is, or
// has to come from the device.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Machine.h"
#include "Pair.h"
#include "base/UniqueFd.h"
#include "chunk/CTARNStreamChunk.h"
#include "manager/CTARNStreamManager.h"

namespace {

using namespace bench;

constexpr size_t kPiece = 20 * kKiB;
constexpr uint32_t kChunkSize = 64 * kMiB;
constexpr uint64_t kRound = 60 * kMiB / kPiece * kPiece;  // less than a chunk
constexpr uint32_t kOwnChunk = 3;                         // none of those that hold recordings
constexpr int kViewers = 4;
constexpr useconds_t kRestUs = 200000;
constexpr int64_t kApartMs = 30000;  // of the hundred seconds and more that are there to be seen

// tarn serve, until the object goes.
class PageServer {
 public:
  PageServer() {
    int out[2];
    if (pipe(out) != 0) give_up("no pipe");
    const std::string tarn = programPath("tarn");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      execl(tarn.c_str(), "tarn", "serve", "--listen", "127.0.0.1:0", nullptr);
      _exit(127);
    }
    close(out[1]);
    std::string line;
    for (char c = 0; read(out[0], &c, 1) == 1 && c != '\n';) line += c;
    close(out[0]);
    const size_t colon = line.rfind(':');
    if (pid_ < 0 || colon == std::string::npos) give_up("tarn serve does not start");
    port_ = static_cast<uint16_t>(atoi(line.c_str() + colon + 1));
  }
  ~PageServer() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  // The whole answer; "" of none.
  std::string ask(const std::string& address) const {
    const tarn::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in place = {};
    place.sin_family = AF_INET;
    place.sin_port = htons(port_);
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0) return "";
    const std::string question =
        "GET " + address + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
    if (send(fd.get(), question.data(), question.size(), MSG_NOSIGNAL) < 0) return "";
    std::string answer;
    std::array<char, 65536> bytes;
    for (ssize_t got; (got = recv(fd.get(), bytes.data(), bytes.size(), 0)) > 0;)
      answer.append(bytes.data(), static_cast<size_t>(got));
    return answer;
  }

 private:
  pid_t pid_ = -1;
  uint16_t port_ = 0;
};

std::string valueOf(const std::string& json, const std::string& name) {
  const size_t at = json.find("\"" + name + "\":");
  if (at == std::string::npos) return "";
  const size_t begin = at + name.size() + 3;
  const bool text = json[begin] == '"';
  return text ? json.substr(begin + 1, json.find('"', begin + 1) - begin - 1)
              : json.substr(begin, json.find_first_of(",}", begin) - begin);
}

// Each plays at the pictures' own pace, from another place on; what it plays it has to fetch.
class Viewers {
 public:
  explicit Viewers(const PageServer& server) : server_(server) {
    for (int i = 0; i < kViewers; ++i) threads_.emplace_back([this, i] { play(i); });
  }
  ~Viewers() {
    let(true, true);
    for (std::thread& thread : threads_) thread.join();
  }
  Viewers(const Viewers&) = delete;
  Viewers& operator=(const Viewers&) = delete;

  void let(bool watch, bool end = false) {
    const std::lock_guard<std::mutex> lock(mutex_);
    watch_ = watch;
    end_ = end;
    changed_.notify_all();
  }
  double bytes() const { return static_cast<double>(bytes_); }

 private:
  void play(int number) {
    const int64_t oldest = atoll(valueOf(server_.ask("/api/card"), "oldestMs").c_str());
    std::string from = "from=" + std::to_string(oldest + number * kApartMs);
    std::unique_lock<std::mutex> lock(mutex_);
    // Not all at the same moment.
    changed_.wait_for(lock, std::chrono::milliseconds(250 * number), [this] { return end_; });
    while (!end_) {
      changed_.wait(lock, [this] { return watch_; });
      lock.unlock();
      const std::string told = server_.ask("/api/segments?channel=0&limit=1&" + from);
      const std::string media = valueOf(told, "media");
      if (!media.empty()) bytes_ += server_.ask(media).size();
      const std::string next = valueOf(told, "next");
      if (!next.empty() && next != "null") from = "after=" + next;
      lock.lock();
      const int64_t length = std::max(atol(valueOf(told, "durationMs").c_str()), 500L);
      changed_.wait_for(lock, std::chrono::milliseconds(length), [this] { return end_; });
    }
  }

  const PageServer& server_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool watch_ = false;  // guarded by mutex_
  bool end_ = false;    // guarded by mutex_
  std::atomic<uint64_t> bytes_{0};
  std::vector<std::thread> threads_;
};

class ViewersRig : public Rig {
 public:
  ViewersRig(Medium medium, uint64_t bytes, bool cold)
      : cold_(cold),
        card_(medium, 512 * kMiB, smallChunks(kChunkSize, kMiB, 0)),
        manager_(51),
        bytes_(bytes),
        data_(kRound, 0xA5) {
    const char* clip = getenv("TARN_BENCH_CLIP");
    if (clip == nullptr || *clip == '\0') give_up("no clip to record");
    makeEmptyDatabase();
    management_ = std::make_unique<ServerProcess>();
    if (runProgram({programPath("tarn"), "record", clip, "--loop", "10", "--start",
                    "2026-03-01T08:00:00"}) != 0)
      give_up("nothing is recorded");
    if (manager_.openManageData() != 0) give_up("no management data");
    if (medium != Medium::kSlow) card_.fillChunk(tarn::kFileStream, kOwnChunk);
    chunk_ = std::make_unique<CTARNStreamChunk>(1);
    if (chunk_->openChunkFile(&manager_, kOwnChunk) != 0) give_up("cannot open a stream chunk");
    card_.sync();
    server_ = std::make_unique<PageServer>();
    viewers_ = std::make_unique<Viewers>(*server_);
  }
  ~ViewersRig() override {
    viewers_.reset();
    chunk_.reset();
    manager_.closeManageData();
  }

  double ours() override {
    if (cold_) forgetCard();
    viewers_->let(true);
    // The device rests before either half: it takes the first tenth of a second's data at once.
    usleep(kRestUs);
    const double before = viewers_->bytes();
    const double seconds = timed([this] { write(); });
    viewers_->let(false);
    rate_ = (viewers_->bytes() - before) / seconds;
    return seconds;
  }
  double bare() override {
    // What was begun is over soon.
    usleep(kRestUs);
    return timed([this] { write(); });
  }
  std::map<std::string, double> figures() override {
    return {{"viewers_KiB_per_s", rate_ / kKiB},
            {"MiB", static_cast<double>(bytes_) / static_cast<double>(kMiB)}};
  }

 private:
  // Memory holds nothing of the card from now on.
  void forgetCard() {
    card_.sync();
    const tarn::UniqueFd device(open(card_.path().c_str(), O_RDONLY | O_CLOEXEC));
    if (!device.valid() || posix_fadvise(device.get(), 0, 0, POSIX_FADV_DONTNEED) != 0)
      give_up("memory does not let go of the card");
  }

  void write() {
    for (uint64_t done = 0; done < bytes_;) {
      chunk_->setUseAddr(0);
      chunk_->setFreeAddr(0);
      const uint64_t round = std::min(kRound, bytes_ - done);
      for (uint64_t at = 0; at < round; at += kPiece) {
        const auto length = static_cast<long>(std::min<uint64_t>(kPiece, round - at));
        if (chunk_->write(data_.data() + at, length) != length)
          give_up("a stream chunk refuses data");
      }
      chunk_->fSync();
      done += round;
    }
  }

  const bool cold_;
  Card card_;
  std::unique_ptr<ServerProcess> management_;
  CTARNStreamManager manager_;
  uint64_t bytes_;  // of a turn
  std::vector<uint8_t> data_;
  std::unique_ptr<CTARNStreamChunk> chunk_;
  std::unique_ptr<PageServer> server_;
  std::unique_ptr<Viewers> viewers_;
  double rate_ = 0;
};

// Turns of some seconds, in which each viewer fetches several times.
Pair viewersPair(const char* name, const char* group, Medium medium, uint64_t bytes,
                 bool cold = false) {
  return {group, name, Goal::kSpeed,
          0.98,  5,    [=] { return std::make_unique<ViewersRig>(medium, bytes, cold); }};
}

const bool kDisk = add(viewersPair("viewers/disk", "viewers", Medium::kDisk, 12 * kRound));
const bool kSlow = add(viewersPair("viewers/slow", "slow", Medium::kSlow, 24 * kMiB));
const bool kCold = add(viewersPair("viewers/cold", "slow", Medium::kSlow, 24 * kMiB, true));

}  // namespace
