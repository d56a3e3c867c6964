#include "FolderOriginal.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "FileOriginal.h"
#include "base/FolderNames.h"
#include "recorder/card/CardText.h"
#include "recorder/card/DeviceIo.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr size_t kInfoBytes = 1024;  // the least that an info file has
constexpr size_t kNamed = 3;

std::string countText(size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace

std::unique_ptr<FolderOriginal> FolderOriginal::open(const std::string& folder, std::string* note,
                                                     std::string* error) {
  auto original = std::make_unique<FolderOriginal>();
  if (!original->list(folder, error)) return nullptr;
  const auto info = original->files_.find({kFileInfo, 0});
  std::vector<uint8_t> bytes(kInfoBytes);
  const UniqueFd file(openUntouched(info->second));
  if (!file.valid() || !readFully(file.get(), 0, bytes.data(), bytes.size())) {
    const int reason = file.valid() ? EIO : errno;
    *error = file.valid() && deviceSize(file.get()) < kInfoBytes
                 ? info->second + " is cut short"
                 : errnoText("cannot read " + info->second, reason);
    return nullptr;
  }
  if (original->volume_.compose(bytes.data(), bytes.size(), error) != 0) {
    *error = folder + ": " + *error;
    return nullptr;
  }
  const std::string missing = original->missing();
  if (!missing.empty()) *note = folder + ": " + missing;
  return original;
}

bool FolderOriginal::list(const std::string& folder, std::string* error) {
  size_t others = 0;
  std::string example;
  std::vector<std::string> names;
  const int reading = folderNames(folder.c_str(), &names);
  if (reading != 0) {
    *error = errnoText("cannot read " + folder, reading);
    return false;
  }
  for (const std::string& name : names) {
    Chunk chunk;
    const std::string path = inFolder(folder, name);
    struct stat status = {};
    const bool named = isChunkFileName(name, &chunk.first, &chunk.second);
    if (named && stat(path.c_str(), &status) != 0 && errno != ENOENT) {
      *error = errnoText("cannot read " + path, errno);
      return false;
    }
    if (named && S_ISREG(status.st_mode)) {
      files_[chunk] = path;
    } else {
      ++others;
      if (example.empty() || name < example) example = name;
    }
  }
  if (files_.count({kFileInfo, 0}) != 0) return true;
  *error = folder + " is no folder of a card's files: it has no TAIF0000, but ";
  if (!files_.empty()) {
    *error += countText(files_.size(), "other file") + " of a card";
  } else {
    *error += others == 0 ? "nothing at all" : countText(others, "other thing") + ", as " + example;
  }
  return false;
}

std::string FolderOriginal::missing() const {
  size_t all = 0;
  size_t lacking = 0;
  std::string names;
  for (int type = 0; type < kFileTypeCount; ++type) {
    const CardFamily& family = volume_.layout().family(type);
    for (uint32_t number = 0; number < family.chunks; ++number, ++all) {
      const auto file = files_.find({type, number});
      std::error_code fault;
      if (file != files_.end() && fs::file_size(file->second, fault) >= family.chunkSize &&
          !fault) {
        continue;
      }
      if (++lacking <= kNamed) names += (names.empty() ? "" : ", ") + nameOfChunkFile(type, number);
    }
  }
  if (lacking == 0) return "";
  return std::to_string(lacking) + " of " + countText(all, "file") + " are missing or too short (" +
         names + (lacking > kNamed ? ", …" : "") + "): what they held is not known";
}

bool FolderOriginal::read(uint64_t offset, void* out, size_t length) {
  if (offset > size() || length > size() - offset) return false;
  auto* bytes = static_cast<uint8_t*>(out);
  for (size_t done = 0; done < length;) {
    size_t piece = length - done;
    if (!readPiece(offset + done, bytes + done, &piece)) return false;
    done += piece;
  }
  return true;
}

// As much of *length as lies in one part of the card.
bool FolderOriginal::readPiece(uint64_t offset, uint8_t* out, size_t* length) {
  const auto upTo = [&](uint64_t end) {
    *length = static_cast<size_t>(std::min<uint64_t>(*length, end - offset));
  };
  if (offset < volume_.frontBytes()) {
    upTo(volume_.frontBytes());
    volume_.readFront(offset, out, *length);
    return true;
  }
  Chunk chunk;
  if (volume_.chunkAt(offset, &chunk.first, &chunk.second)) {
    const uint64_t start = volume_.layout().chunkByte(chunk.first, chunk.second);
    upTo(start + volume_.layout().family(chunk.first).chunkSize);
    return readChunk(chunk, offset - start, out, *length);
  }
  // Between two families nobody has anything.
  uint64_t next = size();
  for (int type = 0; type < kFileTypeCount; ++type) {
    const uint64_t start = volume_.layout().family(type).startByte();
    if (start > offset) next = std::min(next, start);
  }
  upTo(next);
  memset(out, 0, *length);
  return true;
}

bool FolderOriginal::readChunk(const Chunk& chunk, uint64_t offset, uint8_t* out, size_t length) {
  if (chunk != openChunk_) {
    const auto file = files_.find(chunk);
    open_.reset(file == files_.end() ? -1 : openUntouched(file->second));
    openChunk_ = chunk;
  }
  return open_.valid() && readFully(open_.get(), offset, out, length);
}

}  // namespace tarn
