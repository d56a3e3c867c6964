#include "media/FragmentedOutput.h"

#include <cstring>

namespace tarn {

bool FragmentedOutput::told(bool good) {
  if (!good) error_ = file_.error().empty() ? movie_.error() : file_.error();
  return good;
}

bool FragmentedOutput::open(const char* kind, const std::string& path, size_t tracks) {
  FragmentedMovie::Plan plan;
  plan.tracks = tracks;
  plan.quickTime = strcmp(kind, "mov") == 0;
  return told(file_.open(path)) && told(movie_.open(plan, [this](const uint8_t* data, size_t size) {
           return file_.write(data, size);
         }));
}

bool FragmentedOutput::describe(size_t track, const OutputPicture& first) {
  return told(movie_.describe(track, first));
}

bool FragmentedOutput::describe(size_t track, const OutputSound& first) {
  return told(movie_.describe(track, first));
}

bool FragmentedOutput::write(const OutputPicture& picture, size_t track) {
  return told(movie_.write(picture, track));
}

bool FragmentedOutput::write(const OutputSound& sound, size_t track) {
  return told(movie_.write(sound, track));
}

bool FragmentedOutput::complete() { return told(movie_.finish()) && told(file_.close()); }

}  // namespace tarn
