#include "capi/Guard.h"
#include "capi/Handles.h"

namespace tarn {
namespace {

tarn_card* openCard(std::vector<std::string> before, std::vector<std::string> behind) {
  auto card = std::make_unique<tarn_card>();
  card->process = ReaderProcess::start(std::move(before), std::move(behind), &lastError());
  if (card->process == nullptr) return nullptr;
  card->note = card->process->said();
  return card.release();
}

}  // namespace

std::string& lastError() {
  thread_local std::string text;
  return text;
}

}  // namespace tarn

const char* tarn_error(void) { return tarn::lastError().c_str(); }

const char* tarn_interface_version(void) { return TARN_VERSION; }

tarn_card* tarn_open(const char* path, int partition) {
  return tarn::guarded<tarn_card*>(nullptr, [&]() -> tarn_card* {
    if (!tarn::isGiven(path, "path of a card")) return nullptr;
    if (*path == '\0' || partition < 0) {
      tarn::lastError() =
          *path == '\0' ? "the path of the card is empty" : "partitions have numbers from 1 on";
      return nullptr;
    }
    std::vector<std::string> words = {std::string("--card=") + path, "--read-only"};
    if (partition != 0) words.push_back("--partition=" + std::to_string(partition));
    return tarn::openCard(std::move(words), {});
  });
}

tarn_card* tarn_open_recorder(void) {
  return tarn::guarded<tarn_card*>(nullptr, [] { return tarn::openCard({}, {"--recorder"}); });
}

const char* tarn_card_note(tarn_card* card) { return card != nullptr ? card->note.c_str() : ""; }

void tarn_close(tarn_card* card) {
  if (card == nullptr) return;
  tarn::guarded<int>(0, [card] {
    card->process->close();
    return 0;
  });
  delete card;
}
