#include "media/serve/ListenPlace.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tarn {
namespace {

// As many as the system lets wait: in a rush all that are too many are refused at once, instead of
// being left to ask again in a while.
constexpr int kBacklog = SOMAXCONN;
constexpr unsigned kMostPort = 65535;

bool parsePort(const std::string& text, uint16_t* port) {
  if (text.empty() || text.size() > 5) return false;
  if (!std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return false;
  const unsigned long value = std::stoul(text);
  *port = static_cast<uint16_t>(value);
  return value <= kMostPort;
}

}  // namespace

bool ListenPlace::parse(const std::string& text, std::string* error) {
  const size_t colon = text.rfind(':');
  const std::string host = text.substr(0, colon == std::string::npos ? text.size() : colon);
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  host_ = bracketed ? host.substr(1, host.size() - 2) : host == "localhost" ? "127.0.0.1" : host;
  ipv6_ = bracketed;
  unsigned char address[sizeof(in6_addr)];
  const bool good = colon != std::string::npos && parsePort(text.substr(colon + 1), &port_) &&
                    inet_pton(ipv6_ ? AF_INET6 : AF_INET, host_.c_str(), address) == 1;
  if (good) return true;
  *error = "\"" + text + "\" is no place to listen at: write ADDRESS:PORT, as 127.0.0.1:8420";
  return false;
}

bool ListenPlace::isLoopback() const {
  if (ipv6_) {
    in6_addr address = {};
    inet_pton(AF_INET6, host_.c_str(), &address);
    return IN6_IS_ADDR_LOOPBACK(&address);
  }
  in_addr address = {};
  inet_pton(AF_INET, host_.c_str(), &address);
  return (ntohl(address.s_addr) >> 24) == IN_LOOPBACKNET;
}

UniqueFd ListenPlace::open(std::string* error) {
  sockaddr_storage storage = {};
  auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
  socklen_t size = ipv6_ ? sizeof *v6 : sizeof *v4;
  storage.ss_family = ipv6_ ? AF_INET6 : AF_INET;
  (ipv6_ ? v6->sin6_port : v4->sin_port) = htons(port_);
  inet_pton(storage.ss_family, host_.c_str(),
            ipv6_ ? static_cast<void*>(&v6->sin6_addr) : &v4->sin_addr);
  UniqueFd fd(socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  auto* address = reinterpret_cast<sockaddr*>(&storage);
  const bool good = fd.valid() &&
                    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                    bind(fd.get(), address, size) == 0 && listen(fd.get(), kBacklog) == 0 &&
                    getsockname(fd.get(), address, &size) == 0;
  if (!good) {
    *error = "cannot listen at " + text() + ": " + strerror(errno);
    return UniqueFd();
  }
  port_ = ntohs(ipv6_ ? v6->sin6_port : v4->sin_port);
  return fd;
}

std::string ListenPlace::text() const {
  return (ipv6_ ? "[" + host_ + "]" : host_) + ":" + std::to_string(port_);
}

}  // namespace tarn
