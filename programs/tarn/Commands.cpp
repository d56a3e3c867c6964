#include "Command.h"

namespace tarn {

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
#ifdef TARN_WITH_MEDIA
  commands.push_back(makeExportCommand());
#endif
#ifdef TARN_WITH_SERVE
  commands.push_back(makeServeCommand());
#endif
  commands.push_back(makeLogCommand());
  commands.push_back(makeRunCommand());
  commands.push_back(makeRecoverCommand());
  commands.push_back(makeSaveCommand());
  return commands;
}

}  // namespace tarn
