#include "Command.h"
#include "Console.h"
#include "RecorderHint.h"
#include "media/export/MediaExporter.h"
#include "video/ExportOutput.h"

namespace tarn {
namespace {

// Reads an optional time option. False after complaining.
bool readTime(const char* name, const std::string& text, uint32_t micros,
              std::optional<PictureTime>* out) {
  if (text.empty()) return true;
  PictureTime time;
  time.micros = micros;
  if (!parseTime(text, &time.seconds)) {
    complain(std::string(name) + " " + text + ": expected YYYY-MM-DDTHH:MM:SS");
    return false;
  }
  *out = time;
  return true;
}

class CommandExport : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("export", "Write recorded pictures and sound to a file");
    CLI::Option* stream = app->add_option("--stream", request_.streamID, "This recording");
    CLI::Option* event =
        app->add_option("--event", request_.eventID, "All that was recorded during this event");
    CLI::Option* from = app->add_option("--from", from_, "All from this local time on");
    CLI::Option* to = app->add_option("--to", to_, "All up to this local time");
    stream->excludes(event)->excludes(from)->excludes(to)->type_name("ID");
    event->excludes(from)->excludes(to)->type_name("ID");
    from->type_name("'YYYY-MM-DDTHH:MM:SS'");
    to->type_name("'YYYY-MM-DDTHH:MM:SS'");
    app->add_option("--trigger", request_.trigger, "Only recordings of this trigger")
        ->excludes(stream)
        ->excludes(event);
    app->add_option("--channel", request_.channel, "Only recordings of this channel")
        ->check(CLI::Range(0, 127));
    app->add_option(
           "-o,--output", request_.output,
           "File to write: .mp4 or .mov with each picture's time, or .h264 bare; of several "
           "channels one each, NAME-ch0.mp4 and so on")
        ->required();
    app->add_flag_callback(
        "--no-sound", [this] { request_.sound = false; }, "Leave out the recorded sound");
    app->add_flag("--tracks", request_.tracks, "Several channels into one .mp4, a track each");
    app->add_flag("--json", json_, "Print as JSON what the file holds");
    app->add_flag("--force", request_.overwrite, "Replace the file when it exists");
    return app;
  }

  bool changesCard() const override { return false; }

  int run() override {
    if (!readTime("--from", from_, 0, &request_.from) ||
        !readTime("--to", to_, 999999, &request_.to))
      return kExitUsage;
    if (!request_.streamID && !request_.eventID && !request_.from && !request_.to) {
      complain("say what to export: --stream, --event, or --from and --to");
      return kExitUsage;
    }
    if (request_.from && request_.to && *request_.to < *request_.from) {
      complain("--to lies before --from");
      return kExitUsage;
    }
    MediaExporter exporter(request_);
    const bool good = exporter.run(stopRequested);
    const ExportOutput output(exporter.channels());
    if (json_) output.printJson(request_.tracks);
    output.tell(json_);
    if (*exporter.error() != '\0') complain(withHint(exporter.error()));
    return good ? kExitGood : kExitFailed;
  }

  std::vector<std::string*> userPaths() override { return {&request_.output}; }

 private:
  ExportRequest request_;
  bool json_ = false;
  std::string from_;
  std::string to_;
};

}  // namespace

std::unique_ptr<Command> makeExportCommand() { return std::make_unique<CommandExport>(); }

}  // namespace tarn
