#include "media/archive/ArchiveStore.h"

#include <algorithm>

#include "media/archive/ContentHasher.h"
#include "media/archive/FolderStore.h"
#include "media/archive/RcloneStore.h"

namespace tarn {
namespace {

// Smaller pieces, so that a slow rate does not go in bursts.
constexpr size_t kPiece = 64 * 1024;

// The first hash that both know tells; nothing where they have none in common.
bool haveInCommon(const ContentHashes& a, const ContentHashes& b, bool* same) {
  const std::string ContentHashes::*kinds[] = {&ContentHashes::sha256, &ContentHashes::sha1,
                                               &ContentHashes::md5};
  for (const auto kind : kinds) {
    if ((a.*kind).empty() || (b.*kind).empty()) continue;
    *same = a.*kind == b.*kind;
    return true;
  }
  return false;
}

}  // namespace

ArchiveStore::~ArchiveStore() = default;

std::string ArchiveStore::localPath(const std::string& /*name*/) const { return ""; }

// As rclone has it: a colon in front of the first slash makes a remote.
bool ArchiveStore::isRemote(const std::string& place) { return place.find(':') < place.find('/'); }

std::unique_ptr<ArchiveStore> ArchiveStore::open(const std::string& place, std::string* error) {
  if (isRemote(place)) return std::make_unique<RcloneStore>(place);
  auto folder = std::make_unique<FolderStore>(place);
  if (folder->exists(error)) return folder;
  return nullptr;
}

bool ArchiveStore::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool ArchiveStore::send(const std::string& name, const ByteSource& source, Stored* stored) {
  ContentHasher hasher;
  const bool sent = source([&](const uint8_t* data, size_t size) {
    hasher.add(data, size);
    for (size_t at = 0; at < size; at += kPiece) {
      const size_t piece = std::min(kPiece, size - at);
      rate_.take(piece);
      if (!add(data + at, piece)) return false;
    }
    return true;
  });
  if (!sent) {
    abandon();
    return false;
  }
  stored->bytes = hasher.bytes();
  if (!finish()) return false;
  return hasher.finish(&stored->hashes) || fail("SHA-256 of " + name + " cannot be made");
}

bool ArchiveStore::put(const std::string& name, const ByteSource& source, Stored* stored) {
  error_.clear();
  const std::string part = name + kPartEnding;
  if (!begin(part)) return false;
  if (send(part, source, stored) && compare(part, trustsSize_, stored) == Answer::kSame &&
      rename(part, name))
    return true;
  // Why it failed is what is told, and not that there was nothing to remove.
  const std::string reason = error_;
  remove(part);
  error_ = reason;
  return false;
}

ArchiveStore::Answer ArchiveStore::differs(const std::string& name, const std::string& how) {
  fail(name + " " + how);
  return Answer::kDiffers;
}

bool ArchiveStore::readAll(const std::string& name, Stored* got) {
  ContentHasher hasher;
  const auto take = [&](const uint8_t* data, size_t size) {
    hasher.add(data, size);
    return true;
  };
  if (!get(name, take)) return false;
  got->bytes = hasher.bytes();
  return hasher.finish(&got->hashes) || fail("SHA-256 of " + name + " cannot be made");
}

// A way that changes bytes changes others the next time; so far it says nothing of the object.
ArchiveStore::Answer ArchiveStore::confirm(const std::string& name, const Stored& got) {
  Object seen;
  bool same = false;
  if (!look(name, &seen)) return Answer::kFailed;
  if (seen.bytes >= 0 && static_cast<uint64_t>(seen.bytes) != got.bytes) {
    fail(name + ": " + std::to_string(got.bytes) + " of its " + std::to_string(seen.bytes) +
         " bytes came");
    return Answer::kFailed;
  }
  if (!haveInCommon(seen.hashes, got.hashes, &same)) {
    Stored again;
    if (!readAll(name, &again)) return Answer::kFailed;
    same = again.hashes.sha256 == got.hashes.sha256;
  }
  if (same) return Answer::kSame;
  fail(name + ": the bytes that came are not those that the archive has");
  return Answer::kFailed;
}

ArchiveStore::Answer ArchiveStore::readBack(const std::string& name, Stored* expected) {
  Stored got;
  if (!readAll(name, &got)) return Answer::kFailed;
  expected->proof = Proof::kReadBack;
  if (got.bytes == expected->bytes && got.hashes.sha256 == expected->hashes.sha256)
    return Answer::kSame;
  if (confirm(name, got) == Answer::kFailed) return Answer::kFailed;
  return differs(name, "does not hold the bytes that were sent");
}

ArchiveStore::Answer ArchiveStore::compare(const std::string& name, bool sizeIsEnough,
                                           Stored* expected) {
  Object seen;
  if (!look(name, &seen)) return Answer::kFailed;
  if (seen.bytes >= 0 && static_cast<uint64_t>(seen.bytes) != expected->bytes)
    return differs(name, "has " + std::to_string(seen.bytes) + " bytes, of " +
                             std::to_string(expected->bytes) + " that were sent");
  bool same = false;
  if (haveInCommon(seen.hashes, expected->hashes, &same)) {
    expected->proof = Proof::kHash;
    return same ? Answer::kSame : differs(name, "has another hash than what was sent");
  }
  if (!sizeIsEnough || readsBack() || seen.bytes < 0) return readBack(name, expected);
  expected->proof = Proof::kSize;
  return Answer::kSame;
}

}  // namespace tarn
