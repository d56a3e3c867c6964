#include <fmt/format.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <map>

#include "Command.h"
#include "Console.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardText.h"
#include "recorder/check/CardHoldings.h"

namespace tarn {
namespace {

// "journal management" as an option: "journal-management".
std::string optionName(int type) {
  std::string name = CardLayout::familyName(type);
  for (char& c : name) {
    if (c == ' ') c = '-';
  }
  return name;
}

std::string profileHelp() {
  std::string text = "proportions of the card:";
  for (const CardProfile& profile : CardLayout::profiles()) {
    text += fmt::format(" {} ({});", profile.name, profile.description);
  }
  text.pop_back();
  return text;
}

class CommandFormat : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("format", "Lay out a card on a block device or image file");
    app->add_option("CARD", card_, "block device or image file, created where it is missing")
        ->required();
    addSize(app, "--size", "size of the card (256M, 64G); default: as large as it is",
            &request_.sizeBytes);
    app->add_option("--profile", request_.profile, profileHelp());
    addSize(app, "--cluster-size", "FAT32 cluster, 512 to 65536 bytes", &clusterBytes_);
    for (int type : {kFileStream, kFilePicture, kFileJournal, kFileSyslog, kFileDbImage, kFileInfo,
                     kFileStreamManage, kFileJournalManage, kFileSyslogManage}) {
      addFamily(app, type);
    }
    app->add_flag("--invariant", options_.invariant,
                  "the same arguments give the same bytes; clears all old content");
    app->add_flag(
        "--force", options_.force,
        "overwrite recordings, or what is not a card of the recorder; cut an image short");
    return app;
  }

  bool needsRecorder() const override { return false; }
  void setCard(const std::string&) override { cardGiven_ = true; }

  int run() override {
    if (cardGiven_) {
      complain("format takes its card as an argument: tarn format CARD, without --card");
      return kExitUsage;
    }
    request_.clusterBytes = static_cast<uint32_t>(std::min<uint64_t>(clusterBytes_, 0x80000000));
    // Where nobody can be asked, what is on the card stays.
    if (isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0) options_.confirm = ask;
    options_.look = cardHoldings;
    catchStopSignals();
    std::string error;
    if (format(&error) != 0) {
      complain(error);
      return kExitFailed;
    }
    report();
    return kExitGood;
  }

 private:
  static bool ask(const std::string& holdings) {
    fprintf(stderr, "%s.\nFormat it anyway? [y/N] ", asUserSees(holdings).c_str());
    fflush(stderr);
    char answer[16] = "";
    if (fgets(answer, sizeof answer, stdin) == nullptr) fputc('\n', stderr);
    return !stopRequested() && (strcasecmp(answer, "y\n") == 0 || strcasecmp(answer, "yes\n") == 0);
  }

  void addSize(CLI::App* app, const std::string& name, const std::string& help, uint64_t* out) {
    app->add_option_function<std::string>(
           name,
           [name, out](const std::string& text) {
             if (!parseSize(text, out) || *out == 0) {
               throw CLI::ValidationError(name, "\"" + text +
                                                    "\" is not a size; write 65536, "
                                                    "512K, 256M or 64G");
             }
           },
           help)
        ->type_name("SIZE");
  }

  void addFamily(CLI::App* app, int type) {
    CardFamilyRequest& family = request_.families[static_cast<size_t>(type)];
    const std::string name = CardLayout::familyName(type);
    addSize(app, "--" + optionName(type) + "-chunk-size", "size of each " + name + " chunk",
            &family.chunkSize);
    // The numbers of these follow from what they are for.
    if (type == kFileInfo || type == kFileStreamManage || type == kFileJournalManage ||
        type == kFileSyslogManage) {
      return;
    }
    app->add_option("--" + optionName(type) + "-chunks", family.chunks,
                    "number of " + name + " chunks")
        ->check(CLI::PositiveNumber);
  }

  int format(std::string* error) {
    ProgressLine line;
    options_.progress = [&line](uint64_t done, uint64_t total) {
      line.show(fmt::format("{} of {} ({}%)", sizeText(done), sizeText(total),
                            total ? done * 100 / total : 100));
      return !stopRequested();
    };
    return formatter_.format(card_, request_, options_, error);
  }

  void report() const {
    const CardLayout& layout = formatter_.layout();
    const CardFamily& stream = layout.family(kFileStream);
    fmt::print("{}: {}, {} stream chunks of {}, volume {:08X}\n", card_,
               sizeText(layout.sizeBytes()), stream.chunks, sizeText(stream.chunkSize),
               formatter_.volumeId());
  }

  std::string card_;
  bool cardGiven_ = false;
  uint64_t clusterBytes_ = 0;
  CardRequest request_;
  FormatOptions options_;
  CardFormatter formatter_;
};

}  // namespace

std::unique_ptr<Command> makeFormatCommand() { return std::make_unique<CommandFormat>(); }

}  // namespace tarn
