#include "recorder/rows/DatabaseConnection.h"

#include <atomic>

#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/ServerPatience.h"

namespace tarn {

DatabaseConnection::DatabaseConnection() : held_(new Held) {}

DatabaseConnection::~DatabaseConnection() {
  static std::atomic<Held*> left{nullptr};  // of the process
  if (!held_->db.isConnected()) {
    delete held_;
  } else if (DatabaseGate::await(kServerPatienceMs) == DatabaseGate::State::kFree) {
    delete held_;
    for (Held* held = left.exchange(nullptr); held != nullptr;) {
      const Held* done = held;
      held = held->next;
      delete done;
    }
  } else {
    held_->next = left.load();
    while (!left.compare_exchange_weak(held_->next, held_)) {
    }
  }
}

}  // namespace tarn
