#pragma once

#include <string>

namespace tarn {

// Hashes of an object's bytes in hexadecimal, small letters; "" for one that is not known. Which
// one a storage has of its objects is the storage's matter.
struct ContentHashes {
  std::string md5;
  std::string sha1;
  std::string sha256;
};

}  // namespace tarn
