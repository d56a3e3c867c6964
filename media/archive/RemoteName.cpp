#include "media/archive/RemoteName.h"

#include <algorithm>
#include <string_view>

#include "media/archive/ArchiveStore.h"

namespace tarn {
namespace {

constexpr char kInstead[] = "...";
// Shorter values are no secrets, and would be found in the middle of words.
constexpr size_t kShortestHidden = 4;
// What tells where a remote is and of which kind.
constexpr std::string_view kOpen[] = {"host", "port", "vendor", "provider", "region", "location"};
constexpr std::string_view kAddresses[] = {"url", "endpoint"};

bool isOneOf(std::string_view name, const std::string_view* begin, const std::string_view* end) {
  return std::find(begin, end, name) != end;
}

// An address may carry a name and a password, or a key.
bool mayBeShown(const std::string& name, const std::string& value) {
  if (isOneOf(name, std::begin(kOpen), std::end(kOpen))) return true;
  return isOneOf(name, std::begin(kAddresses), std::end(kAddresses)) &&
         value.find_first_of("@?") == std::string::npos;
}

// Where the character is outside of quotes, from `at` on; npos without one.
size_t findUnquoted(const std::string& text, char wanted, size_t at) {
  char quote = 0;
  for (; at < text.size(); ++at) {
    const char c = text[at];
    if (quote == 0 && c == wanted) return at;
    if (quote == 0 && (c == '\'' || c == '"')) {
      quote = c;
    } else if (c == quote) {
      quote = 0;
    }
  }
  return std::string::npos;
}

// As it was meant: a quote within quotes is written twice.
std::string unquoted(const std::string& value) {
  const char quote = value.empty() ? '\0' : value.front();
  if (value.size() < 2 || (quote != '\'' && quote != '"') || value.back() != quote) return value;
  std::string meant;
  for (size_t i = 1; i + 1 < value.size(); ++i) {
    meant += value[i];
    if (value[i] == quote) ++i;
  }
  return meant;
}

}  // namespace

RemoteName::RemoteName(const std::string& place) : shown_(place) {
  if (!ArchiveStore::isRemote(place)) return;
  const size_t end = findUnquoted(place, ':', place.empty() || place[0] != ':' ? 0 : 1);
  const size_t comma = findUnquoted(place, ',', 0);
  // Without an end, as where a quote is missing, all of it may be the description.
  if (comma == std::string::npos || comma > end) return;
  const bool ends = end != std::string::npos;
  shown_ = place.substr(0, comma + 1) + kInstead + (ends ? place.substr(end) : "");
  parse(place.substr(comma + 1, ends ? end - comma - 1 : std::string::npos));
}

void RemoteName::parse(const std::string& parameters) {
  hidden_.push_back(parameters);
  for (size_t at = 0; at < parameters.size();) {
    const size_t comma = std::min(findUnquoted(parameters, ',', at), parameters.size());
    const std::string one = parameters.substr(at, comma - at);
    const size_t equals = one.find('=');
    if (equals != std::string::npos) {
      const std::string value = one.substr(equals + 1);
      if (!mayBeShown(one.substr(0, equals), unquoted(value))) {
        hidden_.push_back(value);
        hidden_.push_back(unquoted(value));
      }
    }
    at = comma + 1;
  }
  const auto isShort = [](const std::string& one) { return one.size() < kShortestHidden; };
  hidden_.erase(std::remove_if(hidden_.begin(), hidden_.end(), isShort), hidden_.end());
  std::sort(hidden_.begin(), hidden_.end(),
            [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

std::string RemoteName::hide(std::string text) const {
  for (const std::string& one : hidden_) {
    for (size_t at = text.find(one); at != std::string::npos;
         at = text.find(one, at + sizeof kInstead - 1)) {
      text.replace(at, one.size(), kInstead);
    }
  }
  return text;
}

}  // namespace tarn
