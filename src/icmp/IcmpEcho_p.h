#pragma once

// Echo packets, the reply parser and the statistics of one round, kept apart from the sockets so
// that tests and the fuzz target reach them directly.

#include <HttpTools/icmp/HostStatistics.h>

#include <cstddef>
#include <cstdint>
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
void WritePayload(const ProbeTag& tag, unsigned char* out); // kPayloadSize bytes
bool ReadPayload(const unsigned char* payload, size_t size, ProbeTag& tag);

// Integer square root by Newton's method, as iputils ping takes it (sqrt(a + 1) when a + 1 is a square).
long long IntegerSqrt(long long a);

// Fills sent, received, duplicates, loss and min/avg/max/mdev from round-trip times in whole
// microseconds (replies and duplicates alike), the way iputils ping computes them.
void ComputeStatistics(const std::vector<long long>& rttUs, unsigned sent, unsigned received, unsigned duplicates,
                       HostStatistics& out);

// The probes of one round and what came back for them.
class ProbeBook {
public:
  enum Outcome { Matched, Duplicate, Late, Unknown };

  ProbeBook(size_t hosts, unsigned count);

  // A probe left (or failed to: it is lost all the same) at `sentNs` on the wall clock and
  // expires at `deadlineMs` on the monotonic clock. A host's probes leave in order, their
  // deadlines never decreasing.
  void markSent(size_t host, unsigned probe, uint16_t sequence, int64_t sentNs, int64_t deadlineMs);
  // A reply for (host, probe) with this sequence number came in at `receivedNs` (wall clock).
  Outcome record(size_t host, unsigned probe, uint16_t sequence, int64_t receivedNs, int64_t nowMs);
  // Marks probes unanswered at `nowMs` past their deadline as lost.
  void expire(int64_t nowMs);
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
  };
  struct Host {
    std::vector<Probe> probes;
    std::vector<long long> rttUs;
    unsigned sent = 0, received = 0, duplicates = 0;
    size_t open = 0; // the probes before this one are answered or lost
  };
  std::vector<Host> m_hosts;
  size_t m_pending = 0;
};

} // namespace qz::icmp::impl
