// httptools river --metrics: Prometheus exposition and a health check on cpp-httplib.
#include "RiverMetrics.h"

#include <httplib.h>

#include <cmath>
#include <cstdio>
#include <thread>

namespace httptools {

namespace {

// A label value with backslash, double quote and newline escaped.
std::string LabelValue(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\' || c == '"')
      out += '\\';
    out += c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return out;
}

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

} // namespace

std::string MetricsText(const std::vector<qz::river::RiverStatus>& rivers) {
  using Status = qz::river::RiverStatus;
  struct Family {
    const char *name, *type, *help;
    std::function<double(const Status&)> value; // NaN: no sample
  };
  const Family families[] = {
      {"httptools_river_indexed_total", "counter", "Documents indexed since start.",
       [](const Status& s) { return double(s.indexed); }},
      {"httptools_river_deleted_total", "counter", "Documents deleted from the index since start.",
       [](const Status& s) { return double(s.deleted); }},
      {"httptools_river_rejected_total", "counter", "Documents Elasticsearch refused for good since start.",
       [](const Status& s) { return double(s.rejected + s.failed); }}, // dead letters, and those that stopped it
      {"httptools_river_retries_total", "counter", "Items sent again after 429, 503 or a lost connection.",
       [](const Status& s) { return double(s.retries); }},
      // Gauges only for the rivers this process holds: their holder reports the others.
      {"httptools_river_lag_seconds", "gauge",
       "Seconds since the oldest change not yet acknowledged was read; 0 when caught up.",
       [](const Status& s) { return s.waitingForLease ? NAN : s.lagSeconds; }},
      {"httptools_river_behind_changes", "gauge", "Changes of the database not yet acknowledged.",
       [](const Status& s) { return s.waitingForLease || s.behindChanges < 0 ? NAN : double(s.behindChanges); }},
  };
  std::string out;
  for (const Family& f : families) {
    out += std::string("# HELP ") + f.name + " " + f.help + "\n# TYPE " + f.name + " " + f.type + "\n";
    for (const Status& s : rivers)
      if (const double v = f.value(s); !std::isnan(v))
        out += std::string(f.name) + "{river=\"" + LabelValue(s.name) + "\"} " + Number(v) + "\n";
  }
  return out;
}

bool Healthy(const std::vector<qz::river::RiverStatus>& rivers) {
  for (const auto& s : rivers)
    if (!s.waitingForLease && s.failures > 0)
      return false;
  return true;
}

struct MetricsServer::Impl {
  httplib::Server server;
  std::thread thread;
};

MetricsServer::MetricsServer(std::function<std::vector<qz::river::RiverStatus>()> status)
    : m_impl(std::make_unique<Impl>()) {
  m_impl->server.Get("/metrics", [status](const httplib::Request&, httplib::Response& res) {
    res.set_content(MetricsText(status()), "text/plain; version=0.0.4; charset=utf-8");
  });
  m_impl->server.Get("/healthz", [status](const httplib::Request&, httplib::Response& res) {
    std::string failing;
    const auto rivers = status();
    for (const auto& s : rivers)
      if (!s.waitingForLease && s.failures > 0)
        failing += s.name + ": " + s.error + "\n";
    res.status = Healthy(rivers) ? 200 : 503;
    res.set_content(failing.empty() ? "ok\n" : failing, "text/plain; charset=utf-8");
  });
}

MetricsServer::~MetricsServer() { stop(); }

bool MetricsServer::start(const std::string& hostPort, std::string& error) {
  const size_t colon = hostPort.rfind(':');
  std::string host = colon == std::string::npos ? std::string() : hostPort.substr(0, colon);
  const std::string port = colon == std::string::npos ? std::string() : hostPort.substr(colon + 1);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  if (host.empty() || port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
      std::stoi(port) > 65535) {
    error = "--metrics wants HOST:PORT, not '" + hostPort + "'";
    return false;
  }
  m_port = std::stoi(port);
  if (m_port == 0)
    m_port = m_impl->server.bind_to_any_port(host);
  else if (!m_impl->server.bind_to_port(host, m_port))
    m_port = -1;
  if (m_port <= 0) {
    error = "cannot listen on " + hostPort;
    return false;
  }
  m_impl->thread = std::thread([this] { m_impl->server.listen_after_bind(); });
  return true;
}

void MetricsServer::stop() {
  if (!m_impl->thread.joinable())
    return;
  m_impl->server.stop();
  m_impl->thread.join();
}

} // namespace httptools
