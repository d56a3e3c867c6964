#include "RecoveryRehearsal.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

#include "CardView.h"
#include "original/OriginalCard.h"
#include "recorder/card/CardText.h"

namespace tarn {
namespace {

constexpr int kDidNotRun = 99;  // no exit code of a recovery

std::string textOf(int file) {
  std::string text;
  char piece[4096];
  lseek(file, 0, SEEK_SET);
  for (ssize_t got = 0; (got = read(file, piece, sizeof piece)) > 0;)
    text.append(piece, static_cast<size_t>(got));
  return text;
}

// Its exit code; -1 with the reason in *error.
int rehearse(const std::string& card, bool json, const std::string& undoFile, std::string* error) {
  OriginalCard opened;
  if (!opened.open(card, 0, error)) return -1;
  const std::unique_ptr<CardOriginal> original = opened.take();
  std::vector<std::string> words = {kInsideReadOnly, kShownName, card, "recover", "--dry-run"};
  if (json) words.emplace_back("--json");
  CardView view;
  view.keepChanges(undoFile);
  return view.runReadOnly(card, original.get(), words, {}, error);
}

}  // namespace

// In a process of its own, which has other namespaces behind it.
bool RecoveryRehearsal::run(const std::string& card, bool json, const std::string& undoFile,
                            std::string* error) {
  const UniqueFd said(memfd_create("recovery", MFD_CLOEXEC));
  const UniqueFd reason(memfd_create("reason", MFD_CLOEXEC));
  fflush(nullptr);
  const pid_t child = said.valid() && reason.valid() ? fork() : -1;
  if (child < 0) {
    *error = errnoText("no process for a recovery", errno);
    return false;
  }
  if (child == 0) {
    std::string wrong;
    dup2(said.get(), STDOUT_FILENO);
    const UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!undoFile.empty() && null.valid()) dup2(null.get(), STDERR_FILENO);
    const int code = rehearse(card, json, undoFile, &wrong);
    if (code < 0 && write(reason.get(), wrong.data(), wrong.size()) < 0) _exit(kDidNotRun);
    _exit(code < 0 ? kDidNotRun : code);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  output_ = textOf(said.get());
  *error = textOf(reason.get());
  if (WIFEXITED(status) && WEXITSTATUS(status) < kDidNotRun) return true;
  if (error->empty()) *error = "a recovery of it cannot be tried";
  return false;
}

}  // namespace tarn
