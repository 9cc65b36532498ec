#pragma once

// Echo packets, the reply parser and the statistics of one round, kept apart from the sockets so
// that tests and the fuzz target reach them directly.

#include <HttpTools/icmp/HostStatistics.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace qz::icmp::impl {

// What a receiving socket hands over: a raw IPv4 socket gives the IP header too, an IPv4
// datagram socket and both IPv6 sockets give the ICMP message alone.
enum class ReplyLayout { IPv4WithHeader, IPv4Datagram, IPv6 };

struct EchoReply {
  uint16_t identifier = 0;
  uint16_t sequence = 0;
  const unsigned char* payload = nullptr; // points into the parsed buffer
  size_t payloadSize = 0;
};

constexpr size_t kHeaderSize = 8;   // type, code, checksum, identifier, sequence
constexpr size_t kPayloadSize = 56; // what ping and fping send by default
constexpr size_t kTagSize = 16;     // a ProbeTag; smaller payloads carry the filler alone

// True for a well-formed echo reply (IPv4 checksums are verified; the kernel checks ICMPv6's).
bool ParseEchoReply(const unsigned char* data, size_t size, ReplyLayout layout, EchoReply& out);

// The one's-complement sum of RFC 1071, ready to store in network order.
uint16_t InternetChecksum(const unsigned char* data, size_t size);

// Writes an echo request (header and payload) into `out`, which holds kHeaderSize + payloadSize
// bytes; IPv4 gets its checksum, the kernel fills ICMPv6's.
void BuildEchoRequest(bool ipv6, uint16_t identifier, uint16_t sequence, const unsigned char* payload,
                      size_t payloadSize, unsigned char* out);

// What a probe's payload carries so that its reply finds it again.
struct ProbeTag {
  uint64_t token = 0; // random per round: replies to other rounds and processes are not ours
  uint32_t host = 0;
  uint32_t probe = 0;
};
// `size` bytes: the tag when there is room for it, a fixed filler after it.
void WritePayload(const ProbeTag& tag, unsigned char* out, size_t size = kPayloadSize);
// True when `size` is `expected` and the filler is intact; the tag is read when there is one.
bool ReadPayload(const unsigned char* payload, size_t size, ProbeTag& tag, size_t expected = kPayloadSize);

// Integer square root by Newton's method, as iputils ping takes it (sqrt(a + 1) when a + 1 is a square).
long long IntegerSqrt(long long a);

// Fills sent, received, duplicates, loss and min/avg/max/mdev from round-trip times in whole
// microseconds (replies and duplicates alike), the way iputils ping computes them.
void ComputeStatistics(const std::vector<long long>& rttUs, unsigned sent, unsigned received, unsigned duplicates,
                       HostStatistics& out);
// Fills probeMs, stddev, the percentiles and jitter from each sent probe's time in whole
// microseconds (nothing for a lost one).
void ComputeProbeFigures(const std::vector<std::optional<long long>>& probeUs, HostStatistics& out);

// The probes of one round and what came back for them.
class ProbeBook {
public:
  // TimedOut: the reply came past the deadline of a probe not yet given up, which is lost now;
  // Late: it came for a probe given up before.
  enum Outcome { Matched, Duplicate, TimedOut, Late, Unknown };

  ProbeBook(size_t hosts, unsigned count);

  // A probe left at `sentNs` on the wall clock and expires at `deadlineMs` on the monotonic
  // clock; one the system `refused` is lost at once. A host's probes leave in order, their
  // deadlines never decreasing.
  void markSent(size_t host, unsigned probe, uint16_t sequence, int64_t sentNs, int64_t deadlineMs,
                bool refused = false);
  // A reply for (host, probe) with this sequence number came in at `receivedNs` (wall clock);
  // a match or duplicate leaves its time in `*rttUs`.
  Outcome record(size_t host, unsigned probe, uint16_t sequence, int64_t receivedNs, int64_t nowMs,
                 long long* rttUs = nullptr);
  // Marks probes unanswered at `nowMs` past their deadline as lost, telling `onLost` of each.
  void expire(int64_t nowMs, const std::function<void(size_t host, unsigned probe)>& onLost = {});
  bool hasPending() const { return m_pending > 0; }
  // The earliest deadline of a pending probe; INT64_MAX when none is pending.
  int64_t nextDeadline() const;

  void fill(size_t host, HostStatistics& out) const;

private:
  enum State : unsigned char { Unsent, Pending, Answered, Expired };
  struct Probe {
    uint16_t sequence = 0;
    State state = Unsent;
    int64_t sentNs = 0;
    int64_t deadlineMs = 0;
    long long rttUs = 0; // of the first reply
  };
  struct Host {
    std::vector<Probe> probes;
    std::vector<long long> rttUs;
    unsigned sent = 0, received = 0, duplicates = 0, timeouts = 0;
    size_t open = 0; // the probes before this one are answered or lost
  };
  std::vector<Host> m_hosts;
  size_t m_pending = 0;
};

} // namespace qz::icmp::impl
