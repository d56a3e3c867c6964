#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace faults {

// The questions that were answered with "good" (none is 0), each with the pictures lost that the
// answer told. An open file whose descriptor is named in the environment makes it one for all
// processes of a run: what one of them found good none judges again.
class GoodStates {
 public:
  static constexpr char kVariable[] = "TARN_FAULTS_GOOD_STATES";

  GoodStates() {
    constexpr size_t kBytes = kSlots * sizeof(Slot);
    const char* number = getenv(kVariable);
    const int fd = number == nullptr ? -1 : atoi(number);
    if (fd >= 0 && ftruncate(fd, static_cast<off_t>(kBytes)) != 0) abort();
    void* memory = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE,
                        fd < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) abort();
    if (fd >= 0) close(fd);
    slots_ = static_cast<Slot*>(memory);
  }
  GoodStates(const GoodStates&) = delete;
  GoodStates& operator=(const GoodStates&) = delete;

  bool find(uint64_t question, std::array<uint32_t, 2>* lost) const {
    const Slot* slot = slotOf(question);
    const uint64_t answer = slot == nullptr ? 0 : slot->answer.load();
    if (answer == 0 || slot->question.load() != question) return false;
    *lost = {static_cast<uint32_t>(answer >> 32), static_cast<uint32_t>(answer) & ~kKnown};
    return true;
  }

  void add(uint64_t question, const std::array<uint32_t, 2>& lost) {
    Slot* slot = slotOf(question);
    uint64_t nobody = 0;
    if (slot == nullptr) return;
    if (!slot->question.compare_exchange_strong(nobody, question) && nobody != question) return;
    slot->answer = uint64_t{lost[0]} << 32 | lost[1] | kKnown;
  }

 private:
  struct Slot {
    std::atomic<uint64_t> question;  // 0: free
    std::atomic<uint64_t> answer;    // 0: not known yet
  };
  static constexpr size_t kSlots = size_t{1} << 20;
  static constexpr uint32_t kKnown = 0x80000000;

  // The question's own or the one that it may have; null when the table is full.
  Slot* slotOf(uint64_t question) const {
    for (size_t i = 0; i < kSlots; ++i) {
      Slot* slot = &slots_[(question + i) % kSlots];
      const uint64_t there = slot->question.load();
      if (there == question || there == 0) return slot;
    }
    return nullptr;
  }

  Slot* slots_ = nullptr;
};

}  // namespace faults
