#pragma once

#include <cstdint>
#include <set>

#include "powercut/Workload.h"
#include "recorder/session/KeptCopies.h"

namespace powercut {

// Keeps pictures beside the sessions of a life. Copies that are whole when the call returns have
// been promised then.
class Keeper {
 public:
  explicit Keeper(Recorded* out);

  // By the numbers of pictures.
  void keep(uint32_t from, uint32_t to);
  void release(uint32_t from, uint32_t to);

 private:
  void promise(const DB_STREAM& row);

  Recorded* out_;
  tarn::KeptCopies copies_;
  std::set<uint32_t> known_;
};

}  // namespace powercut
