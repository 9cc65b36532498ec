#include <HttpTools/icmp/HostStatistics.h>

#include "IcmpEcho_p.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <linux/icmp.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <queue>
#include <random>
#include <sstream>
#include <thread>
#include <utility>

namespace qz::icmp {

namespace {

using impl::ProbeBook;

int64_t MonoMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Wall clock, because the kernel stamps received packets on it.
int64_t WallNs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

class Fd {
public:
  Fd() = default;
  explicit Fd(int fd) : m_fd(fd) {}
  Fd(Fd&& o) noexcept : m_fd(std::exchange(o.m_fd, -1)) {}
  Fd& operator=(Fd&& o) noexcept {
    std::swap(m_fd, o.m_fd);
    return *this;
  }
  ~Fd() {
    if (m_fd >= 0)
      ::close(m_fd);
  }
  int get() const { return m_fd; }

private:
  int m_fd = -1;
};

// "1\t0" as the kernel shows it, "1 0" here.
std::string PingGroupRange() {
  std::ifstream f("/proc/sys/net/ipv4/ping_group_range");
  long long lo = 0, hi = 0;
  if (!(f >> lo >> hi))
    return "unreadable";
  return std::to_string(lo) + " " + std::to_string(hi);
}

std::string NoSocketText(int datagramErrno, int rawErrno) {
  std::string text = "No ICMP socket could be opened: ";
  if (datagramErrno == EACCES)
    text += "datagram sockets are refused to group " + std::to_string(getegid()) +
            ", outside net.ipv4.ping_group_range \"" + PingGroupRange() + "\"";
  else
    text += std::string("datagram socket: ") + std::strerror(datagramErrno);
  if (rawErrno == EPERM || rawErrno == EACCES)
    text += "; raw sockets need root or CAP_NET_RAW";
  else
    text += std::string("; raw socket: ") + std::strerror(rawErrno);
  return text;
}

// One socket of one address family and how to read what it receives.
struct Channel {
  bool ipv6 = false;
  Fd fd;
  HostStatisticsRetriever::SocketKind kind = HostStatisticsRetriever::SK_None;
  std::string error;
  uint16_t nextSequence = 0;

  impl::ReplyLayout layout() const {
    if (ipv6)
      return impl::ReplyLayout::IPv6;
    return kind == HostStatisticsRetriever::SK_Raw ? impl::ReplyLayout::IPv4WithHeader
                                                   : impl::ReplyLayout::IPv4Datagram;
  }

  void open(bool v6, unsigned ttl) {
    ipv6 = v6;
    const int family = v6 ? AF_INET6 : AF_INET;
    const int protocol = v6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP};
    constexpr int flags = SOCK_NONBLOCK | SOCK_CLOEXEC;
    fd = Fd(::socket(family, SOCK_DGRAM | flags, protocol));
    if (fd.get() >= 0) {
      kind = HostStatisticsRetriever::SK_Datagram;
    } else {
      const int datagramErrno = errno;
      fd = Fd(::socket(family, SOCK_RAW | flags, protocol));
      if (fd.get() < 0) {
        error = NoSocketText(datagramErrno, errno);
        return;
      }
      kind = HostStatisticsRetriever::SK_Raw;
    }
    const int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_TIMESTAMPNS, &one, sizeof one);
    const int hops = static_cast<int>(ttl);
    if (hops > 0 && setsockopt(fd.get(), v6 ? IPPROTO_IPV6 : IPPROTO_IP, v6 ? IPV6_UNICAST_HOPS : IP_TTL, &hops,
                               sizeof hops) != 0) {
      error = std::string("Cannot set the TTL: ") + std::strerror(errno);
      kind = HostStatisticsRetriever::SK_None;
      fd = Fd();
      return;
    }
    // Replies to a burst for many hosts arrive together; a small queue drops some of them.
    const int buffer = 4 * 1024 * 1024;
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    // A raw socket sees every ICMP message of the host; let only echo replies through.
    if (kind == HostStatisticsRetriever::SK_Raw && !v6) {
      icmp_filter filter{};
      filter.data = ~(1u << ICMP_ECHOREPLY);
      setsockopt(fd.get(), SOL_RAW, ICMP_FILTER, &filter, sizeof filter);
    } else if (kind == HostStatisticsRetriever::SK_Raw) {
      icmp6_filter filter{};
      ICMP6_FILTER_SETBLOCKALL(&filter);
      ICMP6_FILTER_SETPASS(ICMP6_ECHO_REPLY, &filter);
      setsockopt(fd.get(), IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter);
    }
  }
};

// The host's address: a literal as it is, a name by the resolver, of `family` alone when set.
bool Resolve(const std::string& host, qz::IpAddress::Type family, qz::IpAddress& out, std::string& error) {
  out.fromStringAddress(host, qz::IpAddress::IPT_None);
  if (out.isValid() && family != qz::IpAddress::IPT_None && out.getType() != family) {
    out = qz::IpAddress();
    error = gai_strerror(EAI_ADDRFAMILY);
    return false;
  }
  if (out.isValid())
    return true;
  addrinfo hints{};
  hints.ai_family = family == qz::IpAddress::IPT_IPv4   ? AF_INET
                    : family == qz::IpAddress::IPT_IPv6 ? AF_INET6
                                                        : AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* list = nullptr;
  const int rc = host.empty() ? EAI_NONAME : ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (rc != 0) {
    error = rc == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(rc);
    return false;
  }
  for (const addrinfo* a = list; a && !out.isValid(); a = a->ai_next)
    if (a->ai_family == AF_INET)
      out.fromIPv4(reinterpret_cast<const sockaddr_in*>(a->ai_addr));
    else if (a->ai_family == AF_INET6)
      out.fromIPv6(reinterpret_cast<const sockaddr_in6*>(a->ai_addr));
  ::freeaddrinfo(list);
  if (!out.isValid())
    error = gai_strerror(EAI_NONAME);
  return out.isValid();
}

std::string OptionsError(const ProbeOptions& o) {
  if (o.payloadSize > ProbeOptions::kMaxPayloadSize)
    return "Payload size " + std::to_string(o.payloadSize) + " above the largest, " +
           std::to_string(ProbeOptions::kMaxPayloadSize);
  if (o.ttl > 255)
    return "TTL " + std::to_string(o.ttl) + " outside 1 to 255";
  if (o.family != qz::IpAddress::IPT_None && o.family != qz::IpAddress::IPT_IPv4 && o.family != qz::IpAddress::IPT_IPv6)
    return "Unknown address family";
  return {};
}

} // namespace

struct HostStatisticsRetriever::Impl {
  std::vector<std::string> hosts;
  ProbeOptions options;
  std::atomic<int> kind4{SK_None}, kind6{SK_None};

  std::mutex mutex;
  std::condition_variable wake;
  std::thread worker;
  bool stopping = false;                 // guarded by mutex
  std::atomic<bool> cancelWorker{false}; // read by the round in progress

  bool round(std::vector<HostStatistics>& out, const std::function<bool()>& cancelled);
  void run(const std::function<void(const std::vector<HostStatistics>&)>& onRound, unsigned periodMs);
};

bool HostStatisticsRetriever::Impl::round(std::vector<HostStatistics>& out, const std::function<bool()>& cancelled) {
  const ProbeOptions& o = options;
  const size_t n = hosts.size();
  out.assign(n, HostStatistics{});
  const std::string refused = OptionsError(o);
  bool need[2] = {false, false};
  for (size_t i = 0; i < n; ++i) {
    HostStatistics& h = out[i];
    h.host = hosts[i];
    if (!refused.empty()) {
      h.error = refused;
      h.errorKind = HostStatistics::EK_Options;
    } else if (std::string why; !Resolve(h.host, o.family, h.address, why)) {
      h.error = "Cannot resolve host name: " + why;
      h.errorKind = HostStatistics::EK_Resolve;
    } else {
      need[h.address.getType() == qz::IpAddress::IPT_IPv6] = true;
    }
  }

  Channel channels[2];
  for (int v6 = 0; v6 < 2; ++v6)
    if (need[v6])
      channels[v6].open(v6 == 1, o.ttl);
  kind4 = channels[0].kind;
  kind6 = channels[1].kind;

  std::vector<size_t> probed;
  for (size_t i = 0; i < n; ++i) {
    if (!out[i].error.empty())
      continue;
    const Channel& ch = channels[out[i].address.getType() == qz::IpAddress::IPT_IPv6];
    if (ch.kind == SK_None) {
      out[i].error = ch.error;
      out[i].errorKind = HostStatistics::EK_Socket;
    } else {
      probed.push_back(i);
    }
  }
  if (probed.empty())
    return false;

  std::random_device random;
  const uint64_t token = uint64_t{random()} << 32 | random();
  const auto identifier = static_cast<uint16_t>(random());
  // Payloads too small for a tag are told apart by sequence number: who owns each one.
  const bool tagged = o.payloadSize >= impl::kTagSize;
  std::vector<impl::ProbeTag> owners[2];
  if (!tagged)
    for (std::vector<impl::ProbeTag>& v : owners)
      v.resize(65536);

  auto report = [&](size_t host, unsigned probe, std::optional<double> rttMs) {
    if (!o.onProbe)
      return;
    try {
      o.onProbe(host, probe, rttMs);
    } catch (...) {
      // the caller's exception stays on the caller's side
    }
  };

  ProbeBook book(n, o.count);
  std::vector<unsigned char> packet(impl::kHeaderSize + o.payloadSize), payload(o.payloadSize);
  auto send = [&](size_t host, unsigned probe) {
    const qz::IpAddress& to = out[host].address;
    const bool v6 = to.getType() == qz::IpAddress::IPT_IPv6;
    Channel& ch = channels[v6];
    const impl::ProbeTag tag{token, static_cast<uint32_t>(host), probe};
    impl::WritePayload(tag, payload.data(), payload.size());
    const uint16_t sequence = ch.nextSequence++;
    if (!tagged)
      owners[v6][sequence] = tag;
    impl::BuildEchoRequest(ch.ipv6, identifier, sequence, payload.data(), payload.size(), packet.data());
    const int64_t sentNs = WallNs();
    // A probe the kernel refuses (a blackhole or unreachable route) is lost at once.
    const bool sent = ::sendto(ch.fd.get(), packet.data(), packet.size(), 0, to.getSockaddr(), to.getSockaddrLen()) ==
                      static_cast<ssize_t>(packet.size());
    book.markSent(host, probe, sequence, sentNs, MonoMs() + o.timeoutMs, !sent);
  };

  // Room for the largest reply with an IPv4 header and its options; larger ones are not ours.
  std::vector<unsigned char> buffer(60 + impl::kHeaderSize + o.payloadSize + 1);
  auto drain = [&](Channel& ch) {
    alignas(cmsghdr) unsigned char control[256];
    for (int budget = 0; budget < 1024; ++budget) {
      sockaddr_storage from{};
      iovec iov{buffer.data(), buffer.size()};
      msghdr msg{};
      msg.msg_name = &from;
      msg.msg_namelen = sizeof from;
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      const ssize_t got = ::recvmsg(ch.fd.get(), &msg, MSG_DONTWAIT);
      if (got < 0) {
        if (errno == EINTR)
          continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
          return;
        continue; // an ICMP error reported on the socket: read on
      }
      if (msg.msg_flags & MSG_TRUNC)
        continue;
      int64_t receivedNs = 0;
      for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c))
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS &&
            c->cmsg_len >= CMSG_LEN(sizeof(timespec))) {
          timespec ts{};
          std::memcpy(&ts, CMSG_DATA(c), sizeof ts);
          receivedNs = int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
        }
      if (!receivedNs)
        receivedNs = WallNs();
      impl::EchoReply reply;
      impl::ProbeTag tag;
      if (!impl::ParseEchoReply(buffer.data(), static_cast<size_t>(got), ch.layout(), reply) ||
          (ch.kind == SK_Raw && reply.identifier != identifier) ||
          !impl::ReadPayload(reply.payload, reply.payloadSize, tag, o.payloadSize))
        continue;
      if (!tagged)
        tag = owners[ch.ipv6][reply.sequence];
      if (tag.token != token || tag.host >= n)
        continue;
      qz::IpAddress source;
      if (ch.ipv6)
        source.fromIPv6(reinterpret_cast<const sockaddr_in6*>(&from));
      else
        source.fromIPv4(reinterpret_cast<const sockaddr_in*>(&from));
      if (source != out[tag.host].address)
        continue;
      // Late or not by the kernel's arrival stamp: a slow reader does not turn replies into losses.
      const int64_t arrivedMs = MonoMs() - std::max<int64_t>(0, WallNs() - receivedNs) / 1000000;
      long long rttUs = 0;
      const ProbeBook::Outcome outcome =
          book.record(tag.host, tag.probe, reply.sequence, receivedNs, arrivedMs, &rttUs);
      if (outcome == ProbeBook::Matched)
        report(tag.host, tag.probe, static_cast<double>(rttUs) / 1000);
      else if (outcome == ProbeBook::TimedOut)
        report(tag.host, tag.probe, std::nullopt);
    }
  };

  // Each host's next probe is due a period after its last one; between any two sends at least
  // the interval passes. Hosts start in list order, an interval apart.
  struct Due {
    int64_t atMs;
    size_t order;
    bool operator>(const Due& d) const { return atMs != d.atMs ? atMs > d.atMs : order > d.order; }
  };
  std::priority_queue<Due, std::vector<Due>, std::greater<>> queue;
  std::vector<unsigned> nextProbe(probed.size(), 0);
  const int64_t begin = MonoMs();
  if (o.count > 0)
    for (size_t k = 0; k < probed.size(); ++k)
      queue.push({begin, k});
  int64_t nextSendMs = begin;
  bool wasCancelled = false;
  pollfd fds[2];
  nfds_t fdCount = 0;
  Channel* polled[2];
  for (Channel& ch : channels)
    if (ch.kind != SK_None) {
      fds[fdCount] = pollfd{ch.fd.get(), POLLIN, 0};
      polled[fdCount++] = &ch;
    }
  auto drainAll = [&] {
    for (nfds_t k = 0; k < fdCount; ++k)
      drain(*polled[k]);
  };
  auto lost = [&](size_t host, unsigned probe) { report(host, probe, std::nullopt); };
  for (;;) {
    if (cancelled && cancelled()) {
      wasCancelled = true;
      break;
    }
    int64_t now = MonoMs();
    // Loopback answers during the send: read between sends, or a long burst (or bursts caught
    // up after a stall) fills the socket's queue and the kernel drops replies.
    for (size_t sent = 0; !queue.empty() && queue.top().atMs <= now && nextSendMs <= now;) {
      const size_t k = queue.top().order;
      queue.pop();
      send(probed[k], nextProbe[k]);
      if (++nextProbe[k] < o.count)
        queue.push({now + o.periodMs, k});
      if (o.intervalMs) {
        nextSendMs = now + o.intervalMs;
        break;
      }
      if (++sent % 32 == 0)
        drainAll();
    }
    drainAll(); // what came in time is counted before the deadlines are applied
    now = MonoMs();
    book.expire(now, lost);
    if (queue.empty() && !book.hasPending())
      break;
    int64_t wakeAt = book.nextDeadline();
    if (!queue.empty())
      wakeAt = std::min(wakeAt, std::max(queue.top().atMs, nextSendMs));
    // Short waits keep a cancel request answered quickly.
    const int waitMs = static_cast<int>(std::clamp<int64_t>(wakeAt - now, 0, 20));
    if (::poll(fds, fdCount, waitMs) > 0)
      for (nfds_t k = 0; k < fdCount; ++k)
        if (fds[k].revents)
          drain(*polled[k]);
  }
  for (size_t host : probed)
    book.fill(host, out[host]);
  return !wasCancelled;
}

void HostStatisticsRetriever::Impl::run(const std::function<void(const std::vector<HostStatistics>&)>& onRound,
                                        unsigned periodMs) {
  for (;;) {
    const auto began = std::chrono::steady_clock::now();
    std::vector<HostStatistics> out;
    round(out, [this] { return cancelWorker.load(); });
    if (cancelWorker.load())
      return;
    try {
      onRound(out);
    } catch (...) {
      // the caller's exception stays on the caller's side; the next round still runs
    }
    std::unique_lock<std::mutex> lock(mutex);
    wake.wait_until(lock, began + std::chrono::milliseconds(periodMs), [this] { return stopping; });
    if (stopping)
      return;
  }
}

HostStatisticsRetriever::HostStatisticsRetriever(std::vector<std::string> hosts, unsigned count, unsigned intervalMs,
                                                 unsigned timeoutMs)
    : HostStatisticsRetriever(std::move(hosts), [&] {
        ProbeOptions o;
        o.count = count;
        o.periodMs = intervalMs;
        o.timeoutMs = timeoutMs;
        return o;
      }()) {}

HostStatisticsRetriever::HostStatisticsRetriever(std::vector<std::string> hosts, ProbeOptions options)
    : m_d(std::make_unique<Impl>()) {
  m_d->hosts = std::move(hosts);
  m_d->options = std::move(options);
}

HostStatisticsRetriever::~HostStatisticsRetriever() {
  stop();
  if (m_d->worker.joinable())
    m_d->worker.detach(); // destroyed from its own callback: the thread ends on its own
}

bool HostStatisticsRetriever::retrieve(std::vector<HostStatistics>& out, const bool* cancel) {
  return m_d->round(out, [cancel] { return cancel && __atomic_load_n(cancel, __ATOMIC_RELAXED); });
}

bool HostStatisticsRetriever::start(std::function<void(const std::vector<HostStatistics>&)> onRound,
                                    unsigned periodMs) {
  if (!onRound)
    return false;
  std::unique_lock<std::mutex> lock(m_d->mutex);
  if (m_d->worker.joinable()) {
    // A worker that stopped itself from its callback is joined here; a running one stays.
    if (!m_d->stopping || m_d->worker.get_id() == std::this_thread::get_id())
      return false;
    std::thread old = std::move(m_d->worker);
    lock.unlock();
    old.join();
    lock.lock();
    if (m_d->worker.joinable())
      return false;
  }
  m_d->stopping = false;
  m_d->cancelWorker = false;
  m_d->worker = std::thread([d = m_d.get(), cb = std::move(onRound), periodMs] { d->run(cb, periodMs); });
  return true;
}

void HostStatisticsRetriever::stop() {
  std::thread worker;
  {
    std::lock_guard<std::mutex> lock(m_d->mutex);
    m_d->stopping = true;
    m_d->cancelWorker = true;
    if (m_d->worker.joinable() && m_d->worker.get_id() != std::this_thread::get_id())
      worker = std::move(m_d->worker);
  }
  m_d->wake.notify_all();
  if (worker.joinable())
    worker.join();
}

bool HostStatisticsRetriever::isRunning() const {
  std::lock_guard<std::mutex> lock(m_d->mutex);
  return m_d->worker.joinable() && !m_d->stopping;
}

HostStatisticsRetriever::SocketKind HostStatisticsRetriever::socketKind(qz::IpAddress::Type family) const {
  if (family == qz::IpAddress::IPT_IPv4)
    return static_cast<SocketKind>(m_d->kind4.load());
  if (family == qz::IpAddress::IPT_IPv6)
    return static_cast<SocketKind>(m_d->kind6.load());
  return SK_None;
}

} // namespace qz::icmp
