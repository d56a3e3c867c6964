#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/FragmentedMovie.h"
#include "media/MediaOutput.h"
#include "media/seal/SealBoxes.h"
#include "media/seal/SealWriter.h"
#include "media/seal/SealingKey.h"

namespace tarn {

// An .mp4 or .mov that is sealed: who exported it, from where and when, the fragments of its tracks
// at their true times, and a signature over every byte. It appears under its name only then. Not
// part of the interface.
class TARN_API SealedOutput : public MediaOutput {
 public:
  // `key` outlives this. The statement's sources tell the tracks, in their order. Null with *error
  // set.
  static std::unique_ptr<MediaOutput> create(const std::string& path, bool overwrite,
                                             SealingKey* key, const ExportStatement& statement,
                                             const std::string& words, std::string* error);

  bool describe(size_t track, const OutputPicture& first) override;
  bool write(const OutputPicture& picture, size_t track) override;
  bool describe(size_t track, const OutputSound& first) override;
  bool write(const OutputSound& sound, size_t track) override;

 private:
  bool open(const std::string& path, bool overwrite);
  bool told(bool good);
  bool begin();
  bool complete() override;

  SealingKey* key_ = nullptr;
  ExportStatement statement_;
  std::string words_;
  FragmentedMovie movie_;
  SealWriter file_;
  bool begun_ = false;
  uint64_t signatureAt_ = 0;
};

}  // namespace tarn
