#pragma once

#include <condition_variable>
#include <mutex>

#include "media/serve/WritersFirst.h"

namespace tarn {

// What is said of a turn that did not come.
inline constexpr char kTooBusy[] =
    "too many ask at once, or the recording needs the card: try again in a moment";

// Lets so many at a time do what costs the card's or the processor's time, and none while the card
// has enough to do with what is written: a crowd of viewers takes no more from the recording than
// some do. Any number of threads.
class Turns {
 public:
  // Who wants to see what is written just now finds it in memory, and need not wait for the card.
  enum class Of { kCard, kNewest };

  // `writers` outlives this.
  Turns(int atATime, WritersFirst* writers) : writers_(writers), free_(atATime) {}

  // One's turn, as long as the object lives; none when it did not come in time.
  class Turn {
   public:
    explicit Turn(Turns* turns, Of what = Of::kCard)
        : turns_(turns->enter(what) ? turns : nullptr), reading_(turns->writers_) {}
    ~Turn() {
      if (turns_ != nullptr) turns_->leave();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    bool came() const { return turns_ != nullptr; }

   private:
    Turns* turns_;
    const WritersFirst::Reading reading_;
  };

 private:
  bool enter(Of what);
  void leave();

  WritersFirst* const writers_;
  std::mutex mutex_;
  std::condition_variable left_;
  int free_;  // guarded by mutex_
};

}  // namespace tarn
