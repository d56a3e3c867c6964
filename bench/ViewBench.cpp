// Commands on a card at hand, in a private view: what they ask for is little, so what they take is
// the start of a recorder around it. Against the start alone, as whole processes.
#include <unistd.h>

#include <cstdlib>

#include "CardContents.h"
#include "Machine.h"
#include "Pair.h"

namespace {

using namespace bench;

constexpr uint64_t kCardSize = 64 * kGiB;

// A card of one recording. Each turn begins after a start that took the database's image, if there
// was one, so that both halves bring the rows back from the journal.
class ViewRig : public Rig {
 public:
  explicit ViewRig(std::vector<std::string> command)
      : card_("/tmp/view.img", kCardSize),
        command_(std::move(command)),
        bareProgram_(command_[0] == "export" ? "tarn-video" : "tarn") {
    const char* clip = getenv("TARN_BENCH_CLIP");
    if (command_[0] != "export") {
      const std::vector<DB_STREAM> rows = manyStreams(card_, 1);
      writeHeaders(&card_, rows);
      writeStreamJournal(&card_, rows);
    } else if (clip != nullptr && *clip != '\0') {
      run({"record", clip, "--start", "2026-03-01T08:00:00"});
    } else {
      give_up("no clip to record");
    }
  }

  double ours() override {
    unlink("/tmp/view.mp4");
    return afterAStart(command_);
  }
  double bare() override { return afterAStart({"recover"}, bareProgram_); }

 private:
  double afterAStart(const std::vector<std::string>& words, const char* program = "tarn") {
    run({"recover"});
    return timed([&] { run(words, program); });
  }
  void run(const std::vector<std::string>& words, const char* program = "tarn") {
    std::vector<std::string> command = {programPath(program), "--card", card_.path()};
    command.insert(command.end(), words.begin(), words.end());
    const int status = runProgram(command);
    if (status != 0) give_up("tarn " + words[0] + " failed with status " + std::to_string(status));
  }

  Card card_;
  const std::vector<std::string> command_;
  const char* const bareProgram_;  // the one that loads the same libraries
};

bool addCommand(const char* name, std::vector<std::string> command) {
  return add({"view", name, Goal::kCost, 1.2, 11,
              [command = std::move(command)] { return std::make_unique<ViewRig>(command); }});
}

const bool kAll = addCommand("view/list", {"list"}) &&
                  addCommand("view/export", {"export", "--from", "2026-03-01T08:00:00", "--to",
                                             "2026-03-01T08:00:01", "-o", "/tmp/view.mp4"});

}  // namespace
