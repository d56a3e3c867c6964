#include "powercut/States.h"

#include <algorithm>
#include <cstring>

namespace powercut {
States::States(const Recorded& life, uint64_t seed)
    : life_(life), random_(seed), copied_(copiedExtents()) {}

uint64_t States::random() { return mix(random_ += 0x9E3779B97F4A7C15u); }

// How much had been promised by now: the same bytes after more promises are another state.
uint64_t States::promises() const {
  if (life_.isRecovery) return 0;  // those of the moment that it recovers from
  uint64_t count = 0;
  for (const RowMark& mark : life_.trace.rows) count += mark.end <= cut_.at ? 1 : 0;
  for (const SafeMark& mark : life_.safe) count += mark.when <= cut_.at ? 1 : 0;
  for (const LogMark& mark : life_.log) count += mark.when <= cut_.at ? 1 : 0;
  return count;
}

uint64_t States::count(const Recorded& life, uint64_t seed) {
  States states(life, seed);
  states.walk([](uint64_t, uint64_t) { return false; }, [](const State&) {});
  return states.distinct();
}

const uint8_t* States::flushedSector(uint64_t number) const {
  const auto place = flushedSectors_.find(number);
  return place == flushedSectors_.end() ? life_.base.data() + number * kSector
                                        : place->second.data();
}

void States::addWrite(const CardOp& op) {
  const uint64_t end = op.offset + op.bytes.size();
  for (uint64_t at = op.offset; at < end;) {
    const uint64_t number = at / kSector;
    const uint64_t stop = std::min(end, (number + 1) * kSector);
    Sector& sector = sectors_[number];
    if (sector.versions.empty()) {
      const uint8_t* old = flushedSector(number);
      sector.versions.emplace_back(old, old + kSector);
      sector.hashes.push_back(sectorHash(number, old));
    }
    std::vector<uint8_t> bytes = sector.versions.back();
    if (hasCopy(number)) {
      sector.torn = bytes;
      memcpy(sector.torn.data() + at % kSector, op.bytes.data() + (at - op.offset),
             (stop - at + 1) / 2);
      sector.tornHash = sectorHash(number, sector.torn.data());
    }
    memcpy(bytes.data() + at % kSector, op.bytes.data() + (at - op.offset), stop - at);
    sector.writes.push_back(waiting_);
    sector.hashes.push_back(sectorHash(number, bytes.data()));
    sector.versions.push_back(std::move(bytes));
    at = stop;
  }
  ++waiting_;
}

void States::flush() {
  for (const auto& [number, sector] : sectors_) {
    flushedSectors_[number] = sector.versions.back();
    Card::get().put(number * kSector, sector.versions.back().data(), kSector);
    flushedHash_ ^= sector.hashes.front() ^ sector.hashes.back();
  }
  Card::get().settle();
  sectors_.clear();
  waiting_ = 0;
}

void States::visitState(const Versions& versions) {
  const uint64_t number = number_++;
  uint64_t content = flushedHash_;
  for (const auto& [sector, version] : versions) {
    const Sector& place = sectors_.at(sector);
    content ^= place.hashes.front() ^ (version == kTorn ? place.tornHash : place.hashes[version]);
  }
  contents_.insert(content);
  if (!seen_.insert(mix(content) + promises()).second) return;
  if (!(*visit_)(number, distinct_++)) return;
  Card& card = Card::get();
  for (const auto& [sector, version] : versions) {
    const Sector& place = sectors_.at(sector);
    const auto& bytes = version == kTorn ? place.torn : place.versions[version];
    card.put(sector * kSector, bytes.data(), kSector);
  }
  (*run_)({number, cut_, flushedHash_, content, {}});
  card.rollBack(0);
}

void States::visitMask(const std::vector<bool>& mask) {
  Versions versions;
  for (const auto& [number, sector] : sectors_) {
    size_t version = 0;
    for (size_t i = 0; i < sector.writes.size(); ++i) {
      if (mask[sector.writes[i]]) version = i + 1;
    }
    if (version != 0) versions.emplace_back(number, version);
  }
  visitState(versions);
}

void States::visitSubsets() {
  std::vector<bool> mask(waiting_, true);
  if (waiting_ <= kSubsetWrites) {
    for (uint32_t bits = 0; bits < 1u << waiting_; ++bits) {
      for (size_t i = 0; i < waiting_; ++i) mask[i] = ((bits >> i) & 1) == 0;
      visitMask(mask);
    }
    return;
  }
  visitMask(mask);
  visitMask(std::vector<bool>(waiting_, false));
  for (size_t i = 0; i < waiting_; ++i) {
    mask.assign(waiting_, true);
    mask[i] = false;
    visitMask(mask);
    mask.assign(waiting_, false);
    mask[i] = true;
    visitMask(mask);
  }
  for (int sample = 0; sample < kSamples; ++sample) {
    for (size_t i = 0; i < waiting_; ++i) mask[i] = (random() & 1) != 0;
    visitMask(mask);
  }
}

void States::visitTears() {
  const CardOp& last = life_.trace.ops[cut_.at - 1];
  const uint64_t first = last.offset / kSector;
  const uint64_t end = (last.offset + last.bytes.size() + kSector - 1) / kSector;
  auto visitWithout = [&](uint64_t from, uint64_t to) {
    Versions versions;
    for (const auto& [number, sector] : sectors_) {
      size_t version = sector.versions.size() - 1;
      if (number >= from && number < to) --version;
      if (version != 0) versions.emplace_back(number, version);
    }
    visitState(versions);
  };
  for (uint64_t tear = first + 1; tear < end; ++tear) visitWithout(tear, end);
  constexpr uint64_t kPageSectors = kPage / kSector;
  for (uint64_t page = first / kPageSectors; page * kPageSectors < end; ++page) {
    visitWithout(std::max(first, page * kPageSectors), std::min(end, (page + 1) * kPageSectors));
  }
}

void States::visitTornCopies() {
  Versions versions;
  bool any = false;
  for (const auto& [number, sector] : sectors_) {
    any = any || !sector.torn.empty();
    versions.emplace_back(number, sector.torn.empty() ? sector.versions.size() - 1 : kTorn);
  }
  if (any) visitState(versions);
}

bool States::hasCopy(uint64_t sector) const {
  return std::any_of(copied_.begin(), copied_.end(), [sector](const auto& extent) {
    return sector * kSector >= extent.first && sector * kSector < extent.second;
  });
}

void States::walk(const Visit& visit, const Run& run) {
  visit_ = &visit;
  run_ = &run;
  Card& card = Card::get();
  card.load(life_.base);
  visitState({});
  for (const CardOp& op : life_.trace.ops) {
    ++cut_.at;
    if (op.flush) {
      flush();
      cut_.flush = cut_.at;
      visitState({});
    } else {
      addWrite(op);
      visitSubsets();
      visitTears();
      visitTornCopies();
    }
  }
}

}  // namespace powercut
