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
  const auto add = [&commands](std::unique_ptr<Command> (*make)()) {
    if (make != nullptr) commands.push_back(make());
  };
  add(makeFormatCommand);
  add(makeInfoCommand);
  add(makeCheckCommand);
  add(kVideoCommands.record);
  add(makeListCommand);
  add(makeKeepCommand);
  add(makeRedateCommand);
  add(kVideoCommands.exportVideo);
  add(kVideoCommands.archive);
  add(kVideoCommands.seal);
  add(kVideoCommands.verify);
  add(kVideoCommands.mount);
  add(kVideoCommands.serve);
  add(makeLogCommand);
  add(makeRunCommand);
  add(makeRecoverCommand);
  add(makeSaveCommand);
  add(makeHelpCommand);
  add(kVideoCommands.answer);
  add(makeCompleteCommand);
  return commands;
}

}  // namespace tarn
