// The retriever on real sockets: loopback in this process (the raw path on these machines) and,
// for the datagram path, loss and errors, in network namespaces of threads of their own.
#include <HttpTools/icmp/HostStatistics.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <sstream>
#include <thread>

using qz::icmp::HostStatistics;
using qz::icmp::HostStatisticsRetriever;
using qz::icmp::ProbeOptions;

namespace {

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The hosts' figures, a line each: "host[=address] sent/received+duplicates loss% kKIND [error] [t]",
// "t" when its times hang together for loopback, the times themselves when they do not.
std::string Lines(const std::vector<HostStatistics>& out) {
  std::ostringstream s;
  for (const HostStatistics& h : out) {
    const std::string address = h.address.getAddressAsString(false);
    s << h.host << (address == h.host ? "" : "=" + address) << ' ' << h.sent << '/' << h.received << '+' << h.duplicates
      << ' ' << h.lossPercent << "% k" << h.errorKind << (h.error.empty() ? "" : " " + h.error);
    if (h.maxMs > 0 && h.minMs >= 0 && h.minMs <= h.avgMs && h.avgMs <= h.maxMs && h.maxMs < 1000 &&
        h.mdevMs <= h.maxMs - h.minMs + 0.001)
      s << " t";
    else if (h.minMs != 0 || h.avgMs != 0 || h.maxMs != 0 || h.mdevMs != 0)
      s << " times " << h.minMs << ' ' << h.avgMs << ' ' << h.maxMs << ' ' << h.mdevMs;
    s << '\n';
  }
  return s.str();
}

// The lines of hosts that answered each of `n` probes.
std::string Answered(const std::vector<std::string>& hosts, unsigned n) {
  std::string text;
  for (const std::string& host : hosts)
    text += host + " " + std::to_string(n) + "/" + std::to_string(n) + "+0 0% k0 t\n";
  return text;
}

// A round on a thread with a network namespace of its own: `setup` (shell commands) runs as root
// once lo is up, the round as uid 65534 when `nobody`, and `onProbe` (shell commands) once host 1's
// probe 3 is reported. The report: "ok|failed v4:KIND v6:KIND answered:N lost:N" (and how long the
// round took when not `atLeastMs` to 5 s more), then Lines(); or why it could not run.
std::string RoundInNamespace(const std::string& setup, bool nobody, const std::vector<std::string>& hosts,
                             unsigned count, unsigned periodMs, unsigned timeoutMs, int64_t atLeastMs = 0,
                             const std::string& onProbe = "", unsigned intervalMs = 0) {
  std::string report = "cannot set up the namespace (root or CAP_SYS_ADMIN needed): " + setup;
  // unshare() and the bare system calls (not glibc's process-wide setresuid()) change this thread alone.
  std::thread([&] {
    if (::unshare(CLONE_NEWNET) != 0 ||
        std::system(("ip link set lo up" + (setup.empty() ? "" : " && " + setup)).c_str()) != 0 ||
        (nobody && (::syscall(SYS_setgroups, 0, nullptr) != 0 || ::syscall(SYS_setresgid, 65534, 65534, 65534) != 0 ||
                    ::syscall(SYS_setresuid, 65534, 65534, 65534) != 0)))
      return;
    unsigned answered = 0, lost = 0;
    auto reported = [&](size_t host, unsigned probe, std::optional<double> rtt) {
      ++(rtt ? answered : lost);
      if (host == 1 && probe == 3 && !onProbe.empty() && std::system(onProbe.c_str()) != 0)
        std::fputs("onProbe command failed\n", stderr);
    };
    HostStatisticsRetriever retriever(
        hosts,
        {.count = count, .periodMs = periodMs, .intervalMs = intervalMs, .timeoutMs = timeoutMs, .onProbe = reported});
    std::vector<HostStatistics> stats;
    const int64_t t0 = NowMs();
    const bool ok = retriever.retrieve(stats, nullptr);
    const int64_t ms = NowMs() - t0;
    std::ostringstream s;
    s << (ok ? "ok" : "failed") << " v4:" << retriever.socketKind(qz::IpAddress::IPT_IPv4)
      << " v6:" << retriever.socketKind(qz::IpAddress::IPT_IPv6) << " answered:" << answered << " lost:" << lost;
    if (ms < atLeastMs || ms >= atLeastMs + 5000)
      s << " took " << ms << " ms";
    report = s.str() + "\n" + Lines(stats);
  }).join();
  return report;
}

} // namespace

TEST(IcmpNamespace, SocketKindsLossAndErrors) {
  const std::string widen = "echo '0 2147483647' > /proc/sys/net/ipv4/ping_group_range";
  const std::string noSocket =
      " 0/0+0 0% k2 No ICMP socket could be opened: datagram sockets are refused to group "
      "65534, outside net.ipv4.ping_group_range \"1 0\"; raw sockets need root or CAP_NET_RAW\n";
  const std::string unresolved = "no-such-host.invalid= 0/0+0 0% k1 Cannot resolve host name: ";
  const std::vector<std::string> both = {"127.0.0.1", "::1"};
  // A new namespace starts with ping_group_range "1 0": root gets raw sockets, others none;
  // datagram sockets come first once the range is widened (for root too: the same path).
  EXPECT_EQ(RoundInNamespace(widen, true, both, 3, 20, 2000), "ok v4:1 v6:1 answered:6 lost:0\n" + Answered(both, 3));
  EXPECT_EQ(RoundInNamespace("", true, both, 3, 20, 2000),
            "failed v4:0 v6:0 answered:0 lost:0\n127.0.0.1" + noSocket + "::1" + noSocket);
  // Raw sockets for root. Blackhole and unreachable routes refuse the send (not a time-out);
  // 10.9.9.9 routed to lo leaves and is dropped. The last probe leaves at 100 ms and is given
  // up 300 ms later.
  EXPECT_EQ(RoundInNamespace("ip route add blackhole 127.0.0.2 && ip route add unreachable 127.0.0.3 && ip route add "
                             "10.9.9.9 dev lo && ip -6 route add blackhole ::2 && ip -6 route add unreachable ::3",
                             false, {"127.0.0.2", "127.0.0.3", "::2", "::3", "10.9.9.9", "127.0.0.1", "::1"}, 3, 50,
                             300, 395),
            "ok v4:2 v6:2 answered:6 lost:3\n127.0.0.2 3/0+0 100% k0\n127.0.0.3 3/0+0 100% k0\n::2 3/0+0 100% k0\n"
            "::3 3/0+0 100% k0\n10.9.9.9 3/0+0 100% k0\n" +
                Answered(both, 3));
  // The route comes back once the fourth probes are out: the last six get through.
  EXPECT_EQ(RoundInNamespace("ip route add blackhole 127.0.0.2", false, {"127.0.0.2", "127.0.0.1"}, 10, 50, 2000, 0,
                             "ip route del blackhole 127.0.0.2"),
            "ok v4:2 v6:0 answered:16 lost:0\n127.0.0.2 10/6+0 40% k0 t\n" + Answered({"127.0.0.1"}, 10));
  // A DNS query has nowhere to go in the namespace: the name fails without leaving the machine.
  EXPECT_THAT(RoundInNamespace("", false, {"no-such-host.invalid", "127.0.0.1"}, 3, 20, 2000),
              testing::AllOf(testing::StartsWith("ok v4:2 v6:0 answered:3 lost:0\n" + unresolved),
                             testing::EndsWith("\n" + Answered({"127.0.0.1"}, 3))));
  // The period spaces one host's probes, the interval any two sends: two bursts a period apart
  // after the first; six sends an interval apart; host 2 an interval after host 1, each a period
  // after its first. The last leaves at 300, 300 and 200 ms.
  const std::vector<std::string> two(2, "127.0.0.1"), three(3, "127.0.0.1");
  EXPECT_EQ(RoundInNamespace("", false, two, 3, 150, 2000, 300), "ok v4:2 v6:0 answered:6 lost:0\n" + Answered(two, 3));
  EXPECT_EQ(RoundInNamespace("", false, three, 2, 0, 2000, 300, "", 60),
            "ok v4:2 v6:0 answered:6 lost:0\n" + Answered(three, 2));
  EXPECT_EQ(RoundInNamespace("", false, two, 2, 100, 2000, 200, "", 100),
            "ok v4:2 v6:0 answered:4 lost:0\n" + Answered(two, 2));
}

// Raw sockets see every echo reply of the host: each round must keep to its own, and a hundred
// hosts probed at once must find room for every reply of a burst.
TEST(IcmpLoopback, ConcurrentRoundsAndManyHostsKeepEveryReply) {
  auto round = [](const std::vector<std::string>& hosts, unsigned count) {
    std::vector<HostStatistics> out;
    EXPECT_TRUE(HostStatisticsRetriever(hosts, count, 5, 3000).retrieve(out, nullptr));
    EXPECT_EQ(Lines(out), Answered(hosts, count));
  };
  { // three rounds at once, joined here
    const std::vector<std::string> hosts = {"127.0.0.1", "::1", "127.0.0.1"};
    std::jthread a(round, hosts, 5), b(round, hosts, 5), c(round, hosts, 5);
  }
  std::vector<std::string> many;
  for (int i = 1; i <= 100; ++i)
    many.push_back("127.0.0." + std::to_string(i));
  round(many, 20);
}

// Payload sizes (with and without room for the tag), TTL and family: each probe answered and
// reported once to onProbe with the time the statistics keep; what the round refuses says why.
TEST(IcmpLoopback, OptionsShapeTheProbes) {
  using enum qz::IpAddress::Type;
  const std::string family = "= 0/0+0 0% k1 Cannot resolve host name: Address family for hostname not supported\n";
  const unsigned largest = ProbeOptions::kMaxPayloadSize;
  // Payload, TTL, family, hosts, and the lines when not every host answered.
  const std::tuple<unsigned, unsigned, qz::IpAddress::Type, std::vector<std::string>, std::string> cases[] = {
      {77, 7, IPT_None, {"127.0.0.1"}, ""},                    // first: the sniffer below keeps its requests
      {8, 0, IPT_None, {"127.0.0.1", "::1", "127.0.0.1"}, ""}, // shorter than the tag
      {largest, 0, IPT_None, {"127.0.0.1", "::1"}, ""},
      {56, 0, IPT_IPv4, {"localhost", "::1"}, "localhost=127.0.0.1 3/3+0 0% k0 t\n::1" + family},
      {56, 0, IPT_IPv6, {"127.0.0.1", "::1"}, "127.0.0.1" + family + Answered({"::1"}, 3)},
      {largest + 1, 0, IPT_None, {"127.0.0.1"}, "127.0.0.1= 0/0+0 0% k3 Payload size 65508 above the largest, 65507\n"},
      {56, 256, IPT_None, {"::1"}, "::1= 0/0+0 0% k3 TTL 256 outside 1 to 255\n"},
  };
  // Requests as they leave, on lo: payload 77 is of the TTL 7 case alone.
  const int sniffer = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
  ASSERT_GE(sniffer, 0) << "a raw ICMP socket needs root or CAP_NET_RAW: " << std::strerror(errno);
  for (const auto& [payload, ttl, family, hosts, lines] : cases) {
    SCOPED_TRACE(testing::Message() << "payload " << payload << ", TTL " << ttl << ", family " << family);
    const std::string want = lines.empty() ? Answered(hosts, 3) : lines;
    // On this thread, the round's; a host's replies come back in the order of its probes.
    std::vector<std::vector<std::optional<double>>> reported(hosts.size());
    auto onProbe = [&](size_t host, unsigned, std::optional<double> rtt) { reported[host].push_back(rtt); };
    std::vector<HostStatistics> out;
    ProbeOptions o{.count = 3, .periodMs = 10, .timeoutMs = 3000, .onProbe = onProbe};
    std::tie(o.payloadSize, o.ttl, o.family) = std::tie(payload, ttl, family);
    // True when any host was probed.
    EXPECT_EQ(HostStatisticsRetriever(hosts, o).retrieve(out, nullptr), want.find(" k0") != std::string::npos);
    EXPECT_EQ(Lines(out), want);
    for (size_t i = 0; i < out.size(); ++i)
      EXPECT_EQ(reported[i], out[i].probeMs) << "each probe reported once, " << out[i].host;
  }
  std::vector<int> ttls;
  unsigned char packet[512];
  for (ssize_t got; (got = ::recv(sniffer, packet, sizeof packet, MSG_DONTWAIT)) > 0;) {
    const size_t header = size_t{packet[0] & 0x0fu} * 4;
    if (size_t(got) == header + 8 + 77 && packet[header] == 8)
      ttls.push_back(packet[8]);
  }
  ::close(sniffer);
  EXPECT_EQ(ttls, (std::vector<int>{7, 7, 7}));
}

// Rounds come from the worker until stop(), and a callback may stop its own worker. A round of
// 100 s ends soon after its first answer once cancelled, by flag or by stop(), and is not handed over.
TEST(IcmpThreaded, WorkerRoundsStopAndCancel) {
  std::atomic<int> rounds = 0, answers = 0;
  std::atomic<bool> stopped = false;
  auto waitFor = [](const std::atomic<int>& n, int atLeast) {
    for (int i = 0; i < 1000 && n < atLeast; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GE(n, atLeast);
  };
  auto onRound = [&](const std::vector<HostStatistics>& out) {
    EXPECT_FALSE(stopped) << "a round after stop()";
    EXPECT_EQ(Lines(out), Answered({"127.0.0.1", "::1"}, 2));
    ++rounds;
  };
  HostStatisticsRetriever retriever({"127.0.0.1", "::1"}, 2, 5, 3000);
  EXPECT_FALSE(retriever.start(nullptr, 10));
  ASSERT_TRUE(retriever.start(onRound, 20));
  EXPECT_FALSE(retriever.start(onRound, 20)) << "one worker at a time";
  waitFor(rounds, 3);
  retriever.stop();
  stopped = true;
  EXPECT_FALSE(retriever.isRunning());
  rounds = 0;
  stopped = false;
  ASSERT_TRUE(retriever.start(
      [&](const std::vector<HostStatistics>& out) {
        retriever.stop(); // before the round counts, so that the start() below finds it stopped
        onRound(out);
      },
      10));
  waitFor(rounds, 1);
  ASSERT_TRUE(retriever.start([](const std::vector<HostStatistics>&) {}, 10));
  retriever.stop();
  EXPECT_EQ(rounds.exchange(0), 1);

  bool cancel = false;
  HostStatisticsRetriever longRound(
      {"127.0.0.1"}, {.count = 1000, .periodMs = 100, .timeoutMs = 1000, .onProbe = [&](auto...) { ++answers; }});
  std::vector<HostStatistics> out;
  std::jthread canceller([&] {
    waitFor(answers, 1);
    std::atomic_ref<bool>(cancel).store(true);
  });
  int64_t t0 = NowMs();
  EXPECT_FALSE(longRound.retrieve(out, &cancel));
  EXPECT_LT(NowMs() - t0, 5000);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_TRUE(out[0].error.empty() && out[0].sent >= 1 && out[0].sent < 40) << out[0].sent << " sent, " << out[0].error;

  ASSERT_TRUE(longRound.start(onRound, 1000));
  waitFor(answers, answers + 1);
  t0 = NowMs();
  longRound.stop();
  EXPECT_LT(NowMs() - t0, 5000);
  EXPECT_EQ(rounds, 0);
}
