// The river's metrics and health over HTTP, for Prometheus and load balancers.
#pragma once

#include <HttpTools/river/River.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace httptools {

// The rivers' figures in the Prometheus text exposition format (version 0.0.4), one sample per
// river labelled `river`; behind_changes only for rivers whose server tells it.
std::string MetricsText(const std::vector<qz::river::RiverStatus>& rivers);
// Every river this process holds had its last cycle succeed (holding none is healthy).
bool Healthy(const std::vector<qz::river::RiverStatus>& rivers);

// Serves GET /metrics and GET /healthz on HOST:PORT ("[::1]:9100" for IPv6) from a thread of its
// own; the figures come from `status` at each request.
class MetricsServer {
public:
  explicit MetricsServer(std::function<std::vector<qz::river::RiverStatus>()> status);
  ~MetricsServer(); // stops
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  // False with a message when HOST:PORT is malformed or cannot be bound.
  bool start(const std::string& hostPort, std::string& error);
  void stop();
  int port() const { return m_port; } // the bound port (PORT 0 picks a free one)

private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  int m_port = 0;
};

} // namespace httptools
