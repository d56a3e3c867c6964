#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"
#include "base/UniqueFd.h"

namespace tarn {

// Where a server listens: numbers only, so that no name server decides who can reach it.
class TARN_API ListenPlace {
 public:
  // "127.0.0.1:8420", "[::1]:8420", "localhost:0". False with *error set.
  bool parse(const std::string& text, std::string* error);
  // Only programs of this machine reach it.
  bool isLoopback() const;
  // A socket that listens; port() is the one that it has from then on, also where 0 let the system
  // choose. Not valid with *error set.
  UniqueFd open(std::string* error);

  const std::string& host() const { return host_; }
  uint16_t port() const { return port_; }
  bool isIpv6() const { return ipv6_; }
  // "127.0.0.1:8420", as it stands in an address.
  std::string text() const;

 private:
  std::string host_;  // a number
  uint16_t port_ = 0;
  bool ipv6_ = false;
};

}  // namespace tarn
