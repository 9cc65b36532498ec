// httptools ping: ICMP round-trip statistics per host with fping's flags, output layouts and exit
// statuses, and figures beyond fping's (standard deviation, percentiles, jitter, --json).

#include "Commands.h"

#include <HttpTools/icmp/HostStatistics.h>
#include <HttpTools/platform/qzLog.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using qz::icmp::HostStatistics;

// fping's exit statuses.
enum PingExit : int { kAllAlive = 0, kSomeLost = 1, kUnresolved = 2, kBadArguments = 3, kSystemCall = 4 };

struct PingOptions {
  unsigned count = 5, vcount = 0;
  unsigned periodMs = 1000, intervalMs = 10, timeoutMs = 0, size = 56, ttl = 0;
  bool ipv4 = false, ipv6 = false, quiet = false, stats = false, json = false, verbose = false;
  std::vector<std::string> hosts;
};

// Milliseconds as fping prints them: three significant digits below 100 ms.
std::string Ms(double ms) {
  char buf[32];
  const char* format = ms < 1.0 ? "%.3f" : ms < 10.0 ? "%.2f" : ms < 100.0 ? "%.1f" : "%.0f";
  std::snprintf(buf, sizeof buf, format, ms);
  return buf;
}

// What fping's -s adds up over all hosts. As fping counts them, a probe the system refused to send
// (a blackhole or unreachable route) is sent and lost but no time-out: it never waited for a reply.
struct Totals {
  unsigned targets = 0, alive = 0, unknown = 0, timeouts = 0, sent = 0, replies = 0;
  double minMs = 0, avgMs = 0, maxMs = 0, elapsedS = 0;
};

Totals AddUp(const std::vector<HostStatistics>& stats, double elapsedS) {
  Totals t;
  t.elapsedS = elapsedS;
  double sum = 0;
  for (const HostStatistics& h : stats) {
    if (h.errorKind == HostStatistics::EK_Resolve) {
      ++t.unknown;
      continue;
    }
    ++t.targets;
    t.alive += h.received > 0;
    t.sent += h.sent;
    t.timeouts += h.timeouts;
    const unsigned replies = h.received + h.duplicates;
    if (!replies)
      continue;
    t.minMs = t.replies ? std::min(t.minMs, h.minMs) : h.minMs;
    t.maxMs = std::max(t.maxMs, h.maxMs);
    sum += h.avgMs * replies;
    t.replies += replies;
  }
  t.avgMs = t.replies ? sum / t.replies : 0;
  return t;
}

void PrintTotals(const Totals& t) {
  std::printf("\n %7u targets\n %7u alive\n %7u unreachable\n %7u unknown addresses\n\n", t.targets, t.alive,
              t.targets - t.alive, t.unknown);
  std::printf(" %7u timeouts (waiting for response)\n %7u ICMP Echos sent\n %7u ICMP Echo Replies received\n"
              " %7u other ICMP received\n\n",
              t.timeouts, t.sent, t.replies, 0u);
  std::printf(" %s ms (min round trip time)\n %s ms (avg round trip time)\n %s ms (max round trip time)\n"
              " %12.3f sec (elapsed real time)\n\n",
              Ms(t.minMs).c_str(), Ms(t.avgMs).c_str(), Ms(t.maxMs).c_str(), t.elapsedS);
}

const char* KindName(HostStatistics::ErrorKind kind) {
  switch (kind) {
  case HostStatistics::EK_Resolve:
    return "resolve";
  case HostStatistics::EK_Socket:
    return "socket";
  case HostStatistics::EK_Options:
    return "options";
  default:
    return "none";
  }
}

std::string Json(const std::vector<HostStatistics>& stats, const PingOptions& o, const Totals& totals) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
  // Times to the nanosecond: no digits of binary noise.
  auto ms = [](double v) { return std::round(v * 1e6) / 1e6; };
  auto number = [&](const char* key, double v) {
    w.Key(key);
    w.Double(ms(v));
  };
  w.StartObject();
  w.Key("hosts");
  w.StartArray();
  for (const HostStatistics& h : stats) {
    w.StartObject();
    w.Key("host");
    w.String(h.host.c_str());
    if (!h.error.empty()) {
      w.Key("error");
      w.String(h.error.c_str());
      w.Key("error_kind");
      w.String(KindName(h.errorKind));
      w.EndObject();
      continue;
    }
    w.Key("address");
    w.String(h.address.getAddressAsString(false).c_str());
    w.Key("sent");
    w.Uint(h.sent);
    w.Key("received");
    w.Uint(h.received);
    w.Key("duplicates");
    w.Uint(h.duplicates);
    number("loss_percent", h.lossPercent);
    if (h.received) {
      number("min_ms", h.minMs);
      number("avg_ms", h.avgMs);
      number("max_ms", h.maxMs);
      number("mdev_ms", h.mdevMs);
      number("stddev_ms", h.stddevMs);
      number("p50_ms", h.p50Ms);
      number("p90_ms", h.p90Ms);
      number("p99_ms", h.p99Ms);
      number("jitter_ms", h.jitterMs);
    }
    if (o.vcount) {
      w.Key("rtts_ms");
      w.StartArray();
      for (const std::optional<double>& t : h.probeMs)
        t ? w.Double(ms(*t)) : w.Null();
      w.EndArray();
    }
    w.EndObject();
  }
  w.EndArray();
  // fping's -s figures: timeouts the probes given up unanswered (not the refused sends), sent every
  // probe sent or refused, received the echo replies, duplicates included.
  if (o.stats) {
    w.Key("stats");
    w.StartObject();
    const std::pair<const char*, unsigned> counts[] = {{"targets", totals.targets},
                                                       {"alive", totals.alive},
                                                       {"unreachable", totals.targets - totals.alive},
                                                       {"unknown_addresses", totals.unknown},
                                                       {"timeouts", totals.timeouts},
                                                       {"sent", totals.sent},
                                                       {"received", totals.replies}};
    for (const auto& [key, value] : counts) {
      w.Key(key);
      w.Uint(value);
    }
    number("min_ms", totals.minMs);
    number("avg_ms", totals.avgMs);
    number("max_ms", totals.maxMs);
    number("elapsed_s", totals.elapsedS);
    w.EndObject();
  }
  w.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

int ExitStatus(const std::vector<HostStatistics>& stats) {
  int status = kAllAlive;
  for (const HostStatistics& h : stats)
    if (h.errorKind == HostStatistics::EK_Socket)
      return kSystemCall;
    else if (h.errorKind == HostStatistics::EK_Options)
      status = std::max<int>(status, kBadArguments);
    else if (h.errorKind == HostStatistics::EK_Resolve)
      status = std::max<int>(status, kUnresolved);
    else if (h.received == 0)
      status = std::max<int>(status, kSomeLost);
  return status;
}

void RunPing(const PingOptions& o) {
  httptools::verbose = o.verbose; // the library's log lines only with -v
  qz::icmp::ProbeOptions po;
  po.count = o.vcount ? o.vcount : o.count;
  po.periodMs = o.periodMs;
  po.intervalMs = o.intervalMs;
  // fping's default in count mode: the period, up to 2 s.
  po.timeoutMs = o.timeoutMs ? o.timeoutMs : std::min(o.periodMs, 2000u);
  po.payloadSize = o.size;
  po.ttl = o.ttl;
  po.family = o.ipv4 ? qz::IpAddress::IPT_IPv4 : o.ipv6 ? qz::IpAddress::IPT_IPv6 : qz::IpAddress::IPT_None;

  // Names padded to the longest, as fping pads them; a name that does not resolve is left out.
  std::vector<std::string> names = o.hosts;
  size_t width = 0;
  for (const std::string& name : names)
    width = std::max(width, name.size());
  for (std::string& name : names)
    name.resize(width, ' ');
  // Per-probe lines as replies come in, with the host's running average and loss.
  struct Running {
    unsigned received = 0;
    double sumMs = 0;
  };
  std::vector<Running> running(o.hosts.size());
  const bool perProbe = !o.quiet && !o.json;
  if (perProbe)
    po.onProbe = [&](size_t host, unsigned probe, std::optional<double> rttMs) {
      Running& r = running[host];
      if (rttMs) {
        ++r.received;
        r.sumMs += *rttMs;
      }
      const unsigned loss = (probe + 1 - r.received) * 100 / (probe + 1);
      const std::string avg = r.received ? Ms(r.sumMs / r.received) : "NaN";
      if (rttMs)
        std::printf("%s : [%u], %u bytes, %s ms (%s avg, %u%% loss)\n", names[host].c_str(), probe, o.size + 8,
                    Ms(*rttMs).c_str(), avg.c_str(), loss);
      else
        std::printf("%s : [%u], timed out (%s avg, %u%% loss)\n", names[host].c_str(), probe, avg.c_str(), loss);
      std::fflush(stdout);
    };

  qz::icmp::HostStatisticsRetriever retriever(o.hosts, po);
  std::vector<HostStatistics> stats;
  const auto began = std::chrono::steady_clock::now();
  retriever.retrieve(stats, httptools::InterruptFlag());
  const Totals totals = AddUp(stats, std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count());
  httptools::exitCode = ExitStatus(stats);

  for (const HostStatistics& h : stats)
    if (!h.error.empty())
      std::fprintf(stderr, "%s: %s\n", h.host.c_str(), h.error.c_str());
  if (o.verbose)
    for (auto [family, label] : {std::pair{qz::IpAddress::IPT_IPv4, "IPv4"}, {qz::IpAddress::IPT_IPv6, "IPv6"}})
      if (const int kind = retriever.socketKind(family))
        std::fprintf(stderr, "httptools: %s probes on a %s socket\n", label,
                     kind == qz::icmp::HostStatisticsRetriever::SK_Raw ? "raw" : "datagram");
  if (o.json) {
    std::fputs(Json(stats, o, totals).c_str(), stdout);
    return;
  }
  if (perProbe && totals.sent)
    std::printf("\n");
  for (size_t i = 0; i < stats.size(); ++i) {
    const HostStatistics& h = stats[i];
    if (!h.error.empty())
      continue;
    std::string line = names[i] + " :";
    if (o.vcount) {
      for (const std::optional<double>& t : h.probeMs)
        line += " " + (t ? Ms(*t) : std::string("-"));
    } else {
      line += " xmt/rcv/%loss = " + std::to_string(h.sent) + "/" + std::to_string(h.received) + "/" +
              std::to_string(h.sent ? (h.sent - h.received) * 100 / h.sent : 0) + "%";
      if (h.received)
        line += ", min/avg/max = " + Ms(h.minMs) + "/" + Ms(h.avgMs) + "/" + Ms(h.maxMs) +
                ", stddev = " + Ms(h.stddevMs) + ", p50/p90/p99 = " + Ms(h.p50Ms) + "/" + Ms(h.p90Ms) + "/" +
                Ms(h.p99Ms) + ", jitter = " + Ms(h.jitterMs);
    }
    std::printf("%s\n", line.c_str());
  }
  if (o.stats)
    PrintTotals(totals);
  std::fflush(stdout);
}

} // namespace

void httptools::AddPingCommand(CLI::App& app) {
  auto o = std::make_shared<PingOptions>();
  CLI::App* cmd = app.add_subcommand(
      "ping", "ICMP echo round-trip statistics per host, with fping's options, layouts and exit statuses");
  // fping's exit statuses for this command, bad arguments included.
  cmd->preparse_callback([](size_t) { httptools::usageExitCode = kBadArguments; });
  cmd->add_option("-c,--count", o->count, "probes per host")->check(CLI::Range(1u, 100000u))->capture_default_str();
  cmd->add_option("-C,--vcount", o->vcount, "as -c, and print each probe's round-trip time in fping's -C layout")
      ->check(CLI::Range(1u, 100000u));
  cmd->add_option("-p,--period", o->periodMs, "milliseconds between two probes to one host")
      ->check(CLI::Range(0u, 3600000u))
      ->capture_default_str();
  cmd->add_option("-i,--interval", o->intervalMs,
                  "milliseconds between any two probes (fping's meaning; before this release -i was the period, "
                  "now -p)")
      ->check(CLI::Range(0u, 3600000u))
      ->capture_default_str();
  cmd->add_option("-t,-W,--timeout", o->timeoutMs,
                  "milliseconds a probe waits for its reply (default: the period, up to 2000); -W is the "
                  "earlier name, kept as an alias")
      ->check(CLI::Range(1u, 3600000u));
  cmd->add_option("-b,--size", o->size, "payload bytes of each probe")
      ->check(CLI::Range(0u, qz::icmp::ProbeOptions::kMaxPayloadSize))
      ->capture_default_str();
  cmd->add_option("-H,--ttl", o->ttl, "IPv4 time to live or IPv6 hop limit of the probes")->check(CLI::Range(1u, 255u));
  CLI::Option* v4 = cmd->add_flag("-4,--ipv4", o->ipv4, "IPv4 addresses only");
  cmd->add_flag("-6,--ipv6", o->ipv6, "IPv6 addresses only")->excludes(v4);
  cmd->add_flag("-q,--quiet", o->quiet, "no line per probe, the summary only");
  cmd->add_flag("-s,--stats", o->stats, "the cumulative statistics of all hosts after the summary");
  cmd->add_flag("--json", o->json,
                "one JSON document instead of the text: each host's figures (with -C, each probe's time or "
                "null; with -s, the totals)");
  cmd->add_flag("-v,--verbose", o->verbose,
                "the library's log lines and the socket kinds on standard error (not fping's -v: see "
                "httptools --version)");
  cmd->add_option("hosts", o->hosts, "host names or addresses (IPv4 and IPv6)")->required();
  cmd->footer("Exit status (fping's): 0 every host answered, 1 some host did not answer at all, 2 a name did "
              "not resolve, 3 bad arguments, 4 a system call failed (no ICMP socket).\n"
              "Per-probe lines, summaries and -s go to standard output, errors to standard error.");
  cmd->callback([o] { RunPing(*o); });
}
