#include "media/mount/MountedCard.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "media/MonotonicTime.h"
#include "media/export/RecordingSound.h"
#include "recorder/recording/KeptRow.h"

namespace tarn {
namespace {

using Kind = MountId::Kind;

// Names may be as old as this; what is read is looked at each time.
constexpr int64_t kLookUs = 250000;

}  // namespace

int MountedCard::fail(const std::string& text) {
  error_ = text;
  return EIO;
}

int MountedCard::refresh(bool now) {
  const int64_t at = monotonicUs();
  if (!now && tree_ != nullptr && at - lookedUs_ < kLookUs) return 0;
  const std::shared_ptr<const ServedRows> before = rows_;
  if (!reader_.refresh(&rows_)) return fail(reader_.error());
  lookedUs_ = at;
  if (tree_ != nullptr && rows_ == before) return 0;
  tree_ = std::make_shared<MountTree>(rows_, channel_);
  sizes_.clear();
  return 0;
}

bool MountedCard::planRecording(const ServedRecording& one, MoviePlan* plan) {
  const DB_STREAM& row = one.row;
  const PictureTime start = {row.startDate, row.startMSec * 1000u};
  const PictureTime end = {row.endDate != 0 ? row.endDate + 1 : UINT32_MAX, 999999};
  const std::vector<DB_STREAM> beside = tree_->soundOf(MountTree::channelOf(one), start, end);
  return planner_.planRecording(row, soundOfRecording(row, beside), plan);
}

bool MountedCard::planEvent(const DB_EVENT& event, uint8_t channel, MoviePlan* plan) {
  const EventPeriod period = periodOf(event);
  const bool made = planner_.planPeriod(tree_->picturesOf(channel, period.from, period.to),
                                        tree_->soundOf(channel, period.from, period.to),
                                        period.from, period.to, plan);
  if (event.endDate == 0) plan->stable = false;
  return made;
}

// 0, or an error number.
int MountedCard::makePlan(MountId id, MoviePlan* plan) {
  if (id.isEvent()) {
    const DB_EVENT* event = tree_->event(id.key);
    if (event == nullptr) return ESTALE;
    return planEvent(*event, id.channel, plan) ? 0 : fail(planner_.error());
  }
  const ServedRecording* one = rows_->find(id.key);
  if (one == nullptr) return ESTALE;
  return planRecording(*one, plan) ? 0 : fail(planner_.error());
}

int MountedCard::sizeOf(MountId id, bool anew, uint64_t* size) {
  const uint64_t number = id.number();
  const auto open = open_.find(number);
  if (open != open_.end() && open->second.users > 0) {
    *size = open->second.movie->size();
    return 0;
  }
  const auto known = sizes_.find(number);
  if (known != sizes_.end()) {
    *size = known->second;
    return 0;
  }
  const auto grown = growing_.find(number);
  if (!anew && grown != growing_.end()) {
    *size = grown->second.size();
    return 0;
  }
  MoviePlan plan;
  const int error = makePlan(id, &plan);
  if (error != 0) return error;
  *size = plan.size();
  if (id.runs()) {
    growing_[number] = std::move(plan);
  } else {
    sizes_[number] = *size;
  }
  return 0;
}

int MountedCard::describe(MountId id, bool anew, MountAttributes* out) {
  *out = MountAttributes();
  out->number = id.number();
  out->folder = id.isFolder();
  if (out->folder) {
    const MountFolder* folder = tree_->folder(id);
    if (folder == nullptr) return ESTALE;
    out->changed = folder->changed;
    return 0;
  }
  if (id.isEvent()) {
    const DB_EVENT* event = tree_->event(id.key);
    if (event != nullptr) out->changed = std::max(event->startDate, event->endDate);
  } else {
    const ServedRecording* one = rows_->find(id.key);
    if (one != nullptr) out->changed = std::max(one->row.startDate, one->row.endDate);
  }
  return sizeOf(id, anew, &out->size);
}

int MountedCard::find(uint64_t folder, const std::string& name, MountAttributes* out) {
  const int error = refresh(false);
  if (error != 0) return error;
  if (!MountId::of(folder).isFolder()) return ENOTDIR;
  const MountName* found = tree_->find(MountId::of(folder), name);
  return found == nullptr ? ENOENT : describe(found->id, true, out);
}

int MountedCard::attributes(uint64_t number, MountAttributes* out) {
  const int error = refresh(false);
  return error != 0 ? error : describe(MountId::of(number), false, out);
}

int MountedCard::list(uint64_t folder, std::shared_ptr<const MountTree>* tree,
                      const MountFolder** names) {
  const int error = refresh(false);
  if (error != 0) return error;
  *tree = tree_;
  *names = tree_->folder(MountId::of(folder));
  return *names != nullptr ? 0 : ESTALE;
}

int MountedCard::open(uint64_t number, bool* same) {
  if (same != nullptr) *same = false;
  const MountId id = MountId::of(number);
  if (id.isFolder()) return EISDIR;
  int error = refresh(true);
  if (error != 0) return error;
  auto at = open_.find(number);
  // What nobody has open may have been made of what is not there any more.
  if (at != open_.end() && at->second.users == 0 && (id.runs() || !isThere(*at->second.movie))) {
    open_.erase(at);
    at = open_.end();
  }
  if (at == open_.end()) {
    MoviePlan plan;
    const auto grown = growing_.find(number);
    error = grown != growing_.end() ? 0 : makePlan(id, &plan);
    if (error != 0) return error;
    auto movie = std::make_unique<MountedMovie>();
    if (!movie->make(grown != growing_.end() ? grown->second : plan)) return fail(movie->error());
    at = open_.emplace(number, Open{std::move(movie), 0, 0}).first;
    growing_.erase(number);
  }
  ++at->second.users;
  if (same != nullptr && !id.runs()) *same = isAsBefore(number, *at->second.movie);
  return 0;
}

bool MountedCard::isAsBefore(uint64_t number, const MountedMovie& movie) {
  const uint64_t now = movie.signature();
  const auto before = signatures_.try_emplace(number, now);
  if (before.second || before.first->second != now) {
    before.first->second = now;
    return false;
  }
  return true;
}

void MountedCard::close(uint64_t number) {
  const auto at = open_.find(number);
  if (at == open_.end() || at->second.users == 0) return;
  if (--at->second.users > 0) return;
  at->second.lastUse = ++uses_;
  dropUnused();
}

void MountedCard::dropUnused() {
  for (;;) {
    size_t unused = 0;
    auto oldest = open_.end();
    for (auto at = open_.begin(); at != open_.end(); ++at) {
      if (at->second.users > 0) continue;
      ++unused;
      if (oldest == open_.end() || at->second.lastUse < oldest->second.lastUse) oldest = at;
    }
    if (unused <= kUnusedKept) return;
    open_.erase(oldest);
  }
}

// A key is never given twice, and a row goes before its place is given to another.
bool MountedCard::isThere(const MountedMovie& movie) const {
  const auto listed = [this](const DB_STREAM& row) {
    const ServedRecording* one = rows_->find(row.streamID);
    return one != nullptr && one->row.chunkID == row.chunkID &&
           one->row.chunkOffset == row.chunkOffset;
  };
  const MoviePlan& plan = movie.plan();
  return std::all_of(plan.sound.begin(), plan.sound.end(), listed) &&
         std::all_of(plan.parts.begin(), plan.parts.end(),
                     [&](const MoviePart& part) { return listed(part.row); });
}

// Behind the bytes it is asked whether they still were the recording's when they were read.
int MountedCard::read(uint64_t number, uint64_t offset, size_t size, uint8_t* out, size_t* done) {
  *done = 0;
  const auto at = open_.find(number);
  if (at == open_.end()) return EBADF;
  MountedMovie& movie = *at->second.movie;
  if (offset >= movie.size()) return 0;
  size = static_cast<size_t>(std::min<uint64_t>(size, movie.size() - offset));
  const bool good = movie.read(offset, size, out);
  const int error = refresh(true);
  if (error != 0) return error;
  if (!isThere(movie)) return ESTALE;
  if (!good) return fail(movie.error());
  *done = size;
  return 0;
}

}  // namespace tarn
