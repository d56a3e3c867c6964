// What shells ask when somebody presses the tabulator: so the completions know what the tool knows,
// and have no list of their own that could lag behind.
#include <algorithm>
#include <cstdio>
#include <set>

#include "Command.h"

namespace tarn {
namespace {

// A line that asks the shell for names of files, beside what else is listed.
constexpr char kFiles[] = ":files";

bool begins(const std::string& text, const std::string& with) {
  return text.compare(0, with.size(), with) == 0;
}

class CommandComplete : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    tool_ = &tool;
    CLI::App* app = tool.add_subcommand("complete", "List what can stand next on a command line");
    app->add_option("WORD", words_, "behind --: the words of the line up to the one to complete");
    app->group("");
    return app;
  }

  bool needsRecorder() const override { return false; }
  bool changesCard() const override { return false; }

  int run() override {
    if (words_.empty()) words_.emplace_back();
    start_ = words_.back();
    words_.pop_back();
    const CLI::App* command = nullptr;
    const CLI::Option* open = walk(&command);
    if (open != nullptr) {
      offerValues(*open);
    } else if (begins(start_, "-")) {
      if (command != nullptr) offerOptions(*command);
      offerOptions(*tool_);
    } else if (command == nullptr) {
      offerCommands();
    } else {
      offerWords(*command);
    }
    return kExitGood;
  }

 private:
  // Goes through the words in front: the command among them, and the option that waits for its
  // value, or null.
  const CLI::Option* walk(const CLI::App** command) const {
    const CLI::Option* open = nullptr;
    for (const std::string& word : words_) {
      if (open != nullptr) {
        open = nullptr;
      } else if (begins(word, "-")) {
        open = *command != nullptr ? valueOption(**command, word) : nullptr;
        if (open == nullptr) open = valueOption(*tool_, word);
      } else if (*command == nullptr) {
        *command = commandOf(word);
      }
    }
    return open;
  }

  static const CLI::Option* valueOption(const CLI::App& app, const std::string& word) {
    const CLI::Option* option = app.get_option_no_throw(word);
    return option != nullptr && option->get_items_expected_max() > 0 ? option : nullptr;
  }

  const CLI::App* commandOf(const std::string& word) const {
    for (const CLI::App* command : tool_->get_subcommands(nullptr)) {
      if (command->get_name() == word) return command;
    }
    return nullptr;
  }

  // What command and tool both have once.
  void offer(const std::string& word) {
    if (begins(word, start_) && offered_.insert(word).second) printf("%s\n", word.c_str());
  }

  void offerCommands() {
    for (const CLI::App* command : tool_->get_subcommands(nullptr)) {
      if (!command->get_group().empty()) offer(command->get_name());
    }
  }

  void offerOptions(const CLI::App& app) {
    for (const CLI::Option* option : app.get_options()) {
      if (option->get_group().empty()) continue;
      for (const std::string& name : option->get_lnames()) offer("--" + name);
      for (const std::string& name : option->get_snames()) offer("-" + name);
    }
  }

  // The choices of an option or word stand in its type's name: "TEXT:{a,b}".
  void offerValues(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const size_t first = type.find('{');
    if (first == std::string::npos) {
      puts(kFiles);
      return;
    }
    std::string choices = type.substr(first + 1, type.find('}') - first - 1) + ",";
    for (size_t comma; (comma = choices.find(',')) != std::string::npos;) {
      offer(choices.substr(0, comma));
      choices.erase(0, comma + 1);
    }
  }

  void offerWords(const CLI::App& command) {
    if (command.get_name() == "help") return offerCommands();
    if (command.get_name() == "list") {
      offer("streams");
      offer("events");
    }
    puts(kFiles);
  }

  const CLI::App* tool_ = nullptr;
  std::vector<std::string> words_;
  std::set<std::string> offered_;
  std::string start_;  // of the word to complete
};

}  // namespace

std::unique_ptr<Command> makeCompleteCommand() { return std::make_unique<CommandComplete>(); }

}  // namespace tarn
