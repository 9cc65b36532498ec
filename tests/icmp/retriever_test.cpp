// The retriever on real sockets: loopback in this process (the raw path on these machines) and,
// for the datagram path, loss and errors, in network namespaces made by forked children.
#include <HttpTools/icmp/HostStatistics.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <grp.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

using qz::icmp::HostStatistics;
using qz::icmp::HostStatisticsRetriever;
using qz::icmp::ProbeOptions;
using testing::HasSubstr;

namespace {

constexpr uid_t kNobody = 65534;
const char* const kWidenRange = "echo '0 2147483647' > /proc/sys/net/ipv4/ping_group_range";

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

struct Round {
  std::string failure; // why the child could not run the round
  bool ok = false;
  int kind4 = 0, kind6 = 0;
  int64_t elapsedMs = 0;
  std::vector<HostStatistics> hosts;
  unsigned answeredCalls = 0, lostCalls = 0; // onProbe's
};

struct NsRun {
  std::string setup;      // shell commands run as root in the namespace after lo is up
  std::string background; // shell commands started in the background just before the round
  bool asNobody = false;
  std::vector<std::string> hosts;
  ProbeOptions options = [] {
    ProbeOptions o;
    o.count = 3;
    o.periodMs = 20;
    o.timeoutMs = 2000;
    return o;
  }();
};

void WriteAll(int fd, const std::string& s) {
  size_t done = 0;
  while (done < s.size()) {
    const ssize_t n = ::write(fd, s.data() + done, s.size() - done);
    if (n <= 0)
      return;
    done += static_cast<size_t>(n);
  }
}

[[noreturn]] void ChildRound(int fd, const NsRun& run) {
  auto fail = [fd](const std::string& why) {
    WriteAll(fd, "FAIL " + why + "\n");
    _exit(0);
  };
  if (::unshare(CLONE_NEWNET) != 0)
    fail(std::string("cannot make a network namespace: unshare(CLONE_NEWNET): ") + std::strerror(errno) +
         " (these tests need root or CAP_SYS_ADMIN)");
  const std::string setup = "ip link set lo up" + (run.setup.empty() ? "" : " && " + run.setup);
  if (std::system(setup.c_str()) != 0)
    fail("namespace set-up failed: " + setup);
  if (!run.background.empty() && std::system(("(" + run.background + ") >/dev/null 2>&1 &").c_str()) != 0)
    fail("cannot start: " + run.background);
  if (run.asNobody && (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
                       ::setresuid(kNobody, kNobody, kNobody) != 0))
    fail(std::string("cannot become uid 65534: ") + std::strerror(errno));
  unsigned answered = 0, lost = 0;
  ProbeOptions options = run.options;
  options.onProbe = [&](size_t, unsigned, std::optional<double> rtt) { ++(rtt ? answered : lost); };
  HostStatisticsRetriever retriever(run.hosts, options);
  std::vector<HostStatistics> out;
  const int64_t t0 = NowMs();
  const bool ok = retriever.retrieve(out, nullptr);
  std::ostringstream s;
  s.precision(17);
  s << "OK " << ok << ' ' << retriever.socketKind(qz::IpAddress::IPT_IPv4) << ' '
    << retriever.socketKind(qz::IpAddress::IPT_IPv6) << ' ' << NowMs() - t0 << ' ' << answered << ' ' << lost << '\n';
  for (const HostStatistics& h : out)
    s << h.host << '\t' << h.address.getAddressAsString(false) << '\t' << h.sent << '\t' << h.received << '\t'
      << h.duplicates << '\t' << h.lossPercent << '\t' << h.minMs << '\t' << h.avgMs << '\t' << h.maxMs << '\t'
      << h.mdevMs << '\t' << h.error << '\t' << h.errorKind << '\n';
  WriteAll(fd, s.str());
  _exit(0);
}

// Runs one round in a forked child with a network namespace of its own.
Round RunInNamespace(const NsRun& run) {
  Round r;
  int fds[2];
  if (::pipe(fds) != 0) {
    r.failure = "pipe failed";
    return r;
  }
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    ChildRound(fds[1], run);
  }
  ::close(fds[1]);
  std::string text;
  char buf[4096];
  for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;)
    text.append(buf, static_cast<size_t>(n));
  ::close(fds[0]);
  int status = 0;
  if (pid > 0)
    ::waitpid(pid, &status, 0);
  std::istringstream in(text);
  std::string word;
  in >> word;
  if (word != "OK") {
    r.failure = text.empty() ? "the child died" : text;
    return r;
  }
  in >> r.ok >> r.kind4 >> r.kind6 >> r.elapsedMs >> r.answeredCalls >> r.lostCalls;
  in.ignore(1);
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> f;
    std::istringstream ls(line);
    for (std::string field; std::getline(ls, field, '\t');)
      f.push_back(field);
    f.resize(12);
    HostStatistics h;
    h.host = f[0];
    h.address.fromStringAddress(f[1], qz::IpAddress::IPT_None);
    h.sent = static_cast<unsigned>(std::stoul(f[2]));
    h.received = static_cast<unsigned>(std::stoul(f[3]));
    h.duplicates = static_cast<unsigned>(std::stoul(f[4]));
    h.lossPercent = std::stod(f[5]);
    h.minMs = std::stod(f[6]);
    h.avgMs = std::stod(f[7]);
    h.maxMs = std::stod(f[8]);
    h.mdevMs = std::stod(f[9]);
    h.error = f[10];
    h.errorKind = static_cast<HostStatistics::ErrorKind>(std::stoi("0" + f[11]));
    r.hosts.push_back(h);
  }
  return r;
}

// All probes answered, with times that hang together.
void ExpectAllAnswered(const HostStatistics& h, unsigned count) {
  SCOPED_TRACE(h.host);
  EXPECT_EQ(h.error, "");
  EXPECT_EQ(h.sent, count);
  EXPECT_EQ(h.received, count);
  EXPECT_EQ(h.duplicates, 0u);
  EXPECT_EQ(h.lossPercent, 0);
  EXPECT_GT(h.minMs, 0);
  EXPECT_LE(h.minMs, h.avgMs);
  EXPECT_LE(h.avgMs, h.maxMs);
  EXPECT_LT(h.maxMs, 1000) << "loopback";
  EXPECT_LE(h.mdevMs, h.maxMs - h.minMs + 0.001);
}

} // namespace

TEST(IcmpNamespace, RawSocketsWhenDatagramOnesAreRefused) {
  // A new namespace starts with ping_group_range "1 0": root gets raw sockets.
  NsRun run;
  run.hosts = {"127.0.0.1", "::1", "127.0.0.5"};
  const Round r = RunInNamespace(run);
  ASSERT_EQ(r.failure, "");
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.kind4, HostStatisticsRetriever::SK_Raw);
  EXPECT_EQ(r.kind6, HostStatisticsRetriever::SK_Raw);
  ASSERT_EQ(r.hosts.size(), 3u);
  for (const HostStatistics& h : r.hosts)
    ExpectAllAnswered(h, run.options.count);
  EXPECT_EQ(r.hosts[1].address.getType(), qz::IpAddress::IPT_IPv6);
}

TEST(IcmpNamespace, DatagramSocketsWhereTheGroupRangeAllows) {
  for (bool nobody : {false, true}) {
    SCOPED_TRACE(nobody ? "uid 65534" : "root");
    NsRun run;
    run.setup = kWidenRange;
    run.asNobody = nobody;
    run.hosts = {"127.0.0.1", "::1"};
    const Round r = RunInNamespace(run);
    ASSERT_EQ(r.failure, "");
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.kind4, HostStatisticsRetriever::SK_Datagram);
    EXPECT_EQ(r.kind6, HostStatisticsRetriever::SK_Datagram);
    ASSERT_EQ(r.hosts.size(), 2u);
    for (const HostStatistics& h : r.hosts)
      ExpectAllAnswered(h, run.options.count);
  }
}

TEST(IcmpNamespace, NoSocketSaysWhy) {
  NsRun run;
  run.asNobody = true;
  run.hosts = {"127.0.0.1", "::1"};
  const Round r = RunInNamespace(run);
  ASSERT_EQ(r.failure, "");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.kind4, HostStatisticsRetriever::SK_None);
  EXPECT_EQ(r.kind6, HostStatisticsRetriever::SK_None);
  ASSERT_EQ(r.hosts.size(), 2u);
  for (const HostStatistics& h : r.hosts) {
    EXPECT_EQ(h.error, "No ICMP socket could be opened: datagram sockets are refused to group 65534, outside "
                       "net.ipv4.ping_group_range \"1 0\"; raw sockets need root or CAP_NET_RAW");
    EXPECT_EQ(h.sent, 0u);
    EXPECT_EQ(h.errorKind, HostStatistics::EK_Socket);
  }
}

TEST(IcmpNamespace, RoutesThatLoseEveryProbeWithinTheTimeout) {
  // blackhole and unreachable routes refuse the send; 10.9.9.9 routed to lo leaves and is dropped.
  NsRun run;
  run.setup = "ip route add blackhole 127.0.0.2 && ip route add unreachable 127.0.0.3 && ip route add 10.9.9.9 dev lo "
              "&& ip -6 route add blackhole ::2 && ip -6 route add unreachable ::3";
  run.hosts = {"127.0.0.2", "127.0.0.3", "::2", "::3", "10.9.9.9", "127.0.0.1"};
  run.options.count = 3;
  run.options.periodMs = 50;
  run.options.timeoutMs = 300;
  const Round r = RunInNamespace(run);
  ASSERT_EQ(r.failure, "");
  EXPECT_TRUE(r.ok);
  ASSERT_EQ(r.hosts.size(), 6u);
  for (size_t i = 0; i < 5; ++i) {
    SCOPED_TRACE(r.hosts[i].host);
    EXPECT_EQ(r.hosts[i].error, "");
    EXPECT_EQ(r.hosts[i].sent, 3u);
    EXPECT_EQ(r.hosts[i].received, 0u);
    EXPECT_EQ(r.hosts[i].lossPercent, 100);
    EXPECT_EQ(r.hosts[i].maxMs, 0);
  }
  ExpectAllAnswered(r.hosts[5], 3);
  EXPECT_EQ(r.answeredCalls, 3u);
  EXPECT_EQ(r.lostCalls, 3u) << "the probes that left and timed out; refused ones are not time-outs";
  // The last probe leaves at 100 ms and is given up 300 ms later.
  EXPECT_GE(r.elapsedMs, 395);
  EXPECT_LT(r.elapsedMs, 2500);
}

TEST(IcmpNamespace, RouteFlippedMidRunLosesPartOfTheProbes) {
  NsRun run;
  run.setup = "ip route add blackhole 127.0.0.2";
  run.background = "sleep 0.45; ip route del blackhole 127.0.0.2";
  run.hosts = {"127.0.0.2"};
  run.options.count = 10;
  run.options.periodMs = 100;
  run.options.timeoutMs = 300;
  const Round r = RunInNamespace(run);
  ASSERT_EQ(r.failure, "");
  ASSERT_EQ(r.hosts.size(), 1u);
  const HostStatistics& h = r.hosts[0];
  EXPECT_EQ(h.sent, 10u);
  EXPECT_GT(h.received, 0u) << "the route came back at 450 ms, the last probe left at 900 ms";
  EXPECT_LT(h.received, 10u) << "the probes of the first 450 ms met the blackhole";
  EXPECT_DOUBLE_EQ(h.lossPercent, (10.0 - h.received) * 10);
  EXPECT_GT(h.minMs, 0);
}

TEST(IcmpNamespace, NameThatDoesNotResolve) {
  // In the namespace a DNS query has nowhere to go: the name fails without leaving the machine.
  NsRun run;
  run.hosts = {"no-such-host.invalid", "127.0.0.1"};
  Round r = RunInNamespace(run);
  ASSERT_EQ(r.failure, "");
  EXPECT_TRUE(r.ok) << "one host was probed";
  ASSERT_EQ(r.hosts.size(), 2u);
  EXPECT_THAT(r.hosts[0].error, testing::StartsWith("Cannot resolve host name: "));
  EXPECT_EQ(r.hosts[0].errorKind, HostStatistics::EK_Resolve);
  EXPECT_EQ(r.hosts[0].sent, 0u);
  EXPECT_FALSE(r.hosts[0].address.isValid());
  ExpectAllAnswered(r.hosts[1], run.options.count);

  run.hosts = {"no-such-host.invalid"};
  r = RunInNamespace(run);
  ASSERT_EQ(r.failure, "");
  EXPECT_FALSE(r.ok) << "nothing was probed";
  ASSERT_EQ(r.hosts.size(), 1u);
  EXPECT_EQ(r.hosts[0].errorKind, HostStatistics::EK_Resolve);
}

// Raw sockets see every echo reply of the host: each round must keep to its own.
TEST(IcmpLoopback, ConcurrentRoundsKeepTheirOwnReplies) {
  std::vector<HostStatistics> out[3];
  bool ok[3] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i)
    threads.emplace_back([&, i] {
      HostStatisticsRetriever retriever({"127.0.0.1", "::1", "127.0.0.1"}, 5, 10, 3000);
      ok[i] = retriever.retrieve(out[i], nullptr);
    });
  for (std::thread& t : threads)
    t.join();
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(ok[i]) << (out[i].empty() ? "" : out[i][0].error);
    ASSERT_EQ(out[i].size(), 3u);
    for (const HostStatistics& h : out[i])
      ExpectAllAnswered(h, 5);
  }
}

// A hundred hosts probed at once: every reply of a burst must find room in the socket's queue.
TEST(IcmpLoopback, ManyHostsLoseNothing) {
  std::vector<std::string> hosts;
  for (int i = 1; i <= 100; ++i)
    hosts.push_back("127.0.0." + std::to_string(i));
  HostStatisticsRetriever retriever(hosts, 20, 5, 3000);
  std::vector<HostStatistics> out;
  ASSERT_TRUE(retriever.retrieve(out, nullptr)) << out[0].error;
  unsigned received = 0;
  for (const HostStatistics& h : out)
    received += h.received;
  EXPECT_EQ(received, 2000u);
}

// Payload sizes (with and without room for the tag), TTL and family: each probe answered and
// reported once to onProbe with the time the statistics keep; what the round refuses says why.
TEST(IcmpLoopback, OptionsShapeTheProbes) {
  using qz::IpAddress;
  const auto kNone = HostStatistics::EK_None, kResolve = HostStatistics::EK_Resolve,
             kOptions = HostStatistics::EK_Options;
  const struct {
    const char* name;
    unsigned payload, ttl;
    IpAddress::Type family;
    std::vector<std::string> hosts;
    std::vector<HostStatistics::ErrorKind> kinds;
    const char* error; // of the first failing host
  } cases[] = {
      {"no payload", 0, 0, IpAddress::IPT_None, {"127.0.0.1", "::1"}, {kNone, kNone}, ""},
      {"shorter than the tag", 8, 0, IpAddress::IPT_None, {"127.0.0.1", "::1", "127.0.0.1"}, {kNone, kNone, kNone}, ""},
      {"large", 8000, 0, IpAddress::IPT_None, {"127.0.0.1", "::1"}, {kNone, kNone}, ""},
      {"largest", ProbeOptions::kMaxPayloadSize, 0, IpAddress::IPT_None, {"127.0.0.1"}, {kNone}, ""},
      {"TTL 1", 56, 1, IpAddress::IPT_None, {"127.0.0.1", "::1"}, {kNone, kNone}, ""},
      {"IPv4 only",
       56,
       0,
       IpAddress::IPT_IPv4,
       {"localhost", "::1"},
       {kNone, kResolve},
       "Cannot resolve host name: Address family for hostname not supported"},
      {"IPv6 only",
       56,
       0,
       IpAddress::IPT_IPv6,
       {"127.0.0.1", "::1"},
       {kResolve, kNone},
       "Cannot resolve host name: Address family for hostname not supported"},
      {"payload too large",
       ProbeOptions::kMaxPayloadSize + 1,
       0,
       IpAddress::IPT_None,
       {"127.0.0.1"},
       {kOptions},
       "Payload size 65508 above the largest, 65507"},
      {"TTL 256", 56, 256, IpAddress::IPT_None, {"::1"}, {kOptions}, "TTL 256 outside 1 to 255"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::mutex m;
    std::vector<std::vector<std::optional<double>>> reported(c.hosts.size(), std::vector<std::optional<double>>(3));
    ProbeOptions o;
    o.count = 3;
    o.periodMs = 10;
    o.timeoutMs = 3000;
    o.payloadSize = c.payload;
    o.ttl = c.ttl;
    o.family = c.family;
    o.onProbe = [&](size_t host, unsigned probe, std::optional<double> rtt) {
      std::lock_guard<std::mutex> l(m);
      EXPECT_FALSE(reported[host][probe]) << "reported twice";
      reported[host][probe] = rtt ? rtt : -1.0;
    };
    HostStatisticsRetriever retriever(c.hosts, o);
    std::vector<HostStatistics> out;
    const bool anyProbed = std::count(c.kinds.begin(), c.kinds.end(), kNone) > 0;
    EXPECT_EQ(retriever.retrieve(out, nullptr), anyProbed);
    ASSERT_EQ(out.size(), c.hosts.size());
    bool firstError = true;
    for (size_t i = 0; i < out.size(); ++i) {
      EXPECT_EQ(out[i].errorKind, c.kinds[i]) << out[i].host << ": " << out[i].error;
      if (c.kinds[i] != kNone) {
        if (std::exchange(firstError, false)) {
          EXPECT_EQ(out[i].error, c.error);
        }
        EXPECT_EQ(out[i].sent, 0u);
        continue;
      }
      ExpectAllAnswered(out[i], 3);
      ASSERT_EQ(out[i].probeMs.size(), 3u);
      for (unsigned k = 0; k < 3; ++k)
        EXPECT_EQ(reported[i][k], out[i].probeMs[k]) << out[i].host << " probe " << k;
    }
  }
}

// The period spaces one host's probes, the interval any two sends; both show in the round's length.
TEST(IcmpLoopback, PeriodAndIntervalPaceTheSends) {
  const struct {
    unsigned hosts, count, periodMs, intervalMs;
    int64_t atLeastMs; // when the last probe leaves
  } cases[] = {
      {2, 3, 150, 0, 300},   // two bursts a period apart after the first
      {3, 2, 0, 60, 300},    // six sends an interval apart
      {2, 2, 100, 100, 200}, // host 2 waits an interval; its second probe a period after its first
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.hosts << " hosts, -c " << c.count << " -p " << c.periodMs << " -i "
                                    << c.intervalMs);
    ProbeOptions o;
    o.count = c.count;
    o.periodMs = c.periodMs;
    o.intervalMs = c.intervalMs;
    o.timeoutMs = 3000;
    std::vector<int64_t> answeredAt;
    const int64_t t0 = NowMs();
    o.onProbe = [&](size_t, unsigned, std::optional<double> rtt) {
      if (rtt)
        answeredAt.push_back(NowMs() - t0);
    };
    HostStatisticsRetriever retriever(std::vector<std::string>(c.hosts, "127.0.0.1"), o);
    std::vector<HostStatistics> out;
    ASSERT_TRUE(retriever.retrieve(out, nullptr)) << out[0].error;
    ASSERT_EQ(answeredAt.size(), c.hosts * c.count);
    EXPECT_GE(answeredAt.back(), c.atLeastMs);
    EXPECT_LT(answeredAt.back(), c.atLeastMs + 2000);
    for (const HostStatistics& h : out)
      ExpectAllAnswered(h, c.count);
  }
}

// The TTL is on the requests as they leave: a raw socket of the test sees them come in on lo.
TEST(IcmpLoopback, TtlIsSetOnTheRequests) {
  const int sniffer = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
  ASSERT_GE(sniffer, 0) << "a raw ICMP socket needs root or CAP_NET_RAW: " << std::strerror(errno);
  ProbeOptions o;
  o.count = 2;
  o.periodMs = 10;
  o.payloadSize = 77; // a size of its own, to tell our requests apart from others on the machine
  o.ttl = 7;
  HostStatisticsRetriever retriever({"127.0.0.1"}, o);
  std::vector<HostStatistics> out;
  ASSERT_TRUE(retriever.retrieve(out, nullptr)) << out[0].error;
  ExpectAllAnswered(out[0], 2);
  unsigned seen = 0;
  unsigned char packet[512];
  for (ssize_t got; (got = ::recv(sniffer, packet, sizeof packet, MSG_DONTWAIT)) > 0;) {
    const size_t header = size_t{packet[0] & 0x0fu} * 4;
    if (static_cast<size_t>(got) == header + 8 + 77 && packet[header] == 8) {
      EXPECT_EQ(packet[8], 7) << "TTL";
      ++seen;
    }
  }
  ::close(sniffer);
  EXPECT_EQ(seen, 2u);
}

TEST(IcmpLoopback, CancelEndsTheRoundEarly) {
  HostStatisticsRetriever retriever({"127.0.0.1"}, 1000, 100, 1000);
  bool cancel = false;
  std::thread canceller([&cancel] {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    __atomic_store_n(&cancel, true, __ATOMIC_RELAXED);
  });
  std::vector<HostStatistics> out;
  const int64_t t0 = NowMs();
  EXPECT_FALSE(retriever.retrieve(out, &cancel));
  canceller.join();
  EXPECT_LT(NowMs() - t0, 3000) << "the whole round takes 100 s";
  ASSERT_EQ(out.size(), 1u);
  ASSERT_EQ(out[0].error, "");
  EXPECT_GE(out[0].sent, 1u);
  EXPECT_LT(out[0].sent, 40u);
}

TEST(IcmpThreaded, WorkerDeliversRoundsUntilStopped) {
  HostStatisticsRetriever retriever({"127.0.0.1", "::1"}, 2, 5, 3000);
  std::mutex m;
  std::condition_variable cv;
  int rounds = 0;
  unsigned received = 0;
  auto onRound = [&](const std::vector<HostStatistics>& out) {
    std::lock_guard<std::mutex> l(m);
    ++rounds;
    for (const HostStatistics& h : out)
      received += h.received;
    cv.notify_all();
  };
  EXPECT_FALSE(retriever.start(nullptr, 10));
  ASSERT_TRUE(retriever.start(onRound, 20));
  EXPECT_TRUE(retriever.isRunning());
  EXPECT_FALSE(retriever.start(onRound, 20)) << "one worker at a time";
  {
    std::unique_lock<std::mutex> l(m);
    ASSERT_TRUE(cv.wait_for(l, std::chrono::seconds(10), [&] { return rounds >= 3; }));
  }
  retriever.stop();
  EXPECT_FALSE(retriever.isRunning());
  int after;
  {
    std::lock_guard<std::mutex> l(m);
    after = rounds;
    EXPECT_EQ(received, 4u * static_cast<unsigned>(rounds));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  {
    std::lock_guard<std::mutex> l(m);
    EXPECT_EQ(rounds, after) << "no round after stop()";
  }

  // A callback may stop its own worker; the next start() runs a new one.
  std::atomic<int> selfStopped{0};
  ASSERT_TRUE(retriever.start(
      [&](const std::vector<HostStatistics>&) {
        ++selfStopped;
        retriever.stop();
      },
      10));
  const int64_t t0 = NowMs();
  while (selfStopped == 0 && NowMs() - t0 < 10000)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(selfStopped, 1);
  ASSERT_TRUE(retriever.start(onRound, 10));
  retriever.stop();
  EXPECT_EQ(selfStopped, 1);
}

TEST(IcmpThreaded, StopCancelsALongRound) {
  HostStatisticsRetriever retriever({"127.0.0.1"}, 1000, 100, 1000);
  std::atomic<int> rounds{0};
  ASSERT_TRUE(retriever.start([&](const std::vector<HostStatistics>&) { ++rounds; }, 1000));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const int64_t t0 = NowMs();
  retriever.stop();
  EXPECT_LT(NowMs() - t0, 3000) << "the whole round takes 100 s";
  EXPECT_EQ(rounds, 0) << "a cancelled round is not handed over";
}
