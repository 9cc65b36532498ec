#pragma once

#include <HttpTools/platform/Export.h>
#include <HttpTools/url/IpAddress.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qz::icmp {

/// Round-trip statistics of one host, in the terms iputils ping reports them, and figures beyond.
struct HostStatistics {
  std::string host;        ///< as given
  qz::IpAddress address;   ///< the address probed (the first one the name resolved to)
  unsigned sent = 0;       ///< probes sent
  unsigned received = 0;   ///< probes answered (duplicates not counted)
  unsigned duplicates = 0; ///< extra replies to a probe already answered
  /// Probes given up unanswered after the timeout; not those the system refused to send (lost,
  /// never waited for) nor those still waiting when the round was cancelled.
  unsigned timeouts = 0;
  double lossPercent = 0; ///< share of the probes sent that got no reply
  /// Round-trip times in ms over the answered probes: minimum, mean, maximum, and the mean
  /// deviation as iputils ping computes it. 0 when nothing was received.
  ///@{
  double minMs = 0, avgMs = 0, maxMs = 0, mdevMs = 0;
  ///@}
  std::string error; ///< empty when probes ran; otherwise why not (the counts then stay 0)

  /// Why `error` is set: the name, no socket for the host's family, or options the round refused.
  enum ErrorKind : int { EK_None = 0, EK_Resolve = 1, EK_Socket = 2, EK_Options = 3 };
  ErrorKind errorKind = EK_None; ///< EK_None when probes ran
  /// Over the first reply of each answered probe (duplicates left out): the population standard
  /// deviation, nearest-rank percentiles, and the jitter, the mean absolute difference of the
  /// round-trip times of consecutive answered probes. 0 when fewer replies than they need.
  ///@{
  double stddevMs = 0, p50Ms = 0, p90Ms = 0, p99Ms = 0, jitterMs = 0;
  ///@}
  /// Each probe sent, in order: its round-trip time, or nothing when it was lost.
  std::vector<std::optional<double>> probeMs;
};

/// How a round probes. The defaults are those of the constructor that takes the counts alone.
struct ProbeOptions {
  unsigned count = 5;        ///< probes per host
  unsigned periodMs = 200;   ///< between two probes to one host
  unsigned intervalMs = 0;   ///< between any two probes; 0 sends a probe to every host at once
  unsigned timeoutMs = 1000; ///< a probe unanswered this long is lost
  unsigned payloadSize = 56; ///< data bytes after the 8-byte ICMP header, up to kMaxPayloadSize
  unsigned ttl = 0;          ///< IPv4 time to live or IPv6 hop limit, 1 to 255; 0 leaves the system's
  /// IPT_IPv4 or IPT_IPv6: names resolve to that family only and addresses of the other are refused.
  qz::IpAddress::Type family = qz::IpAddress::IPT_None;
  /// Called on the round's thread as a probe is answered (with its round-trip time) or times out
  /// (without); a probe the system refused to send is counted lost without a call. `host` indexes
  /// the host list. May not call back into the retriever.
  std::function<void(size_t host, unsigned probe, std::optional<double> rttMs)> onProbe;

  static constexpr unsigned kMaxPayloadSize = 65507; ///< the largest an IPv4 datagram carries
};

/// Sends ICMP echo requests to a list of hosts from one socket per address family and gathers
/// each host's loss and round-trip times. Unprivileged datagram sockets are tried first, raw
/// sockets (root or CAP_NET_RAW) next. Another thread that sets a cancel flag must store it
/// atomically: std::atomic_ref<bool>(flag).store(true).
class HTTPTOOLS_API HostStatisticsRetriever {
public:
  /// The kind of ICMP socket a round opened.
  enum SocketKind : int { SK_None = 0, SK_Datagram = 1, SK_Raw = 2 };

  /// `count` probes per host, one every `intervalMs`; a probe unanswered after `timeoutMs` is lost.
  HostStatisticsRetriever(std::vector<std::string> hosts, unsigned count = 5, unsigned intervalMs = 200,
                          unsigned timeoutMs = 1000);
  /// `options` as ProbeOptions documents them; options out of range fail each host with EK_Options.
  HostStatisticsRetriever(std::vector<std::string> hosts, ProbeOptions options);
  ~HostStatisticsRetriever(); ///< stops the worker
  HostStatisticsRetriever(const HostStatisticsRetriever&) = delete;
  HostStatisticsRetriever& operator=(const HostStatisticsRetriever&) = delete;

  /// One round on the caller's thread. False when no host could be probed (names that do not
  /// resolve, no socket, options out of range: each host's `error` says why) or when `*cancel`
  /// became true.
  bool retrieve(std::vector<HostStatistics>& out, const bool* cancel);

  /// Runs a round every `periodMs` on a worker thread and hands each result to `onRound` (on that
  /// thread). False when a worker already runs or `onRound` is empty. `onRound` may call stop().
  bool start(std::function<void(const std::vector<HostStatistics>&)> onRound, unsigned periodMs);
  /// Cancels the round in progress and waits for the worker to end.
  void stop();
  bool isRunning() const; ///< true between start() and stop() (or the worker's end)

  /// The kind of socket the last round used for IPT_IPv4 or IPT_IPv6 (SK_None: none opened or needed).
  SocketKind socketKind(qz::IpAddress::Type family) const;

private:
  struct Impl;
  std::unique_ptr<Impl> m_d;
};

} // namespace qz::icmp
