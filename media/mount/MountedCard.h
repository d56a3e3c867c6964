#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/Export.h"
#include "media/mount/MountTree.h"
#include "media/mount/MountedMovie.h"
#include "media/serve/RowReader.h"

namespace tarn {

// What a file system asks for of a name.
struct MountAttributes {
  uint64_t number = 0;
  bool folder = false;
  uint64_t size = 0;     // of a movie: exact, and the same until it is closed
  uint32_t changed = 0;  // seconds
};

// The recorder's card as folders of movies, for a file system that only reads: see docs/mount.md.
// Movies are made when they are opened, and their data are read from the card when they are asked
// for. A recording that runs shows what was safe when its name was looked up.
//
// Functions return 0 or an error number: ENOENT, ENOTDIR, EISDIR, ESTALE for what was there and is
// not any more, EIO for what the card or the database does not give now. Used by one thread. Throws
// std::bad_alloc when memory runs out.
class TARN_API MountedCard {
 public:
  // `channel`: only this one.
  explicit MountedCard(std::optional<int> channel) : channel_(channel) {}

  static constexpr uint64_t kRoot = 1;

  int find(uint64_t folder, const std::string& name, MountAttributes* out);
  int attributes(uint64_t number, MountAttributes* out);
  // The names of a folder at this moment.
  int list(uint64_t folder, std::shared_ptr<const MountTree>* tree, const MountFolder** names);
  // Each open is closed once. *same: whether its bytes are those that it had when it was open the
  // last time, so that what was kept of them is still good.
  int open(uint64_t number, bool* same = nullptr);
  void close(uint64_t number);
  // Bytes of an open movie, fewer at its end; their number in *done.
  int read(uint64_t number, uint64_t offset, size_t size, uint8_t* out, size_t* done);

  // Why the last EIO.
  const std::string& error() const { return error_; }

 private:
  struct Open {
    std::unique_ptr<MountedMovie> movie;
    uint32_t users = 0;
    uint64_t lastUse = 0;
  };
  static constexpr size_t kUnusedKept = 4;  // movies that nobody has open

  int fail(const std::string& text);
  int refresh(bool now);
  int describe(MountId id, bool anew, MountAttributes* out);
  int sizeOf(MountId id, bool anew, uint64_t* size);
  int makePlan(MountId id, MoviePlan* plan);
  bool planRecording(const ServedRecording& one, MoviePlan* plan);
  bool planEvent(const DB_EVENT& event, uint8_t channel, MoviePlan* plan);
  bool isThere(const MountedMovie& movie) const;
  bool isAsBefore(uint64_t number, const MountedMovie& movie);
  void dropUnused();

  const std::optional<int> channel_;
  RowReader reader_;
  std::shared_ptr<const ServedRows> rows_;
  std::shared_ptr<const MountTree> tree_;
  int64_t lookedUs_ = 0;  // monotonic
  MoviePlanner planner_;
  std::map<uint64_t, uint64_t> sizes_;     // of movies that never change again
  std::map<uint64_t, MoviePlan> growing_;  // of those that do, as they were looked up last
  std::map<uint64_t, Open> open_;
  std::map<uint64_t, uint64_t> signatures_;  // of movies that were open and do not grow
  uint64_t uses_ = 0;
  std::string error_;
};

}  // namespace tarn
