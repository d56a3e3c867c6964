#include "recorder/rows/DatabaseConnection.h"

#include <atomic>

#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/ServerPatience.h"

namespace tarn {

DatabaseConnection::DatabaseConnection() : held_(new Held) {}

DatabaseConnection::~DatabaseConnection() {
  static std::atomic<Held*> left{nullptr};  // of the process, so that none is lost sight of
  if (!held_->db.isConnected() ||
      DatabaseGate::await(kServerPatienceMs) == DatabaseGate::State::kFree) {
    delete held_;
    return;
  }
  held_->next = left.load();
  while (!left.compare_exchange_weak(held_->next, held_)) {
  }
}

}  // namespace tarn
