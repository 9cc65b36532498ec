#include "IcmpEcho_p.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>

namespace qz::icmp::impl {

namespace {

constexpr unsigned char kEchoReplyV4 = 0, kEchoRequestV4 = 8;
constexpr unsigned char kEchoReplyV6 = 129, kEchoRequestV6 = 128;

uint16_t Get16(const unsigned char* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
void Put16(unsigned char* p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v);
}
void Put32(unsigned char* p, uint32_t v) {
  Put16(p, static_cast<uint16_t>(v >> 16));
  Put16(p + 2, static_cast<uint16_t>(v));
}
uint32_t Get32(const unsigned char* p) { return uint32_t{Get16(p)} << 16 | Get16(p + 2); }
// The bytes after the tag: a fixed pattern, so that a mangled reply is told apart.
unsigned char Filler(size_t i) { return static_cast<unsigned char>(0x20 + i); }

} // namespace

uint16_t InternetChecksum(const unsigned char* data, size_t size) {
  uint32_t sum = 0;
  size_t i = 0;
  for (; i + 1 < size; i += 2)
    sum += Get16(data + i);
  if (i < size)
    sum += uint32_t{data[i]} << 8;
  while (sum >> 16)
    sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

bool ParseEchoReply(const unsigned char* data, size_t size, ReplyLayout layout, EchoReply& out) {
  if (!data)
    return false;
  if (layout == ReplyLayout::IPv4WithHeader) {
    if (size < 20 || data[0] >> 4 != 4 || data[9] != 1) // version 4, protocol ICMP
      return false;
    const size_t headerSize = size_t{data[0] & 0x0fu} * 4;
    const size_t total = Get16(data + 2);
    if (headerSize < 20 || total < headerSize || total > size)
      return false;
    data += headerSize;
    size = total - headerSize;
  }
  if (size < kHeaderSize || data[1] != 0)
    return false;
  if (layout == ReplyLayout::IPv6) {
    if (data[0] != kEchoReplyV6)
      return false;
  } else if (data[0] != kEchoReplyV4 || InternetChecksum(data, size) != 0) {
    return false;
  }
  out.identifier = Get16(data + 4);
  out.sequence = Get16(data + 6);
  out.payload = data + kHeaderSize;
  out.payloadSize = size - kHeaderSize;
  return true;
}

void BuildEchoRequest(bool ipv6, uint16_t identifier, uint16_t sequence, const unsigned char* payload,
                      size_t payloadSize, unsigned char* out) {
  out[0] = ipv6 ? kEchoRequestV6 : kEchoRequestV4;
  out[1] = 0;
  Put16(out + 2, 0);
  Put16(out + 4, identifier);
  Put16(out + 6, sequence);
  std::copy(payload, payload + payloadSize, out + kHeaderSize);
  if (!ipv6)
    Put16(out + 2, InternetChecksum(out, kHeaderSize + payloadSize));
}

void WritePayload(const ProbeTag& tag, unsigned char* out, size_t size) {
  const size_t fillFrom = size >= kTagSize ? kTagSize : 0;
  if (fillFrom) {
    Put32(out, static_cast<uint32_t>(tag.token >> 32));
    Put32(out + 4, static_cast<uint32_t>(tag.token));
    Put32(out + 8, tag.host);
    Put32(out + 12, tag.probe);
  }
  for (size_t i = fillFrom; i < size; ++i)
    out[i] = Filler(i);
}

bool ReadPayload(const unsigned char* payload, size_t size, ProbeTag& tag, size_t expected) {
  if ((!payload && size) || size != expected)
    return false;
  const size_t fillFrom = size >= kTagSize ? kTagSize : 0;
  for (size_t i = fillFrom; i < size; ++i)
    if (payload[i] != Filler(i))
      return false;
  if (fillFrom) {
    tag.token = uint64_t{Get32(payload)} << 32 | Get32(payload + 4);
    tag.host = Get32(payload + 8);
    tag.probe = Get32(payload + 12);
  }
  return true;
}

long long IntegerSqrt(long long a) {
  long long prev = LLONG_MAX;
  long long x = a;
  if (x > 0) {
    while (x < prev) {
      prev = x;
      x = (x + a / x) / 2;
    }
  }
  return x;
}

void ComputeStatistics(const std::vector<long long>& rttUs, unsigned sent, unsigned received, unsigned duplicates,
                       HostStatistics& out) {
  out.sent = sent;
  out.received = received;
  out.duplicates = duplicates;
  out.lossPercent = sent && received < sent ? (sent - received) * 100.0 / sent : 0;
  out.minMs = out.avgMs = out.maxMs = out.mdevMs = 0;
  if (rttUs.empty())
    return;
  const long long total = static_cast<long long>(rttUs.size());
  long long sum = 0, sum2 = 0;
  long long lo = LLONG_MAX, hi = 0;
  for (long long t : rttUs) {
    sum += t;
    sum2 += t * t;
    lo = std::min(lo, t);
    hi = std::max(hi, t);
  }
  const long long avg = sum / total;
  // Small sums keep the subtraction before the division: integer rounding would eat the spread.
  const long long variance = sum < INT_MAX ? (sum2 - sum * sum / total) / total : sum2 / total - avg * avg;
  out.minMs = static_cast<double>(lo) / 1000;
  out.avgMs = static_cast<double>(avg) / 1000;
  out.maxMs = static_cast<double>(hi) / 1000;
  out.mdevMs = static_cast<double>(IntegerSqrt(variance)) / 1000;
}

void ComputeProbeFigures(const std::vector<std::optional<long long>>& probeUs, HostStatistics& out) {
  out.probeMs.clear();
  std::vector<double> answered;
  double jitterSum = 0;
  for (const std::optional<long long>& us : probeUs) {
    out.probeMs.push_back(us ? std::optional<double>(static_cast<double>(*us) / 1000) : std::nullopt);
    if (!us)
      continue;
    if (!answered.empty())
      jitterSum += std::abs(*out.probeMs.back() - answered.back());
    answered.push_back(*out.probeMs.back());
  }
  out.stddevMs = out.p50Ms = out.p90Ms = out.p99Ms = out.jitterMs = 0;
  const size_t n = answered.size();
  if (n == 0)
    return;
  if (n > 1)
    out.jitterMs = jitterSum / static_cast<double>(n - 1);
  double mean = 0;
  for (double t : answered)
    mean += t;
  mean /= static_cast<double>(n);
  double squares = 0;
  for (double t : answered)
    squares += (t - mean) * (t - mean);
  out.stddevMs = std::sqrt(squares / static_cast<double>(n));
  std::sort(answered.begin(), answered.end());
  // Nearest rank: the smallest time with at least p% of the times at or below it.
  auto rank = [&](unsigned p) { return answered[std::max<size_t>(1, (n * p + 99) / 100) - 1]; };
  out.p50Ms = rank(50);
  out.p90Ms = rank(90);
  out.p99Ms = rank(99);
}

ProbeBook::ProbeBook(size_t hosts, unsigned count) : m_hosts(hosts) {
  for (Host& h : m_hosts)
    h.probes.resize(count);
}

void ProbeBook::markSent(size_t host, unsigned probe, uint16_t sequence, int64_t sentNs, int64_t deadlineMs,
                         bool refused) {
  if (host >= m_hosts.size() || probe >= m_hosts[host].probes.size())
    return;
  Probe& p = m_hosts[host].probes[probe];
  if (p.state != Unsent)
    return;
  p = Probe{sequence, refused ? Expired : Pending, sentNs, deadlineMs, 0};
  ++m_hosts[host].sent;
  if (!refused)
    ++m_pending;
}

ProbeBook::Outcome ProbeBook::record(size_t host, unsigned probe, uint16_t sequence, int64_t receivedNs, int64_t nowMs,
                                     long long* rttUs) {
  if (host >= m_hosts.size() || probe >= m_hosts[host].probes.size())
    return Unknown;
  Host& h = m_hosts[host];
  Probe& p = h.probes[probe];
  if (p.state == Unsent || p.sequence != sequence)
    return Unknown;
  if (p.state == Pending && nowMs >= p.deadlineMs) {
    p.state = Expired;
    --m_pending;
    ++h.timeouts;
    return TimedOut;
  }
  if (p.state == Expired)
    return Late;
  // Whole microseconds, rounded down, as ping takes them; a wall clock step back gives 0.
  const long long rtt = std::max<int64_t>(0, (receivedNs - p.sentNs) / 1000);
  h.rttUs.push_back(rtt);
  if (rttUs)
    *rttUs = rtt;
  if (p.state == Answered) {
    ++h.duplicates;
    return Duplicate;
  }
  p.state = Answered;
  p.rttUs = rtt;
  ++h.received;
  --m_pending;
  return Matched;
}

void ProbeBook::expire(int64_t nowMs, const std::function<void(size_t host, unsigned probe)>& onLost) {
  for (size_t i = 0; i < m_hosts.size(); ++i) {
    Host& h = m_hosts[i];
    for (size_t k = h.open; k < h.probes.size() && h.probes[k].state != Unsent; ++k) {
      Probe& p = h.probes[k];
      if (p.state != Pending)
        continue;
      if (nowMs < p.deadlineMs)
        break; // the later probes of this host expire later still
      p.state = Expired;
      --m_pending;
      ++h.timeouts;
      if (onLost)
        onLost(i, static_cast<unsigned>(k));
    }
    while (h.open < h.probes.size() && (h.probes[h.open].state == Answered || h.probes[h.open].state == Expired))
      ++h.open;
  }
}

int64_t ProbeBook::nextDeadline() const {
  int64_t next = INT64_MAX;
  for (const Host& h : m_hosts)
    for (size_t k = h.open; k < h.probes.size() && h.probes[k].state != Unsent; ++k)
      if (h.probes[k].state == Pending) {
        next = std::min(next, h.probes[k].deadlineMs);
        break;
      }
  return next;
}

void ProbeBook::fill(size_t host, HostStatistics& out) const {
  if (host >= m_hosts.size())
    return;
  const Host& h = m_hosts[host];
  ComputeStatistics(h.rttUs, h.sent, h.received, h.duplicates, out);
  out.timeouts = h.timeouts;
  std::vector<std::optional<long long>> probeUs;
  for (const Probe& p : h.probes)
    if (p.state != Unsent)
      probeUs.push_back(p.state == Answered ? std::optional<long long>(p.rttUs) : std::nullopt);
  ComputeProbeFigures(probeUs, out);
}

} // namespace qz::icmp::impl
