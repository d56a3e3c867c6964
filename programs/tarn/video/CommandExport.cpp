#include <unistd.h>

#include <cstdlib>

#include "Command.h"
#include "Console.h"
#include "RecorderHint.h"
#include "media/OutputFormat.h"
#include "media/evidence/EvidenceExporter.h"
#include "media/export/MediaExporter.h"
#include "video/ExportOutput.h"
#include "video/SealOptions.h"

namespace tarn {
namespace {

constexpr char kCardSum[] = "--card-sum";
constexpr char kHashOfChanging[] =
    "--hash-card is for a card whose bytes stay as they are: --card CARD --read-only";

class CommandExport : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("export", "Write recorded pictures and sound to a file");
    addCard(app);
    CLI::Option* stream = app->add_option("--stream", request_.streamID, "this recording");
    CLI::Option* event =
        app->add_option("--event", request_.eventID, "all that was recorded during this event");
    CLI::Option* from =
        addTime(app, "--from", "all from this time on", TimeInput::Edge::kStart, &request_.from);
    CLI::Option* to =
        addTime(app, "--to", "all up to this time", TimeInput::Edge::kEnd, &request_.to);
    stream->excludes(event)->excludes(from)->excludes(to)->type_name("ID");
    event->excludes(from)->excludes(to)->type_name("ID");
    app->add_option("--trigger", request_.trigger, "only recordings of this trigger")
        ->excludes(stream)
        ->excludes(event);
    app->add_option("--channel", request_.channel, "only recordings of this channel")
        ->check(CLI::Range(0, 127));
    CLI::Option* output = app->add_option(
        "-o,--output", request_.output,
        "file to write: .mp4 or .mov with each picture's time, or .h264 bare, - for standard "
        "output; of several channels one each, NAME-ch0.mp4 and so on");
    app->add_option("--evidence", evidence_,
                    "folder to make instead, of all that the card holds of a case: video, rows, "
                    "log, a manifest with sums and a report")
        ->type_name("DIR")
        ->excludes(output);
    app->add_flag(
           "--hash-card", hashCard_,
           "name the SHA-256 of the whole card, too, in the evidence folder; for a card that is "
           "only read")
        ->needs("--evidence");
    app->add_option(kCardSum, cardSum_)->group("");
    app->add_flag_callback(
        "--no-sound", [this] { request_.sound = false; }, "leave out the recorded sound");
    app->add_flag("--tracks", request_.tracks, "several channels into one .mp4, a track each")
        ->excludes("--evidence");
    seal_.addTo(app, false);
    app->add_flag("--json", json_, "print as JSON what the file holds");
    app->add_flag("--force", request_.overwrite,
                  "replace the file, or the evidence folder, when it exists");
    return app;
  }

  bool changesCard() const override { return false; }
  // For the system log.
  bool asksServer() const override { return !evidence_.empty(); }

  int run() override {
    if (!request_.streamID && !request_.eventID && !request_.from && !request_.to) {
      complain("say what to export: --stream, --event, or --from and --to");
      return kExitUsage;
    }
    if (request_.from && request_.to && *request_.to < *request_.from) {
      complain("--to lies before --from");
      return kExitUsage;
    }
    if (!evidence_.empty()) return makeEvidence();
    if (!outputMakesSense()) return kExitUsage;
    MediaExporter exporter(request_);
    if (seal_.asked()) exporter.seal(seal_.request());
    const bool good = runShown(&exporter, "pictures and pieces of sound");
    const ExportOutput output(exporter.channels());
    if (json_) output.printJson(request_.tracks);
    output.tell(json_);
    if (*exporter.error() != '\0') complain(withHint(exporter.error()));
    return good ? kExitGood : kExitFailed;
  }

  // What changes in the view is in memory only, and the card itself is not there to be read.
  bool beforeView(const std::string& card, bool readOnly, WordsAsGiven* words,
                  std::string* error) override {
    if (!hashCard_) return true;
    *error = kHashOfChanging;
    if (!readOnly) return false;
    ProgressLine line;
    uint64_t blocks = 0;
    const auto shown = [&] {
      if (++blocks % 400 == 0) line.show(std::to_string(blocks / 4) + " MiB of the card read");
      return false;
    };
    const size_t slash = card.rfind('/');
    const bool here = slash == std::string::npos;
    FileSum sum;
    if (!sumFile(here ? "." : card.substr(0, slash), here ? card : card.substr(slash + 1), shown,
                 &sum, error))
      return false;
    words->insert(words->end(), {kCardSum, sum.sha256 + ":" + std::to_string(sum.bytes)});
    return true;
  }

  std::vector<std::string*> userPaths() override {
    std::vector<std::string*> paths = seal_.paths();
    // Of a folder that is named as one, what it lies in is looked for.
    while (evidence_.size() > 1 && evidence_.back() == '/') evidence_.pop_back();
    paths.push_back(&request_.output);
    paths.push_back(&evidence_);
    return paths;
  }

 private:
  static bool refuse(const std::string& text) {
    complain(text);
    return false;
  }

  int makeEvidence() {
    EvidenceRequest request;
    request.what = request_;
    request.folder = evidence_;
    request.overwrite = request_.overwrite;
    if (seal_.asked()) request.seal = seal_.request();
    if (hashCard_ && cardSum_.empty()) {
      complain(kHashOfChanging);
      return kExitFailed;
    }
    const size_t mark = cardSum_.find(':');
    if (hashCard_ && mark != std::string::npos)
      request.card = FileSum{cardName(card_), strtoull(cardSum_.c_str() + mark + 1, nullptr, 10),
                             cardSum_.substr(0, mark)};
    EvidenceExporter exporter(request);
    const bool good = runShown(&exporter, "steps");
    if (exporter.beganAnew())
      warn(evidence_ + ".part was left by a run that did not end: made anew");
    if (exporter.keptChannels() > 0)
      warn(evidence_ + ".part was left by a run that did not end: the video of " +
           std::to_string(exporter.keptChannels()) + " channels is proven by its sums and kept");
    if (exporter.leavesParts())
      warn("what is finished is kept in " + evidence_ +
           ".part: the same command goes on from there");
    const bool made = *exporter.error() == '\0';
    if (made) tellEvidence(exporter);
    if (!made) complain(withHint(exporter.error()));
    return good ? kExitGood : kExitFailed;
  }

  void tellEvidence(const EvidenceExporter& exporter) const {
    const ExportOutput output(exporter.channels());
    if (json_) output.printJson(false);
    output.tell(json_);
    for (const std::string& text : exporter.missing()) complain(text);
    if (!seal_.asked()) warn(evidence_ + " is not sealed: no --seal was given");
  }

  bool outputMakesSense() const {
    if (request_.output.empty()) return refuse("say where to: -o OUT or --evidence DIR");
    const OutputFormat format = outputFormat(request_.output);
    if (format == OutputFormat::kUnknown)
      return refuse(request_.output + ": the name must end in .mp4, .mov or .h264, or be -");
    if (request_.tracks && format == OutputFormat::kBare)
      return refuse(request_.output + ": only an .mp4 or .mov holds several tracks");
    if (seal_.asked() && (request_.output == kStandardOutput || format == OutputFormat::kBare))
      return refuse(request_.output + ": only a file can be sealed, an .mp4 or .mov");
    if (request_.output != kStandardOutput) return true;
    if (json_) return refuse("-o -: standard output takes the pictures, and no JSON");
    return isatty(STDOUT_FILENO) == 0 ||
           refuse("-o -: standard output is a terminal; send it to a program or a file");
  }

  // How far it is, for whoever looks on.
  template <class Exporter>
  static bool runShown(Exporter* exporter, const char* what) {
    constexpr uint64_t kEach = 100;
    ProgressLine line;
    uint64_t pieces = 0;
    return exporter->run([&] {
      if (++pieces % kEach == 0) line.show(std::to_string(pieces) + " " + what);
      return stopRequested();
    });
  }

  ExportRequest request_;
  bool hashCard_ = false;
  std::string cardSum_;   // in a view: SHA256:BYTES of the card around it
  std::string evidence_;  // a folder; "": a file is written
  SealOptions seal_;
  bool json_ = false;
};

}  // namespace

std::unique_ptr<Command> makeExportCommand() { return std::make_unique<CommandExport>(); }

}  // namespace tarn
