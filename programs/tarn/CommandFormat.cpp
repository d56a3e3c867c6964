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

std::vector<std::string> profileNames() {
  std::vector<std::string> names;
  for (const CardProfile& profile : CardLayout::profiles()) names.emplace_back(profile.name);
  return names;
}

// Of cards that do not tell their size yet: what fits none of these fits no card.
constexpr uint64_t kSomeSizes[] = {uint64_t{64} << 20, uint64_t{1} << 30, uint64_t{32} << 30,
                                   uint64_t{1} << 40};

class CommandFormat : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("format", "Lay out a card on a block device or image file");
    app->add_option("CARD", card_, "block device or image file, created where it is missing");
    addSize(app, "--size", "size of the card (256M, 64G); default: as large as it is",
            &request_.sizeBytes);
    app->add_option("--profile", request_.profile, profileHelp())
        ->type_name("NAME")
        ->check(CLI::IsMember(profileNames()));
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
  bool makesCard() const override { return true; }

  int run() override {
    request_.clusterBytes = static_cast<uint32_t>(std::min<uint64_t>(clusterBytes_, 0x80000000));
    if (!makesSense()) return kExitUsage;
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
  // Whether there can be a card as it is asked for. What the card that is there is too small for
  // shows when it is formatted, and is no wrong usage.
  bool makesSense() const {
    if (card_.empty()) {
      complain("which card? tarn format CARD");
      return false;
    }
    std::string error;
    CardRequest request = request_;
    CardLayout layout;
    if (request.sizeBytes != 0) {
      if (layout.plan(request, &error) != 0) complain(error);
      return error.empty();
    }
    for (const uint64_t size : kSomeSizes) {
      request.sizeBytes = size;
      if (layout.plan(request, &error) == 0) return true;
    }
    complain(error);
    return false;
  }

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
        ->type_name("N")
        ->check(CLI::Range(1u, CardLayout::kMaxChunks));
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

  uint64_t clusterBytes_ = 0;
  CardRequest request_;
  FormatOptions options_;
  CardFormatter formatter_;
};

}  // namespace

std::unique_ptr<Command> makeFormatCommand() { return std::make_unique<CommandFormat>(); }

}  // namespace tarn
