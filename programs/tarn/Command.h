#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VideoCommands.h"
#include "recorder/card/PictureTime.h"
#include "recorder/card/TimeInput.h"

namespace tarn {

// Exit codes of the tool. `run` passes on its command's own code instead.
inline constexpr int kExitGood = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
inline constexpr char kExitCodesText[] =
    "Exit codes: 0 done; 1 failed, with the reason on standard error; 2 wrong usage.";

// A command line as it was given, without the program's name.
using WordsAsGiven = std::vector<std::string>;

// One command of the tool. It lives from before parsing until the program ends.
class Command {
 public:
  virtual ~Command() = default;

  // Adds the subcommand with its options, bound to members, and returns it.
  virtual CLI::App* addTo(CLI::App& tool) = 0;
  // Does the work, with the fixed paths of a recorder around it, and returns the exit code. Says
  // what went wrong on standard error, through complain(). Ends in order, finishing the database
  // and its journal, when stopRequested() turns true.
  virtual int run() = 0;
  // Once they are parsed: tells the card among its words, where that takes more than a word CARD.
  // False with the reason in *error when they make no sense. `given`: the whole command line.
  virtual bool sortWords(const WordsAsGiven& given, std::string* error);
  // The card that its words name; "" for none.
  const std::string& card() const { return card_; }
  // The card of the global option --card, for commands that do not need a recorder.
  void setCard(const std::string& card) { card_ = card; }
  // False for commands that work on a card as such and need neither database nor server.
  virtual bool needsRecorder() const { return true; }
  // False for commands that must run before the management server does; in a private view nothing
  // is started around them.
  virtual bool needsServer() const { return true; }
  // False for commands that only read rows and chunks: a private view starts no server for them,
  // only what brings the rows back.
  virtual bool asksServer() const { return true; }
  // Asked in a private view: whether it is begun while the recorder around it is still being
  // started up. It waits for the management server then, however long that takes, and touches
  // neither card nor database before.
  virtual bool beginEarly() { return false; }
  // Whether it changes the card that it works on; one that is only read is refused to it then.
  // Asked once its options are parsed.
  virtual bool changesCard() const { return true; }
  // Whether it works, all the same, where its changes are kept in memory and dropped.
  virtual bool worksReadOnly() const { return !changesCard(); }
  // Whether it was asked to show what it would change, and is to be run where that is dropped.
  virtual bool isDryRun() const { return false; }
  // Exit code for a command line that makes no sense.
  virtual int usageExitCode() const { return kExitUsage; }
  // The same where what was named as the card cannot be worked on.
  virtual int refusedExitCode() const { return kExitFailed; }
  // Whether what is named as the card need not be one yet.
  virtual bool makesCard() const { return false; }
  // Members that hold paths given by the user, "" and "-" meaning none. In a private view, where
  // /tmp is not the user's, they are rewritten before run().
  virtual std::vector<std::string*> userPaths() { return {}; }
  // Words of a command line that may name files, where userPaths() does not do.
  virtual std::vector<std::string> shownPaths() const { return {}; }
  // In front of a private view on `card`, whether it is only read there: may add to the command
  // line for the view. False with the reason in *error.
  virtual bool beforeView(const std::string& card, bool readOnly, WordsAsGiven* words,
                          std::string* error);
  // Whether the command was asked itself to leave the card as it is.
  virtual bool asksReadOnly() const { return false; }
  // In a private view on a card that is not what the user named: how to call it.
  void showCardAs(const std::string& name) { shownCard_ = name; }

 protected:
  // What to call the card that lies at `path`.
  const std::string& cardName(const std::string& path) const {
    return shownCard_.empty() ? path : shownCard_;
  }
  // Adds an option that takes a time, as TimeInput reads it; `edge`: which end of a period it is.
  static CLI::Option* addTime(CLI::App* app, const std::string& name, const std::string& help,
                              TimeInput::Edge edge, std::optional<PictureTime>* out);
  // Adds the word CARD, which means what --card means.
  CLI::Option* addCard(CLI::App* app);

  std::string card_;

 private:
  std::string shownCard_;  // "": by its path
};

// Every command, in the order of the help text; Commands.cpp lists them.
std::vector<std::unique_ptr<Command>> allCommands();

std::unique_ptr<Command> makeFormatCommand();
std::unique_ptr<Command> makeInfoCommand();
std::unique_ptr<Command> makeCheckCommand();
std::unique_ptr<Command> makeListCommand();
std::unique_ptr<Command> makeKeepCommand();
std::unique_ptr<Command> makeRedateCommand();
std::unique_ptr<Command> makeRecoverCommand();
std::unique_ptr<Command> makeLogCommand();
std::unique_ptr<Command> makeRunCommand();
std::unique_ptr<Command> makeSaveCommand();
std::unique_ptr<Command> makeHelpCommand();
// Of shells, which ask it what can stand next on a command line.
std::unique_ptr<Command> makeCompleteCommand();

}  // namespace tarn
