#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Command.h"
#include "Console.h"
#include "RecorderHint.h"
#include "StandardOutputMuted.h"
#include "base/UniqueFd.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/rows/RecorderDatabase.h"
#include "video/LibraryAnswers.h"

namespace tarn {
namespace {

constexpr int kQuestionLookMs = 100;

// The half of the library for C that reads cards: capi/ReaderProcess.h starts it.
class CommandAnswer : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("answer", "Answer the library for C on standard input");
    app->add_flag("--recorder", recorder_, "about the card of this recorder, while it records");
    app->add_flag("--no-card", noCard_, "about files alone");
    app->group("");
    return app;
  }

  bool needsRecorder() const override { return !noCard_; }
  bool changesCard() const override { return false; }
  bool asksServer() const override { return false; }

  int run() override {
    int type = 0;
    socklen_t length = sizeof type;
    if (getsockopt(STDIN_FILENO, SOL_SOCKET, SO_TYPE, &type, &length) != 0) {
      complain("answer is for the library for C, which starts it itself");
      return kExitUsage;
    }
    // What else is printed or asked for must not come between.
    const UniqueFd socket(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    StandardOutputMuted::pointAtNull();
    dup2(STDOUT_FILENO, STDIN_FILENO);
    std::string error;
    if (!noCard_ && !isReadable(&error)) {
      complain(withHint(error));
      return kExitFailed;
    }
    catchStopSignals();
    return serve(socket.get());
  }

 private:
  static bool isReadable(std::string* error) {
    const GeometryReport geometry = CardGeometry::verifyRecorder();
    *error = geometry.text;
    return geometry.verdict != Delivery::kBad && databaseIsGood(stopRequested, error);
  }

  // Until whoever asks is gone.
  int serve(int socket) const {
    LibraryAnswers answers(socket, !recorder_ && !noCard_);
    bool there = Message(MessageKind::kHello, HelloFacts{TARN_VERSION}).send(socket);
    while (there && !stopRequested()) {
      pollfd question = {socket, POLLIN, 0};
      if (poll(&question, 1, kQuestionLookMs) <= 0) continue;
      Message message;
      there = message.receive(socket) && answers.answer(message);
    }
    return kExitGood;
  }

  bool recorder_ = false;
  bool noCard_ = false;
};

}  // namespace

std::unique_ptr<Command> makeAnswerCommand() { return std::make_unique<CommandAnswer>(); }

}  // namespace tarn
