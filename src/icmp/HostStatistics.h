#pragma once

#include <HttpTools/platform/Export.h>
#include <HttpTools/url/IpAddress.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qz::icmp {

// Round-trip statistics of one host, in the terms iputils ping reports them.
struct HostStatistics {
  std::string host;      // as given
  qz::IpAddress address; // the address probed (the first one the name resolved to)
  unsigned sent = 0, received = 0, duplicates = 0;
  double lossPercent = 0, minMs = 0, avgMs = 0, maxMs = 0, mdevMs = 0;
  std::string error; // empty when probes ran; otherwise why not (the counts then stay 0)
};

// Another thread that sets a cancel flag must store it atomically: std::atomic_ref<bool>(flag).store(true).
// Sends ICMP echo requests to a list of hosts, all at once from one socket per address family,
// and gathers each host's loss and round-trip times. Unprivileged datagram sockets are tried
// first, raw sockets (root or CAP_NET_RAW) next.
class HTTPTOOLS_API HostStatisticsRetriever {
public:
  enum SocketKind : int { SK_None = 0, SK_Datagram = 1, SK_Raw = 2 };

  // `count` probes per host, one every `intervalMs`; a probe unanswered after `timeoutMs` is lost.
  HostStatisticsRetriever(std::vector<std::string> hosts, unsigned count = 5, unsigned intervalMs = 200,
                          unsigned timeoutMs = 1000);
  ~HostStatisticsRetriever(); // stops the worker
  HostStatisticsRetriever(const HostStatisticsRetriever&) = delete;
  HostStatisticsRetriever& operator=(const HostStatisticsRetriever&) = delete;

  // One round on the caller's thread. False when no host could be probed (names that do not
  // resolve, no socket: each host's `error` says why) or when `*cancel` became true.
  bool retrieve(std::vector<HostStatistics>& out, const bool* cancel);

  // Runs a round every `periodMs` on a worker thread and hands each result to `onRound` (on that
  // thread). False when a worker already runs or `onRound` is empty. `onRound` may call stop().
  bool start(std::function<void(const std::vector<HostStatistics>&)> onRound, unsigned periodMs);
  // Cancels the round in progress and waits for the worker to end.
  void stop();
  bool isRunning() const;

  // The kind of socket the last round used for IPT_IPv4 or IPT_IPv6 (SK_None: none opened or needed).
  SocketKind socketKind(qz::IpAddress::Type family) const;

private:
  struct Impl;
  std::unique_ptr<Impl> m_d;
};

} // namespace qz::icmp
