#pragma once

#include <string>
#include <vector>

#include "media/seal/FileVerifier.h"

namespace tarn {

struct VerifiedFile {
  std::string path;
  FileProof proof;
};

// One line for each seal on standard output; why there is none on standard error.
void tellVerified(const VerifiedFile& file);
// All of it as JSON on standard output.
void printVerifyJson(const std::vector<VerifiedFile>& files);

}  // namespace tarn
