#include "media/serve/QueryReader.h"

#include <algorithm>
#include <cstring>

namespace tarn {
namespace {

constexpr size_t kMostDigits = 15;  // far from what 64 bits hold, also times 1000
constexpr int64_t kMostChannel = 127;
constexpr int64_t kLastTimeUs = (int64_t{0xFFFFFFFF} * 1000 + 999) * 1000 + 999;

bool isDigits(const std::string& text) {
  return !text.empty() && text.size() <= kMostDigits &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int64_t valueOf(const std::string& digits) {
  int64_t value = 0;
  for (char c : digits) value = value * 10 + (c - '0');
  return value;
}

}  // namespace

QueryReader::QueryReader(const HttpRequest& request, std::initializer_list<const char*> known)
    : request_(request) {
  for (auto asked = request.query.begin(); asked != request.query.end(); ++asked) {
    const auto same = [&](const std::pair<std::string, std::string>& other) {
      return other.first == asked->first;
    };
    if (std::none_of(known.begin(), known.end(),
                     [&](const char* name) { return asked->first == name; })) {
      fail("there is no parameter of that name here: " + asked->first.substr(0, 40));
    } else if (std::any_of(request.query.begin(), asked, same)) {
      fail(asked->first + " is there twice");
    }
  }
}

void QueryReader::fail(const std::string& text) {
  if (error_.empty()) error_ = text;
}

const std::string* QueryReader::find(const char* name) const {
  for (const auto& asked : request_.query) {
    if (asked.first == name) return &asked.second;
  }
  return nullptr;
}

std::string QueryReader::text(const char* name) const {
  const std::string* value = find(name);
  return value != nullptr ? *value : "";
}

std::optional<int64_t> QueryReader::timeUs(const char* name) {
  const std::string* value = find(name);
  if (value == nullptr) return std::nullopt;
  const size_t point = value->find('.');
  const std::string whole = value->substr(0, point);
  std::string decimals = point == std::string::npos ? "0" : value->substr(point + 1);
  const bool good = isDigits(whole) && isDigits(decimals);
  decimals.resize(3, '0');
  const int64_t us = good ? valueOf(whole) * 1000 + valueOf(decimals) : 0;
  if (good && us <= kLastTimeUs) return us;
  fail(std::string(name) + " is no time in milliseconds since 1970");
  return std::nullopt;
}

int64_t QueryReader::timeUsNeeded(const char* name) {
  const std::optional<int64_t> time = timeUs(name);
  if (!time) fail(std::string(name) + " is missing: a time in milliseconds since 1970");
  return time.value_or(0);
}

std::optional<int64_t> QueryReader::number(const char* name, int64_t least, int64_t most) {
  const std::string* value = find(name);
  if (value == nullptr) return std::nullopt;
  const int64_t found = isDigits(*value) ? valueOf(*value) : -1;
  if (found >= least && found <= most) return found;
  fail(std::string(name) + " is a number from " + std::to_string(least) + " to " +
       std::to_string(most));
  return std::nullopt;
}

int64_t QueryReader::number(const char* name, int64_t least, int64_t most, int64_t otherwise) {
  return number(name, least, most).value_or(otherwise);
}

std::optional<int> QueryReader::channel() {
  const std::optional<int64_t> value = number("channel", 0, kMostChannel);
  return value ? std::optional<int>(static_cast<int>(*value)) : std::nullopt;
}

int QueryReader::channelNeeded() {
  const std::optional<int> value = channel();
  if (!value) fail("channel is missing");
  return value.value_or(0);
}

}  // namespace tarn
