#pragma once

// TCP on 127.0.0.1 for the test servers and fixtures.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace qztest {

// A name whose lookup fails in the resolver itself: a label longer than DNS allows (63 bytes) is
// never sent to a name server, so the failure needs no network.
inline const std::string kUnresolvableHost = std::string(64, 'x') + ".invalid";

inline sockaddr_in LoopbackAddress(uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

// A socket connected to 127.0.0.1:port, without Nagle's delay; -1 when the connection fails.
inline int ConnectLoopback(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in addr = LoopbackAddress(port);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
  }
  if (fd >= 0)
    ::close(fd);
  return -1;
}

// A free TCP port on 127.0.0.1 (bound then released: a small race with other programs remains).
inline int FreeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr = LoopbackAddress(0);
  socklen_t len = sizeof addr;
  int port = 0;
  if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    port = ntohs(addr.sin_port);
  ::close(fd);
  return port;
}

} // namespace qztest
