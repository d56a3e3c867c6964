#include "media/archive/RcloneStore.h"

#include <nlohmann/json.hpp>

namespace tarn {
namespace {

using Json = nlohmann::json;

constexpr char kErrNoListing[] = "what rclone gives is not a listing";
constexpr char kErrNotTaken[] = "what rclone gives cannot be processed";

std::string textOf(const Json& json, const char* name) {
  const auto found = json.find(name);
  return found != json.end() && found->is_string() ? found->get<std::string>() : "";
}

int64_t sizeOf(const Json& json) {
  const auto found = json.find("Size");
  return found != json.end() && found->is_number_integer() ? found->get<int64_t>() : -1;
}

}  // namespace

std::string RcloneStore::addressOf(const std::string& name) const {
  const char last = root_.back();
  return root_ + (last == ':' || last == '/' ? "" : "/") + name;
}

bool RcloneStore::failOf(const std::string& name, const std::string& complaint) {
  return fail((name.empty() ? name_.shown() : name) + ": " + name_.hide(complaint));
}

bool RcloneStore::run(const std::string& name, const std::vector<std::string>& words,
                      const ByteSink& take) {
  RcloneProcess process(patienceSeconds_);
  exitCode_ = -1;
  if (!process.start(words, false)) return failOf(name, process.complaint());
  if (!process.read(take)) {
    process.stop();
    return failOf(name, process.wasStuck() ? process.complaint() : kErrNotTaken);
  }
  exitCode_ = process.wait();
  return exitCode_ == 0 || failOf(name, process.complaint());
}

bool RcloneStore::run(const std::string& name, const std::vector<std::string>& words,
                      std::string* output) {
  return run(name, words, [output](const uint8_t* data, size_t size) {
    output->append(reinterpret_cast<const char*>(data), size);
    return true;
  });
}

bool RcloneStore::list(const std::string& folder, std::vector<Object>* objects) {
  std::string text;
  if (!run(folder,
           {"lsjson", "-R", "--files-only", "--no-modtime", "--no-mimetype", addressOf(folder)},
           &text))
    return exitCode_ == RcloneProcess::kNoFolder;
  const Json listing = Json::parse(text, nullptr, false);
  if (!listing.is_array()) return failOf(folder, kErrNoListing);
  const std::string before = folder.empty() ? "" : folder + "/";
  for (const Json& one : listing) {
    if (!one.is_object()) return failOf(folder, kErrNoListing);
    objects->push_back({before + textOf(one, "Path"), sizeOf(one), {}});
  }
  return true;
}

bool RcloneStore::get(const std::string& name, const ByteSink& take) {
  return run(name, {"cat", addressOf(name)}, take);
}

bool RcloneStore::look(const std::string& name, Object* object) {
  std::string text;
  if (!run(name, {"lsjson", "--stat", "--hash", "--no-mimetype", addressOf(name)}, &text))
    return false;
  const Json one = Json::parse(text, nullptr, false);
  if (!one.is_object()) return failOf(name, kErrNoListing);
  const auto hashes = one.find("Hashes");
  object->name = name;
  object->bytes = sizeOf(one);
  if (hashes != one.end() && hashes->is_object())
    object->hashes = {textOf(*hashes, "md5"), textOf(*hashes, "sha1"), textOf(*hashes, "sha256")};
  return true;
}

bool RcloneStore::holds(const std::string& name, bool* there) {
  std::string text;
  const bool ran =
      run(name, {"lsjson", "--stat", "--no-modtime", "--no-mimetype", addressOf(name)}, &text);
  // A storage without folders has each of them.
  const Json one = Json::parse(text, nullptr, false);
  *there = ran && one.is_object() && one.value("IsDir", Json()) == false;
  return ran || saysNotThere();
}

bool RcloneStore::begin(const std::string& name) {
  sendingName_ = name;
  sending_ = std::make_unique<RcloneProcess>(patienceSeconds_);
  return sending_->start({"rcat", addressOf(name)}, true) || failOf(name, sending_->complaint());
}

// One that takes no more has ended, and says why.
bool RcloneStore::add(const uint8_t* data, size_t size) {
  if (sending_->write(data, size)) return true;
  sending_->wait();
  return failOf(sendingName_, sending_->complaint());
}

bool RcloneStore::finish() {
  const int exitCode = sending_->wait();
  const std::string complaint = sending_->complaint();
  sending_.reset();
  return exitCode == 0 || failOf(sendingName_, complaint);
}

// Also one of the same size is another one: an index whose numbers have changed.
bool RcloneStore::rename(const std::string& from, const std::string& to) {
  std::string ignored;
  return run(to, {"moveto", "--ignore-times", addressOf(from), addressOf(to)}, &ignored);
}

bool RcloneStore::remove(const std::string& name) {
  std::string ignored;
  return run(name, {"deletefile", addressOf(name)}, &ignored) || saysNotThere();
}

}  // namespace tarn
