// What bench/growth measures and the tool has no command for.
//
//   tarn-growing rows PATH BYTES EVENTS STREAMS    formats PATH as the recorder's card, with so
//   many
//                                                  rows in its journals, and a recording that the
//                                                  power ended; each closed one is whole
//   tarn-growing full PATH BYTES PICTURE_BYTES     the same with every stream chunk full of
//   pictures
//                                                  of that size; prints how many bytes they are
//   tarn-growing clients N REQUESTS                N connections to the server, one request under
//                                                  way on each
//   tarn-growing record CHANNELS RATE SECONDS      a session for each channel, as fast as it goes;
//                                                  pictures of 4 Mbit/s
//   tarn-growing cost FILE COMMAND...              runs a program and writes to FILE the seconds of
//                                                  processor time that it took and the KiB that it
//                                                  occupied at most. A script that started it itself
//                                                  would find its own memory in that
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "CardContents.h"
#include "Machine.h"
#include "Pair.h"
#include "base/UniqueFd.h"
#include "dblog/CDbLog.h"
#include "fat/ChunkFiles.h"
#include "manager/RequestFormat.h"
#include "recorder/session/RecordingSession.h"

namespace {

using namespace bench;

constexpr uint32_t kBytesASecond = 500000;

uint64_t number(const char* text) { return strtoull(text, nullptr, 10); }

// The card outlives its object, and the program.
Card* keptCard(const char* path, uint64_t bytes) { return new Card(path, bytes); }

int makeRows(const char* path, uint64_t bytes, uint32_t events, uint32_t streams) {
  Card* card = keptCard(path, bytes);
  std::vector<DB_STREAM> rows = manyStreams(*card, streams);
  writeWhole(card, rows);
  writeEventJournal(card, manyEvents(events));
  writeStreamJournal(card, std::move(rows));
  return 0;
}

int makeFull(const char* path, uint64_t bytes, uint32_t pictureBytes) {
  Card* card = keptCard(path, bytes);
  std::vector<DB_STREAM> rows = fullStreams(*card, pictureBytes);
  const uint64_t written = writeFull(card, rows, pictureBytes);
  writeStreamJournal(card, std::move(rows));
  printf("\n%llu\n", static_cast<unsigned long long>(written));
  return 0;
}

class Connections {
 public:
  explicit Connections(size_t count) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, tarn::kServerSocketPath, sizeof address.sun_path - 1);
    for (size_t i = 0; i < count; ++i) {
      fds_.emplace_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
      if (connect(fds_.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address))
        give_up("no connection to the server");
      polls_.push_back({fds_.back().get(), POLLIN, 0});
    }
    request_.setCommand(tarn::kRequestGetUsage);
    request_.setKind(tarn::kFileJournal);
    request_.setPartition(tarn::kRecorderPartition);
    request_.setResult(tarn::kResultUnanswered);
  }

  void run(size_t requests) {
    size_t sent = 0;
    for (; sent < fds_.size(); ++sent) send(sent);
    for (size_t answered = 0; answered < requests;) {
      if (poll(polls_.data(), polls_.size(), -1) <= 0) give_up("poll failed");
      for (size_t i = 0; i < fds_.size(); ++i) {
        if (polls_[i].revents == 0) continue;
        uint8_t answer[tarn::kRequestSize];
        if (read(fds_[i].get(), answer, sizeof answer) != tarn::kRequestSize) give_up("no answer");
        ++answered;
        if (sent < requests) send(i), ++sent;
      }
    }
  }

 private:
  void send(size_t i) {
    if (write(fds_[i].get(), request_.bytes(), tarn::kRequestSize) != tarn::kRequestSize)
      give_up("a request could not be sent");
  }

  std::vector<tarn::UniqueFd> fds_;
  std::vector<pollfd> polls_;
  tarn::RequestRecord request_;
};

int askServer(size_t clients, size_t requests) {
  Connections(clients).run(requests);
  return 0;
}

std::vector<uint8_t> picture(size_t size, bool key) {
  std::vector<uint8_t> bytes(size, 0x33);
  const uint8_t head[] = {0, 0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41)};
  memcpy(bytes.data(), head, sizeof head);
  return bytes;
}

int record(uint32_t channels, uint32_t rate, uint32_t seconds) {
  std::vector<std::unique_ptr<tarn::RecordingSession>> sessions;
  for (uint32_t channel = 0; channel < channels; ++channel) {
    tarn::RecordingOptions options;
    options.channel = static_cast<int8_t>(channel);
    options.bitrate = kBytesASecond * 8;
    sessions.push_back(std::make_unique<tarn::RecordingSession>());
    if (sessions.back()->open(options) != 0) give_up(sessions.back()->errorText());
  }
  const std::vector<uint8_t> key = picture(kBytesASecond / rate, true);
  const std::vector<uint8_t> other = picture(kBytesASecond / rate, false);
  for (uint32_t i = 0; i < rate * seconds; ++i) {
    const auto time =
        tarn::PictureTime::fromMicros(int64_t{kLifeBegins} * 1000000 + int64_t{i} * 1000000 / rate);
    const bool isKey = i % rate == 0;
    const std::vector<uint8_t>& bytes = isKey ? key : other;
    for (const auto& session : sessions) {
      if (session->writePicture(bytes.data(), bytes.size(), time, 0, isKey) != 0)
        give_up(session->errorText());
    }
  }
  for (const auto& session : sessions) {
    if (session->close() != 0) give_up(session->errorText());
  }
  CDbLog::getInstance()->finish();
  return 0;
}

double secondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

int cost(const char* path, char** command) {
  const pid_t pid = fork();
  if (pid == 0) {
    execv(command[0], command);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) give_up("no process");
  FILE* file = fopen(path, "w");
  if (file == nullptr) give_up("no file for the costs");
  fprintf(file, "%.6f %ld\n", secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime),
          usage.ru_maxrss);
  fclose(file);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

namespace bench {

// Of this program, which has one thing to do.
void give_up(const std::string& why) {
  fprintf(stderr, "tarn-growing: %s\n", why.c_str());
  _exit(1);
}

}  // namespace bench

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  const auto value = [&](int index) { return static_cast<uint32_t>(number(argv[index])); };
  if (what == "cost" && argc >= 4) return cost(argv[2], argv + 3);
  int status = 2;
  if (what == "rows" && argc == 6) status = makeRows(argv[2], number(argv[3]), value(4), value(5));
  if (what == "full" && argc == 5) status = makeFull(argv[2], number(argv[3]), value(4));
  if (what == "clients" && argc == 4) status = askServer(value(2), value(3));
  if (what == "record" && argc == 5) status = record(value(2), value(3), value(4));
  if (status == 2) fputs("see the head of bench/growing/main.cpp\n", stderr);
  return status;
}
