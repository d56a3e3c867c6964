#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "capi/Message.h"

namespace tarn {

// The process of the tool that reads a card for this one. Why a process: a card is read as the
// recorder starts on it, with its fixed paths, in a view of the machine that no program can make
// around itself; and what a card that was made to do harm meets is not the caller. Any thread.
class ReaderProcess {
 public:
  // Of each answer but the last one. False ends nothing: the rest is passed over.
  using EachAnswer = std::function<bool(const Message&)>;

  // Starts the tool with these words in front of and behind its command, and waits until it is
  // ready. Null with the reason in *error.
  static std::shared_ptr<ReaderProcess> start(std::vector<std::string> before,
                                              std::vector<std::string> behind, std::string* error);
  ~ReaderProcess();
  ReaderProcess(const ReaderProcess&) = delete;
  ReaderProcess& operator=(const ReaderProcess&) = delete;

  // Asks, and gives `each` what comes in answer, the last message in *done. False with the reason
  // in *error. `stop` may be called by `each`: the export that is answered ends.
  bool ask(const Message& question, const EachAnswer& each, Message* done, std::string* error);
  void stop() const { Message(MessageKind::kStop).send(socket_.get()); }
  // What it said on standard error, without the tool's name in front of each line.
  std::string said() const;
  void close();

 private:
  ReaderProcess() = default;
  bool spawn(const std::vector<std::string>& words, std::string* error);
  bool greet(std::string* error);
  bool hasEnded();
  void end();

  std::mutex mutex_;
  UniqueFd socket_;  // guarded by mutex_, as all below
  UniqueFd said_;    // a file in memory
  pid_t pid_ = 0;
};

}  // namespace tarn
