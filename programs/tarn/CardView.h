#pragma once

#include <string>
#include <vector>

#include "original/OverlayMount.h"
#include "recorder/card/CardLock.h"

namespace tarn {

// Hidden options of the tool in a view: its card is an overlay, and what to call it.
inline constexpr char kInsideReadOnly[] = "--inside-read-only";
inline constexpr char kShownName[] = "--shown-name";

// Programs that belong to the tool: beside it, or where an installation puts them. "" when there is
// none.
std::string findCompanion(const std::string& name);

// A private view of the machine in which one card is the recorder's: built with bubblewrap, gone
// with its last process. /tmp and System V IPC are the view's own; the user's /tmp is visible at
// kOutsideTmp in it. Nothing of the machine is changed.
class CardView {
 public:
  // Runs this tool again inside a view on `card`, with these arguments behind the hidden option
  // that tells it so, and returns its exit code. `shown` are paths (files, directories) that must
  // be visible at their own place even below /tmp and /dev. The card is locked meanwhile; -1 with
  // the reason in *error when it cannot be, or when there is no bubblewrap.
  int run(const std::string& card, const std::vector<std::string>& arguments,
          const std::vector<std::string>& shown, std::string* error);

  // The same with what `card` holds as it is now: what is written in the view is kept in memory and
  // dropped at its end, and the original is only read. It must outlive the call. From then on this
  // process may have namespaces of its own.
  int runReadOnly(const std::string& card, CardOriginal* original,
                  const std::vector<std::string>& arguments, const std::vector<std::string>& shown,
                  std::string* error);

  // Before runReadOnly(): what is written in the view is saved at its end with what `card` has
  // there, into `file`, a new one; none where nothing is. A failure is one of runReadOnly().
  void keepChanges(const std::string& file) { overlay_.keepChanges(file); }

  // Inside a view: where a path given by the user is found. Only what lies in /tmp itself, or in a
  // directory of it that run() was not told to show, has another name there.
  static std::string pathInside(const std::string& path);

 private:
  int runOn(const char* option, const std::string& shownCard,
            const std::vector<std::string>& arguments, const std::vector<std::string>& shown,
            std::string* error);
  void addCard(const char* option, const std::string& card);
  void addTmp(const std::vector<std::string>& shown);
  void addSetupCommand();
  void showHidden(const std::string& path);
  void bind(const std::string& from, const std::string& to);

  CardLock lock_;
  OverlayMount overlay_;
  std::vector<std::string> words_;
};

}  // namespace tarn
