#pragma once

#include <condition_variable>
#include <mutex>

namespace tarn {

// Lets so many at a time do what costs the card's or the processor's time, so that a crowd of
// viewers takes no more from the recording than some do. Any number of threads.
class Turns {
 public:
  explicit Turns(int atATime) : free_(atATime) {}

  // One's turn, as long as the object lives; none when it did not come in time.
  class Turn {
   public:
    explicit Turn(Turns* turns) : turns_(turns->enter() ? turns : nullptr) {}
    ~Turn() {
      if (turns_ != nullptr) turns_->leave();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    bool came() const { return turns_ != nullptr; }

   private:
    Turns* turns_;
  };

 private:
  bool enter();
  void leave();

  std::mutex mutex_;
  std::condition_variable left_;
  int free_;  // guarded by mutex_
};

}  // namespace tarn
