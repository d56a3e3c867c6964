#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace faults {

// One number for many parts, in their order: equal ones mean equal parts.
class Sum {
 public:
  Sum& add(std::string_view part) {
    constexpr uint64_t kPrime = 1099511628211U;
    value_ = (value_ ^ std::hash<std::string_view>()(part)) * kPrime;
    return *this;
  }
  Sum& add(uint64_t number) {
    return add(std::string_view(reinterpret_cast<const char*>(&number), sizeof number));
  }
  uint64_t value() const { return value_; }

 private:
  uint64_t value_ = 0;
};

}  // namespace faults
