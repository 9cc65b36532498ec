#pragma once

#include "support/Loopback.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qztest {

// A loopback listener whose connections are accepted (by the kernel, or by accepted()) and never
// answered: a request to it waits until cut.
class SilentListener {
public:
  SilentListener() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
    sockaddr_in a = LoopbackAddress(0);
    socklen_t len = sizeof a;
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&a), len) != 0 || listen(m_fd, 8) != 0 ||
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
      ADD_FAILURE() << "cannot listen on 127.0.0.1";
    m_port = ntohs(a.sin_port);
  }
  ~SilentListener() {
    for (int fd : m_accepted)
      close(fd);
    close(m_fd);
  }
  SilentListener(const SilentListener&) = delete;
  SilentListener& operator=(const SilentListener&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/"; }
  // Takes the connections waiting, kept open; how many were taken so far.
  size_t accepted() {
    for (int fd; (fd = accept(m_fd, nullptr, nullptr)) >= 0;)
      m_accepted.push_back(fd);
    return m_accepted.size();
  }

private:
  int m_fd;
  int m_port = 0;
  std::vector<int> m_accepted;
};

} // namespace qztest
