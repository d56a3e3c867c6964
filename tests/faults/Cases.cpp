#include "Cases.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace faults {
namespace {

// What can go wrong with a call of this kind.
std::vector<Mode> modesOf(Op op) {
  switch (op) {
    case kCardRead:
    case kRamRead:
    case kSocketReceive:
      return {kOnce, kForever, kShort, kInterrupted};
    case kCardWrite:
    case kSocketSend:
      return {kOnce, kForever, kShort, kInterrupted};
    case kRamWrite:
      return {kOnce, kForever, kShort, kInterrupted, kFull};
    case kCardOpen:
    case kRamOpen:
    case kCardFlush:
    case kSocketConnect:
    case kSocketAccept:
    case kSocketWait:
      return {kOnce, kForever, kInterrupted};
    case kRamSize:
      return {kOnce, kForever, kFull};
    case kRamLock:
      return {kOnce, kForever, kInterrupted};
    case kCardClose:
    case kRamClose:
      return {kOnce};
    case kSocketClose:
      return {};
    case kSemaphore:
      return {kInterrupted};
    case kAny:
      return {kKill};
    default:
      return {kOnce, kForever};
  }
}

template <size_t size>
bool find(const char* const (&names)[size], const std::string& name, uint32_t* out) {
  for (uint32_t i = 0; i < size; ++i) {
    if (name != names[i]) continue;
    *out = i;
    return true;
  }
  return false;
}

}  // namespace

std::string Case::name() const {
  return program + "/" + kOpNames[op] + "/" + std::to_string(number) + "/" + kModeNames[mode];
}

bool Case::parse(const std::string& text, Case* out) {
  std::vector<std::string> parts;
  for (size_t start = 0; start <= text.size();) {
    const size_t end = std::min(text.find('/', start), text.size());
    parts.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  uint32_t op = 0;
  uint32_t mode = 0;
  if (parts.size() != 4 || !find(kOpNames, parts[1], &op) || !find(kModeNames, parts[3], &mode))
    return false;
  *out = {parts[0], static_cast<Op>(op),
          static_cast<uint32_t>(strtoul(parts[2].c_str(), nullptr, 10)), static_cast<Mode>(mode)};
  return out->number > 0;
}

std::vector<Case> casesOf(const std::string& program, const uint32_t* counts) {
  std::vector<Case> cases;
  for (uint32_t op = 0; op < kOps; ++op) {
    for (const Mode mode : modesOf(static_cast<Op>(op))) {
      for (uint32_t number = 1; number <= counts[op]; ++number)
        cases.push_back({program, static_cast<Op>(op), number, mode});
    }
  }
  return cases;
}

std::vector<Case> sampleOf(const std::vector<Case>& all) {
  std::vector<Case> sample;
  for (size_t begin = 0; begin < all.size();) {
    size_t end = begin;
    while (end < all.size() && all[end].op == all[begin].op && all[end].mode == all[begin].mode)
      ++end;
    const auto size = static_cast<double>(end - begin);
    const double take = std::max(1.0, std::floor(std::cbrt(size) / 2));
    for (double i = 0; i < take; ++i)
      sample.push_back(all[begin + static_cast<size_t>((i + 0.5) * size / take)]);
    begin = end;
  }
  return sample;
}

}  // namespace faults
