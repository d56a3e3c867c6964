#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/archive/ContentHashes.h"
#include "media/archive/RateLimit.h"

namespace tarn {

// Takes bytes that come next. False stops the work as an error.
using ByteSink = std::function<bool(const uint8_t* data, size_t size)>;
// Gives all bytes of an object to a sink. False when it cannot, or when the sink stopped it.
using ByteSource = std::function<bool(const ByteSink& sink)>;

// What an object that is being sent is called until it is whole and proven.
inline constexpr char kPartEnding[] = ".part";
// A remote that moves nothing for so long is given up, unless something else is asked for.
inline constexpr uint32_t kPatienceSeconds = 120;

// A place for an archive's objects, by names with slashes. An object appears under its name as a
// whole and proven, or not at all, and none is ever removed. Used by one thread.
class TARN_API ArchiveStore {
 public:
  struct Object {
    std::string name;
    int64_t bytes = -1;    // -1: the storage does not tell
    ContentHashes hashes;  // that the storage has; asked for by look() only
  };
  // How it is known that the storage holds what was sent.
  enum class Proof { kHash, kReadBack, kSize };
  struct Stored {
    uint64_t bytes = 0;
    ContentHashes hashes;
    Proof proof = Proof::kSize;
  };
  enum class Answer { kSame, kDiffers, kFailed };

  virtual ~ArchiveStore();

  // NAME:PATH is a remote of rclone's, all else a directory, which must exist. Null with *error.
  static std::unique_ptr<ArchiveStore> open(const std::string& place, std::string* error);
  static bool isRemote(const std::string& place);

  // Bytes in a second that put() sends at most; 0: as many as there are.
  void limitRate(uint64_t bytesPerSecond) { rate_ = RateLimit(bytesPerSecond); }

  // How long a remote may move nothing before it is given up. A directory waits as its medium does.
  void waitAtMost(uint32_t seconds) { patienceSeconds_ = seconds; }
  // What has arrived where the storage tells no hash is read back, unless its size is to be enough.
  void trustSize(bool trusts) { trustsSize_ = trusts; }

  // All of these: false with error() set, which names the object.
  // Every object below a folder; none where there is no such folder.
  virtual bool list(const std::string& folder, std::vector<Object>* objects) = 0;
  virtual bool get(const std::string& name, const ByteSink& take) = 0;
  // A path of this machine under which an object can be read; "" where it has none.
  virtual std::string localPath(const std::string& name) const;
  // One object, with the hashes that the storage has of it.
  virtual bool look(const std::string& name, Object* object) = 0;
  // Whether there is one, asked of itself and not of a listing.
  virtual bool holds(const std::string& name, bool* there) = 0;
  // Sends an object, proves it, and gives it its name, in place of one that has it. error() is
  // empty when it was the source that failed.
  bool put(const std::string& name, const ByteSource& source, Stored* stored);
  // Removes what a put() that was interrupted has left of `name`, without its ending.
  bool dropPart(const std::string& name) { return remove(name + kPartEnding); }
  // Or gives it the name that it was about to get.
  bool namePart(const std::string& name) { return rename(name + kPartEnding, name); }
  // Whether an object has these bytes; by its size alone only where that is asked for. kDiffers and
  // kFailed set error().
  Answer compare(const std::string& name, bool sizeIsEnough, Stored* expected);
  // Behind a get() whose bytes are not what they should be, and before they are called damaged:
  // whether these are the bytes that the storage has. kFailed with error() set where the way here
  // changed them, or may have.
  Answer confirm(const std::string& name, const Stored& got);

  const std::string& error() const { return error_; }

 protected:
  virtual bool begin(const std::string& name) = 0;
  virtual bool add(const uint8_t* data, size_t size) = 0;
  virtual bool finish() = 0;
  virtual void abandon() = 0;
  virtual bool rename(const std::string& from, const std::string& to) = 0;
  virtual bool remove(const std::string& name) = 0;
  // Whether reading an object again costs nothing but time.
  virtual bool readsBack() const = 0;
  bool fail(const std::string& text);

  std::string error_;
  uint32_t patienceSeconds_ = kPatienceSeconds;

 private:
  bool send(const std::string& name, const ByteSource& source, Stored* stored);
  Answer readBack(const std::string& name, Stored* expected);
  bool readAll(const std::string& name, Stored* got);
  Answer differs(const std::string& name, const std::string& how);

  RateLimit rate_{0};
  bool trustsSize_ = false;
};

}  // namespace tarn
