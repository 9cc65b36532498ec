// httptools ping as a process, beside fping: fping's output layouts, counts and exit statuses on
// loopback and in network namespaces whose routes lose probes, and the JSON document.
#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

using testing::HasSubstr;

namespace {

struct Result {
  int code = -1;
  std::string out, err;
};

// `command` ($CLI is httptools) by bash, in a network namespace of its own after `setup` when
// `setup` is set (lo is up first), on the machine's loopback otherwise.
Result Shell(const std::string& command, const std::string& setup = "") {
  const std::string script =
      setup.empty() ? command : "unshare -n bash -c 'ip link set lo up && " + setup + " && " + command + "'";
  Result r;
  r.code = qztest::RunProgram({"env", "CLI=" HTTPTOOLS_CLI, "bash", "-c", script}, "", r.out, r.err);
  EXPECT_THAT(r.err, testing::Not(testing::ContainsRegex("unshare:|not found")))
      << "these tests need root or CAP_SYS_ADMIN, and fping (scripts/install-deps installs it)";
  return r;
}
Result Ping(const std::string& args, const std::string& setup = "") { return Shell("$CLI ping " + args, setup); }

} // namespace

// fping and ours side by side in each of fping's layouts (fping's stdout then stderr, ours all on
// stdout): the same text with times as "t" and our own figures after fping's in each summary line,
// and the same exit status. In a namespace of its own, blackhole and unreachable routes refuse the
// sends and 10.9.9.9 routed to lo drops them.
TEST(PingBesideFping, SameLayoutsCountsAndExitStatus) {
  const std::regex time(R"( *\d+\.\d+)"), extra(", stddev =t, p50/p90/p99 =t/t/t, jitter =t\n");
  const std::string lossy = "ip route add blackhole 127.0.0.2 && ip route add unreachable 127.0.0.3 && ip -6 route add "
                            "blackhole ::2 && ip -6 route add unreachable ::3 && ip route add 10.9.9.9 dev lo",
                    all = " 127.0.0.1 127.0.0.2 127.0.0.3 ::1 ::2 ::3 10.9.9.9";
  // Setup, the options (-i 10 as fping's default: the hosts' replies come in the same order), the
  // hosts and fping's exit status.
  const std::tuple<std::string, std::string, std::string, int> cases[] = {{"", "-c 2", " 127.0.0.1 ::1", 0},
                                                                          {"", "-c 2 -q", " 127.0.0.1 ::1", 0},
                                                                          {"", "-C 2 -q", " 127.0.0.1 ::1", 0},
                                                                          {"", "-c 2 -q -s", " 127.0.0.1 ::1", 0},
                                                                          {lossy, "-c 2", all, 1},
                                                                          {lossy, "-C 3 -q", all, 1},
                                                                          {lossy, "-c 2 -q -s", all, 1}};
  for (const auto& [setup, mode, hosts, code] : cases) {
    SCOPED_TRACE(mode + hosts);
    const std::string args = mode + " -p 10 -i 10 -t 300" + hosts;
    const Result fping = Shell("fping " + args, setup), ours = Ping(args, setup);
    EXPECT_EQ(fping.code, code) << fping.err;
    EXPECT_EQ(std::to_string(ours.code) + ours.err, std::to_string(code));
    const std::string text = std::regex_replace(ours.out, time, "t");
    EXPECT_EQ(std::regex_search(text, extra), mode[1] == 'c');
    EXPECT_EQ(std::regex_replace(text, extra, "\n"), std::regex_replace(fping.out + fping.err, time, "t"));
  }
}

// min/avg/max on loopback against fping's own variation: the difference between two fping runs,
// plus 0.1 ms. Times move with the machine's load, so a disagreeing attempt is repeated (three in
// all); counts are checked by the test above.
TEST(PingBesideFping, RoundTripTimesWithinFpingsVariation) {
  const std::regex line(R"(: xmt/rcv/%loss = 5/5/0%, min/avg/max = ([\d.]+)/([\d.]+)/([\d.]+))");
  auto figures = [&line](const Result& r) {
    std::vector<double> v;
    for (std::sregex_token_iterator it(r.out.begin(), r.out.end(), line, {1, 2, 3}), end; it != end; ++it)
      v.push_back(std::stod(*it));
    return v;
  };
  const std::string args = "-c 5 -p 50 -q 127.0.0.1 ::1", fping = "fping " + args + " 2>&1";
  std::string report;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const Result f1 = Shell(fping), ours = Ping(args), f2 = Shell(fping);
    const std::vector<double> a = figures(f1), o = figures(ours), b = figures(f2);
    bool close = a.size() == 6 && b.size() == 6 && o.size() == 6;
    for (size_t k = 0; close && k < 6; ++k)
      close = std::abs(o[k] - (a[k] + b[k]) / 2) <= std::abs(a[k] - b[k]) + 0.1;
    report += "fping " + f1.out + "ours  " + ours.out + "fping " + f2.out + "\n";
    if (close)
      return;
  }
  ADD_FAILURE() << "min/avg/max outside fping's variation in three attempts:\n" << report;
}

// --json is one document with each probe's time or null; the refused sends are no time-outs.
TEST(PingCommand, LostProbesInJson) {
  // Times (keys ending in _ms or _s, and the probes' list) become "t".
  const Result r = Ping("--json -C 3 -s -p 10 -t 300 -b 100 127.0.0.1 127.0.0.2", "ip route add blackhole 127.0.0.2");
  EXPECT_EQ(r.code, 1) << r.err;
  EXPECT_EQ(std::regex_replace(r.out, std::regex(R"(("\w+_m?s":|[\[,])[-\d.e]+)"), "$1t"),
            R"({"hosts":[{"host":"127.0.0.1","address":"127.0.0.1","sent":3,"received":3,"duplicates":0,)"
            R"("loss_percent":0.0,"min_ms":t,"avg_ms":t,"max_ms":t,"mdev_ms":t,"stddev_ms":t,"p50_ms":t,"p90_ms":t,)"
            R"("p99_ms":t,"jitter_ms":t,"rtts_ms":[t,t,t]},{"host":"127.0.0.2","address":"127.0.0.2","sent":3,)"
            R"("received":0,"duplicates":0,"loss_percent":100.0,"rtts_ms":[null,null,null]}],"stats":{"targets":2,)"
            R"("alive":1,"unreachable":1,"unknown_addresses":0,"timeouts":0,"sent":6,"received":3,"min_ms":t,)"
            R"("avg_ms":t,"max_ms":t,"elapsed_s":t}})"
            "\n");
}

TEST(PingCommand, ExitStatusesOfFailures) {
  // In a namespace: a name has no DNS to reach and fails at once; the last case as uid 65534, with
  // no ICMP socket.
  const std::tuple<std::string, int, std::string> cases[] = {
      {"", 3, "hosts is required"},
      {"-c 0 127.0.0.1", 3, "--count: Value 0 not in range"},
      {"-4 -6 127.0.0.1", 3, "--ipv4 excludes --ipv6"},
      {"-W 0 127.0.0.1", 3, "--timeout"}, // the earlier name of -t
      {"-4 -c 1 ::1", 2, "::1: Cannot resolve host name: Address family"},
      {"-c 1 no-such-host.invalid", 2, "no-such-host.invalid: Cannot resolve host name: "},
      {"-c 1 127.0.0.1", 4, "127.0.0.1: No ICMP socket could be opened"},
  };
  for (const auto& [args, code, err] : cases) {
    const Result r =
        Shell(std::string(code == 4 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "") + "$CLI ping " + args,
              "true");
    EXPECT_EQ(std::to_string(r.code) + r.out, std::to_string(code)) << args << ": " << r.err;
    EXPECT_THAT(r.err, HasSubstr(err)) << args;
  }
}
