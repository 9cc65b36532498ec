// httptools ping: ICMP round-trip statistics per host, one summary line each as fping -c prints it.

#include "Commands.h"

#include <HttpTools/icmp/HostStatistics.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

struct PingOptions {
  unsigned count = 5;
  unsigned intervalMs = 200;
  unsigned timeoutMs = 1000;
  std::vector<std::string> hosts;
};

// Milliseconds with fping's precision: three significant digits below 100 ms.
std::string Ms(double ms) {
  char buf[32];
  if (ms < 1.0)
    std::snprintf(buf, sizeof buf, "%.3f", ms);
  else if (ms < 10.0)
    std::snprintf(buf, sizeof buf, "%.2f", ms);
  else if (ms < 100.0)
    std::snprintf(buf, sizeof buf, "%.1f", ms);
  else
    std::snprintf(buf, sizeof buf, "%.0f", ms);
  return buf;
}

void RunPing(const PingOptions& o) {
  qz::icmp::HostStatisticsRetriever retriever(o.hosts, o.count, o.intervalMs, o.timeoutMs);
  std::vector<qz::icmp::HostStatistics> stats;
  retriever.retrieve(stats, nullptr);
  size_t width = 0;
  for (const auto& h : stats)
    width = std::max(width, h.host.size());
  bool allAnswered = true;
  for (const auto& h : stats) {
    std::string name = h.host;
    name.resize(width, ' ');
    if (!h.error.empty()) {
      std::cerr << name << " : " << h.error << "\n";
      allAnswered = false;
      continue;
    }
    const unsigned loss = h.sent ? (h.sent - h.received) * 100 / h.sent : 0;
    std::cout << name << " : xmt/rcv/%loss = " << h.sent << "/" << h.received << "/" << loss << "%";
    if (h.received)
      std::cout << ", min/avg/max = " << Ms(h.minMs) << "/" << Ms(h.avgMs) << "/" << Ms(h.maxMs);
    std::cout << "\n";
    if (h.received == 0)
      allAnswered = false;
  }
  std::cout.flush();
  httptools::exitCode = allAnswered ? 0 : 1;
}

} // namespace

void httptools::AddPingCommand(CLI::App& app) {
  auto opts = std::make_shared<PingOptions>();
  CLI::App* cmd =
      app.add_subcommand("ping", "ICMP echo round-trip statistics per host (exit 1 when a host had 100% loss)");
  cmd->add_option("-c,--count", opts->count, "probes per host")->check(CLI::Range(1u, 100000u))->capture_default_str();
  cmd->add_option("-i,--interval", opts->intervalMs, "milliseconds between a host's probes")
      ->check(CLI::Range(0u, 3600000u))
      ->capture_default_str();
  cmd->add_option("-W,--timeout", opts->timeoutMs, "milliseconds a probe waits for its reply")
      ->check(CLI::Range(1u, 3600000u))
      ->capture_default_str();
  cmd->add_option("hosts", opts->hosts, "host names or addresses (IPv4 and IPv6)")->required();
  cmd->callback([opts] { RunPing(*opts); });
}
