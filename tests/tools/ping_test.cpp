// httptools ping as a process: fping's -c summary layout, and the exit status when a host is lost.
#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct PingRun {
  int code = -1;
  std::string out, err;
};

PingRun Ping(std::vector<std::string> args) {
  args.insert(args.begin(), {HTTPTOOLS_CLI, "ping"});
  PingRun r;
  r.code = qztest::RunProgram(args, "", r.out, r.err);
  return r;
}

// Runs the tool inside a network namespace of its own, after `setup` (lo is up first).
PingRun PingInNamespace(const std::string& setup, std::vector<std::string> args) {
  std::vector<std::string> argv{
      "unshare", "-n", "sh", "-c", "ip link set lo up && " + setup + " && exec \"$@\"", "sh", HTTPTOOLS_CLI, "ping"};
  argv.insert(argv.end(), args.begin(), args.end());
  PingRun r;
  r.code = qztest::RunProgram(argv, "", r.out, r.err);
  return r;
}

} // namespace

TEST(PingCommand, OneSummaryLinePerHostInFpingLayout) {
  const PingRun r = Ping({"-c", "3", "-i", "20", "127.0.0.1", "::1"});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.err, IsEmpty());
  // Names padded to the longest; times with three decimals below 1 ms.
  const std::regex layout(R"(127\.0\.0\.1 : xmt/rcv/%loss = 3/3/0%, min/avg/max = 0\.\d{3}/0\.\d{3}/0\.\d{3}
::1       : xmt/rcv/%loss = 3/3/0%, min/avg/max = 0\.\d{3}/0\.\d{3}/0\.\d{3}
)");
  EXPECT_TRUE(std::regex_match(r.out, layout)) << r.out;
}

TEST(PingCommand, LostAndUnknownHostsExitOne) {
  const PingRun r =
      PingInNamespace("ip route add blackhole 127.0.0.2",
                      {"-c", "2", "-i", "20", "-W", "200", "127.0.0.1", "127.0.0.2", "no-such-host.invalid"});
  ASSERT_THAT(r.err, testing::Not(HasSubstr("unshare:"))) << "these tests need root or CAP_SYS_ADMIN";
  EXPECT_EQ(r.code, 1) << r.err;
  EXPECT_THAT(r.out, HasSubstr("127.0.0.1            : xmt/rcv/%loss = 2/2/0%, min/avg/max = "));
  EXPECT_THAT(r.out, HasSubstr("\n127.0.0.2            : xmt/rcv/%loss = 2/0/100%\n"));
  EXPECT_THAT(r.err, HasSubstr("no-such-host.invalid : Cannot resolve host name\n"));

  const PingRun lostOnly = PingInNamespace("ip route add blackhole 127.0.0.2", {"-c", "1", "-W", "100", "127.0.0.2"});
  EXPECT_EQ(lostOnly.code, 1) << lostOnly.err;
  EXPECT_EQ(lostOnly.out, "127.0.0.2 : xmt/rcv/%loss = 1/0/100%\n");
}

TEST(PingCommand, UsageErrorsExitTwo) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"-c", "0", "127.0.0.1"}, {"-i", "x", "127.0.0.1"}, {"-W", "0", "127.0.0.1"}}) {
    const PingRun r = Ping(args);
    EXPECT_EQ(r.code, 2) << testing::PrintToString(args) << r.err;
    EXPECT_THAT(r.out, IsEmpty());
  }
}
