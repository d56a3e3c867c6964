#include <unistd.h>

#include <cstddef>
#include <filesystem>

#include "capi/Guard.h"
#include "capi/Handles.h"

struct tarn_exported : tarn::RowsOf<tarn::FileFacts, tarn_exported_file> {};

namespace tarn {
namespace {

constexpr char kErrStopped[] = "stopped before its end";

// The process has its own working directory, and ours may change.
std::string absolute(const char* path) { return std::filesystem::absolute(path).string(); }

// A key in a token is no file.
std::string place(const char* key) {
  if (*textOr(key) == '\0') return "";
  return std::string(key).compare(0, 7, "pkcs11:") == 0 ? key : absolute(key);
}

// As much of the request as its maker knows of.
tarn_export_request wholeOf(const tarn_export_request& given) {
  tarn_export_request whole = TARN_EXPORT_REQUEST_INIT;
  if (given.size < offsetof(tarn_export_request, seal_key)) return whole;
  if (given.size >= sizeof whole) return given;
  auto* to = reinterpret_cast<unsigned char*>(&whole);
  const auto* from = reinterpret_cast<const unsigned char*>(&given);
  std::copy(from, from + given.size, to);
  return whole;
}

ExportQuestion questionOf(const tarn_export_request& request, const char* path) {
  ExportQuestion question;
  question.recording = request.recording;
  question.event = request.event;
  question.period = {request.from_us, request.to_us, request.channel};
  question.sound = request.without_sound == 0;
  question.tracks = request.tracks != 0;
  question.overwrite = request.overwrite != 0;
  question.progress = request.progress != nullptr;
  question.key = place(request.seal_key);
  question.certificate = *textOr(request.certificate) == '\0' ? "" : absolute(request.certificate);
  question.operatorName = textOr(request.operator_name);
  question.note = textOr(request.note);
  question.path = absolute(path);
  return question;
}

tarn_exported_file rowOf(const FileFacts& facts) {
  tarn_exported_file row = {};
  row.path = facts.path.c_str();
  row.channel = facts.channel;
  row.error = facts.error.c_str();
  row.pictures = facts.pictures;
  row.lost = facts.lost;
  row.damaged = facts.damaged;
  row.left_out = facts.leftOut;
  row.frames = facts.frames;
  row.first_us = facts.firstUs;
  row.last_us = facts.lastUs;
  return row;
}

bool takeAnswer(const Message& answer, const tarn_export_request& request,
                const ReaderProcess& process, tarn_exported* out, bool* stopped) {
  if (answer.kind == MessageKind::kProgress) {
    ProgressFacts progress;
    if (!answer.take(&progress)) return false;
    if (request.progress != nullptr && request.progress(request.context, progress.written) != 0) {
      *stopped = true;
      process.stop();
    }
    return true;
  }
  FileFacts& facts = out->facts.emplace_back();
  if (!answer.take(&facts)) return false;
  out->rows.push_back(rowOf(facts));
  return true;
}

// Whether a file is one of those that an export to `asked` makes: NAME.mp4, NAME-ch0.mp4. What else
// the process names, which reads a card that nobody vouches for, is not its to give away.
bool isMadeOf(const std::filesystem::path& file, const std::filesystem::path& asked) {
  const std::string stem = asked.stem().string();
  return file.parent_path() == asked.parent_path() && !stem.empty() &&
         file.filename().string().compare(0, stem.size(), stem) == 0 &&
         file.extension() == asked.extension();
}

// The export was over before it heard of it.
bool undo(const tarn_exported& exported, const std::filesystem::path& asked) {
  for (const FileFacts& facts : exported.facts) {
    if (facts.error.empty() && isMadeOf(facts.path, asked)) unlink(facts.path.c_str());
  }
  lastError() = kErrStopped;
  return false;
}

}  // namespace
}  // namespace tarn

int tarn_export(tarn_card* card, const tarn_export_request* request, const char* path,
                tarn_exported** exported) {
  if (exported != nullptr) *exported = nullptr;
  return tarn::guarded<int>(-1, [&] {
    if (!tarn::isGiven(card, "card") || !tarn::isGiven(request, "request") ||
        !tarn::isGiven(path, "path to write"))
      return -1;
    const tarn_export_request whole = tarn::wholeOf(*request);
    auto out = std::make_unique<tarn_exported>();
    bool stopped = false;
    const auto take = [&](const tarn::Message& answer) {
      return tarn::takeAnswer(answer, whole, *card->process, out.get(), &stopped);
    };
    tarn::Message done;
    const tarn::Message question(tarn::MessageKind::kExport, tarn::questionOf(whole, path));
    const bool good = card->process->ask(question, take, &done, &tarn::lastError()) &&
                      (!stopped || tarn::undo(*out, tarn::absolute(path)));
    if (exported != nullptr) *exported = out.release();
    return good ? 0 : -1;
  });
}

size_t tarn_exported_count(const tarn_exported* exported) {
  return exported != nullptr ? exported->rows.size() : 0;
}

const tarn_exported_file* tarn_exported_get(const tarn_exported* exported, size_t index) {
  return exported != nullptr ? exported->get(index) : nullptr;
}

void tarn_exported_free(tarn_exported* exported) { delete exported; }
