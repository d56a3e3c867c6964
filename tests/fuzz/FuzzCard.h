#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarn_fuzz {

inline constexpr char kCardPath[] = "/dev/sdblk0p1";

// Parts of a card that a target may change.
enum Part : uint32_t {
  kVolume = 0x01,    // boot sectors, heads of the FATs, root directory, info file
  kManage = 0x02,    // management files, both copies
  kJournal = 0x04,   // both journals, both copies
  kPictures = 0x08,  // headers and entries
  kStreams = 0x10,   // where the pictures' data begin
  kLog = 0x20,       // the chunk of the system log that is written to
  kImage = 0x40,     // the database image
  kEverything = 0x7F,
};

// One card with three closed recordings, an interrupted one, events, lines of log and a database
// image, which is damaged as the fuzzer wants and made good again. The card is a file of the
// target's private view.
class FuzzCard {
 public:
  // The one of this process; records it at the first call.
  static FuzzCard& get();

  // Takes the input as a list of changes to the parts, and makes them. An input is a row of
  //   place (2 bytes: part; 3: offset in it), length (1: up to 16 bytes), bytes
  // and the lowest bit of the length byte's upper half seals what was changed with the right
  // checksum, so that half of the changes get past the checksums. Returns the changes made.
  size_t damage(const uint8_t* data, size_t size, uint32_t parts);
  // Puts back every byte that a run may have changed, and removes what it left in /tmp.
  void restore();

  // What is on the card now is what it is made good to from now on.
  void adopt();
  // True when every byte is what restore() would make of it.
  bool isGood();

 private:
  enum class Seal { kNone, kManage, kJournal, kEntry, kHeader };
  struct Region {
    uint32_t part;
    uint64_t offset;
    uint32_t size;
    Seal seal;
    uint32_t unit;  // bytes of a record; chunks of a management file
  };

  FuzzCard();
  void record();
  void findRegions();
  void add(uint32_t part, uint64_t offset, uint64_t size, Seal seal = Seal::kNone,
           uint32_t unit = 0);
  template <typename Differs>
  void eachDifference(Differs differs);
  void seal(const Region& region, uint32_t offset);
  void put(uint64_t offset, const void* data, size_t length);
  void get(uint64_t offset, void* data, size_t length);

  int fd_ = -1;
  std::string base_;
  std::vector<Region> regions_;
};

}  // namespace tarn_fuzz
