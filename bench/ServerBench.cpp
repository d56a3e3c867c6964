// The management server with 64 clients, against a loop of poll(), read and write that sends 1,024
// bytes back as they came; also against one whose process has a second thread, as a server that
// accepts clients beside its work has: the system then counts each use of a file handle.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "Machine.h"
#include "Pair.h"
#include "fat/ChunkFiles.h"
#include "manager/RequestFormat.h"

namespace {

using namespace bench;

constexpr size_t kClients = 64;
constexpr size_t kRequests = 20000;  // a turn
constexpr char kBarePath[] = "/tmp/bare.sock";

sockaddr_un addressOf(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  return address;
}

enum class Echo { kAlone, kBesideAThread };

// Never returns.
[[noreturn]] void echo(int listening, Echo how) {
  if (how == Echo::kBesideAThread) std::thread([] { pause(); }).detach();
  std::vector<pollfd> clients;
  while (clients.size() < kClients) {
    const int fd = accept(listening, nullptr, nullptr);
    if (fd >= 0) clients.push_back({fd, POLLIN, 0});
  }
  uint8_t packet[tarn::kRequestSize];
  for (;;) {
    if (poll(clients.data(), clients.size(), -1) <= 0) continue;
    for (const pollfd& client : clients) {
      if (client.revents == 0) continue;
      const ssize_t got = read(client.fd, packet, sizeof packet);
      if (got <= 0) _exit(0);
      if (write(client.fd, packet, static_cast<size_t>(got)) != got) _exit(1);
    }
  }
}

// 64 connections, each with one request under way at a time.
class Clients {
 public:
  explicit Clients(const char* path) {
    const sockaddr_un address = addressOf(path);
    for (size_t i = 0; i < kClients; ++i) {
      fds_.emplace_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
      if (connect(fds_.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address)) {
        give_up(std::string("no connection to ") + path);
      }
      polls_.push_back({fds_.back().get(), POLLIN, 0});
    }
    request_.setCommand(tarn::kRequestGetUsage);
    request_.setKind(tarn::kFileJournal);
    request_.setPartition(tarn::kRecorderPartition);
    request_.setResult(tarn::kResultUnanswered);
  }

  // Seconds for all requests; each one's own go to *latencies.
  double run(std::vector<double>* latencies) {
    latencies->clear();
    latencies->reserve(kRequests);
    sent_.assign(kClients, 0);
    return timed([&] {
      size_t left = kRequests - kClients;
      for (size_t i = 0; i < kClients; ++i) send(i);
      while (latencies->size() < kRequests) {
        if (poll(polls_.data(), polls_.size(), -1) <= 0) give_up("poll failed");
        for (size_t i = 0; i < kClients; ++i) {
          if (polls_[i].revents == 0) continue;
          receive(i);
          latencies->push_back(now() - sent_[i]);
          if (left > 0) {
            --left;
            send(i);
          }
        }
      }
    });
  }

 private:
  void send(size_t i) {
    sent_[i] = now();
    if (write(fds_[i].get(), request_.bytes(), tarn::kRequestSize) != tarn::kRequestSize) {
      give_up(std::string("a request could not be sent: ") + strerror(errno));
    }
  }
  void receive(size_t i) {
    uint8_t answer[tarn::kRequestSize];
    if (read(fds_[i].get(), answer, sizeof answer) != tarn::kRequestSize) give_up("no answer");
  }

  std::vector<tarn::UniqueFd> fds_;
  std::vector<pollfd> polls_;
  std::vector<double> sent_;
  tarn::RequestRecord request_;
};

class EchoProcess {
 public:
  explicit EchoProcess(Echo how) {
    unlink(kBarePath);
    const tarn::UniqueFd listening(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const sockaddr_un address = addressOf(kBarePath);
    if (bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listening.get(), kClients) != 0) {
      give_up("no socket for the bare loop");
    }
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      echo(listening.get(), how);
    }
  }
  ~EchoProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    unlink(kBarePath);
  }
  EchoProcess(const EchoProcess&) = delete;
  EchoProcess& operator=(const EchoProcess&) = delete;

 private:
  pid_t pid_;
};

enum class Measure { kRate, kPercentile };

class ServerRig : public Rig {
 public:
  explicit ServerRig(Measure measure, Echo how = Echo::kAlone)
      : measure_(measure),
        card_(Medium::kRam, 256 * kMiB),
        echo_(how),
        ours_(tarn::kServerSocketPath),
        bare_(kBarePath) {}

  double ours() override { return measured(&ours_, &oursRate_); }
  double bare() override { return measured(&bare_, &bareRate_); }
  std::map<std::string, double> figures() override {
    return {{"requests_per_s", oursRate_}, {"bare_per_s", bareRate_}};
  }

 private:
  double measured(Clients* clients, double* rate) {
    std::vector<double> latencies;
    const double seconds = clients->run(&latencies);
    *rate = kRequests / seconds;
    if (measure_ == Measure::kRate) return seconds;
    const auto at = latencies.begin() + static_cast<long>(latencies.size() * 99 / 100);
    std::nth_element(latencies.begin(), at, latencies.end());
    return *at;
  }

  Measure measure_;
  Card card_;
  EchoProcess echo_;
  ServerProcess server_;
  Clients ours_;
  Clients bare_;
  double oursRate_ = 0, bareRate_ = 0;
};

const bool kRate = add({"server", "server/rate", Goal::kSpeed, 0.95, 11,
                        [] { return std::make_unique<ServerRig>(Measure::kRate); }});
const bool kSlowest = add({"server", "server/p99", Goal::kSpeed, 0.95, 11,
                           [] { return std::make_unique<ServerRig>(Measure::kPercentile); }});
const bool kRateThreads =
    add({"server", "server/rate_threads", Goal::kSpeed, 0.95, 11, [] {
           return std::make_unique<ServerRig>(Measure::kRate, Echo::kBesideAThread);
         }});
const bool kSlowestThreads =
    add({"server", "server/p99_threads", Goal::kSpeed, 0.95, 11, [] {
           return std::make_unique<ServerRig>(Measure::kPercentile, Echo::kBesideAThread);
         }});

}  // namespace
