#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/Refusals.h"

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
  // Parts of the above.
  kJournalManage = 0x80,  // of the management files that of the journals
  kImageBytes = 0x100,    // of the image what its seal is about
};

// One card with three closed recordings, an interrupted one, events, lines of log and a database
// image, which is damaged as the fuzzer wants and made good again. The card is a file of the
// target's private view.
class FuzzCard {
 public:
  // The one of this process; records it at the first call.
  static FuzzCard& get();

  // Takes the input as a list of changes to the parts, and makes them. An input is a row of
  //   place (2 bytes: part; 3: offset in it), length (1: up to 16 bytes, and kinds), bytes
  // Of the length byte's upper half the lowest bit seals what was changed with the right checksum,
  // so that half of the changes get past the checksums. The next one makes it a refusal instead of
  // a change: bytes are how often (0: always) and of what kind (kRefuse...), of how many
  // sectors (2 bytes), after how many calls that go through (1). The next one: the device ends
  // there. Returns the changes made to bytes.
  size_t damage(const uint8_t* data, size_t size, uint32_t parts);
  // Parts of the first byte of a refusal.
  static constexpr uint8_t kRefuseTimes = 0x0F;
  static constexpr uint8_t kRefuseShort = 0x10;
  static constexpr uint8_t kRefuseWrites = 0x20;
  // The device gives and takes everything again.
  void liftRefusals();
  bool hasRefusals() const { return !refusals_.empty(); }
  bool isCut() const { return end_ != 0; }
  // Of everything that is on the card and was not at the last restore(), as if nothing were
  // refused.
  uint32_t digest();
  // Puts back every byte that a run may have changed, and removes what it left in /tmp.
  void restore();

  // What is on the card now is what it is made good to from now on.
  void adopt();

 private:
  enum class Seal { kNone, kInfo, kManage, kJournal, kEntry, kHeader };
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
  void notePagesBehindEnd();
  void expectAllPutBack();
  void refuseAt(uint64_t offset, const uint8_t* order, size_t length);
  void add(uint32_t part, uint64_t offset, uint64_t size, Seal seal = Seal::kNone,
           uint32_t unit = 0);
  template <typename Look>
  void eachPage(Look look);
  void seal(const Region& region, uint32_t offset);
  void put(uint64_t offset, const void* data, size_t length);
  void get(uint64_t offset, void* data, size_t length);

  int fd_ = -1;
  std::string base_;
  std::vector<Region> regions_;
  std::vector<Refusal> refusals_;
  uint64_t end_ = 0;       // of the device, where it was cut
  uint32_t restored_ = 0;  // how often
};

}  // namespace tarn_fuzz
