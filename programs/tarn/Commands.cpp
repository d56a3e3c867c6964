#include "Command.h"

namespace tarn {

bool Command::beforeView(const std::string&, bool, WordsAsGiven*, std::string*) { return true; }

bool Command::sortWords(const WordsAsGiven& /*given*/, std::string* /*error*/) { return true; }

CLI::Option* Command::addTime(CLI::App* app, const std::string& name, const std::string& help,
                              TimeInput::Edge edge, std::optional<PictureTime>* out) {
  return app
      ->add_option_function<std::string>(
          name,
          [name, edge, out](const std::string& text) {
            std::string error;
            if (!TimeInput::parse(text, edge, &out->emplace(), &error))
              throw CLI::ValidationError(name, error);
          },
          help)
      ->type_name("TIME");
}

CLI::Option* Command::addCard(CLI::App* app) {
  return app->add_option("CARD", card_,
                         "block device or image file, as with --card; default: the recorder's own");
}

std::vector<std::unique_ptr<Command>> allCommands() {
  std::vector<std::unique_ptr<Command>> commands;
  commands.push_back(makeFormatCommand());
  commands.push_back(makeInfoCommand());
  commands.push_back(makeCheckCommand());
#ifdef TARN_WITH_MEDIA
  commands.push_back(makeRecordCommand());
#endif
  commands.push_back(makeListCommand());
  commands.push_back(makeKeepCommand());
  commands.push_back(makeRedateCommand());
#ifdef TARN_WITH_MEDIA
  commands.push_back(makeExportCommand());
  commands.push_back(makeArchiveCommand());
  commands.push_back(makeSealCommand());
  commands.push_back(makeVerifyCommand());
  commands.push_back(makeMountCommand());
#endif
#ifdef TARN_WITH_SERVE
  commands.push_back(makeServeCommand());
#endif
  commands.push_back(makeLogCommand());
  commands.push_back(makeRunCommand());
  commands.push_back(makeRecoverCommand());
  commands.push_back(makeSaveCommand());
  commands.push_back(makeHelpCommand());
#ifdef TARN_WITH_MEDIA
  commands.push_back(makeAnswerCommand());
#endif
  commands.push_back(makeCompleteCommand());
  return commands;
}

}  // namespace tarn
