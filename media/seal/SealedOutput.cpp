#include "media/seal/SealedOutput.h"

#include "media/OutputFormat.h"

namespace tarn {
bool SealedOutput::told(bool good) {
  if (!good) error_ = file_.error().empty() ? movie_.error() : file_.error();
  return good;
}

bool SealedOutput::open(const std::string& path, bool overwrite) {
  FragmentedMovie::Plan plan;
  plan.tracks = statement_.sources.size();
  const OutputFormat format = outputFormat(path);
  plan.quickTime = format == OutputFormat::kMov;
  if (path == kStandardOutput || !(plan.quickTime || format == OutputFormat::kMp4)) {
    error_ = path + ": only an .mp4 or .mov can be sealed";
    return false;
  }
  return takeName(path, overwrite) && told(file_.create(partPath_)) &&
         told(movie_.open(
             plan, [this](const uint8_t* data, size_t size) { return file_.write(data, size); }));
}

std::unique_ptr<MediaOutput> SealedOutput::create(const std::string& path, bool overwrite,
                                                  SealingKey* key, const ExportStatement& statement,
                                                  const std::string& words, std::string* error) {
  auto output = std::make_unique<SealedOutput>();
  output->key_ = key;
  output->statement_ = statement;
  output->words_ = words;
  for (size_t i = 0; i < statement.sources.size(); ++i)
    output->statement_.sources[i].track = static_cast<uint16_t>(i + 1);
  if (output->open(path, overwrite)) return output;
  *error = output->error();
  return nullptr;
}

// The seal stands in front of the pictures: it is there before them, and a file that is cut off
// still says what it was.
bool SealedOutput::begin() {
  begun_ = true;
  if (!told(movie_.begin())) return false;
  size_t inMeta = 0;
  const std::vector<uint8_t> meta =
      makeSealedMeta(*key_, words_, statement_, movie_.origin().totalMicros(), &inMeta);
  signatureAt_ = file_.written() + inMeta;
  return told(file_.write(meta));
}

bool SealedOutput::describe(size_t track, const OutputPicture& first) {
  return told(movie_.describe(track, first));
}

bool SealedOutput::describe(size_t track, const OutputSound& first) {
  return told(movie_.describe(track, first));
}

bool SealedOutput::write(const OutputPicture& picture, size_t track) {
  return (begun_ || begin()) && told(movie_.write(picture, track));
}

bool SealedOutput::write(const OutputSound& sound, size_t track) {
  return (begun_ || begin()) && told(movie_.write(sound, track));
}

bool SealedOutput::complete() {
  return told(movie_.finish()) && told(file_.sign(key_, signatureAt_));
}

}  // namespace tarn
