// httptools get --parallel N / -Z, run as a process against the in-process server: bodies in URL
// order on standard output or in their -o files, failures reported per URL.
#include "support/Process.h"
#include "support/TestHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct Outcome {
  int code = -1;
  std::string out, err;
};

Outcome RunGet(std::vector<std::string> args) {
  args.insert(args.begin(), {HTTPTOOLS_CLI, "get"});
  Outcome o;
  o.code = qztest::RunProgram(args, "", o.out, o.err);
  return o;
}

std::string readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

class ParallelGet : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(srv.isRunning());
    srv.resetCounters();
    m_dir = (std::filesystem::temp_directory_path() / "httptools-pget-XXXXXX").string();
    ASSERT_TRUE(mkdtemp(m_dir.data()));
  }
  void TearDown() override {
    for (const char* name : {"one", "two"})
      std::remove((m_dir + "/" + name).c_str());
    rmdir(m_dir.c_str());
  }
  std::string path(const char* name) const { return m_dir + "/" + name; }
  qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared();

private:
  std::string m_dir;
};

int64_t msSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t).count();
}

// The slow first URL is written first: standard output keeps the order of the URLs, and three
// 400 ms answers overlap (one after the other they would add 1.2 s to the tool's own run time).
TEST_F(ParallelGet, StdoutInUrlOrderWhileTransfersOverlap) {
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(RunGet({"-Z", srv.url("/bytes?n=1")}).code, 0);
  const int64_t baseMs = msSince(start);
  for (const std::vector<std::string>& flags :
       {std::vector<std::string>{"-Z"}, {"--parallel", "--parallel-max", "3"}}) {
    SCOPED_TRACE(flags.back());
    start = std::chrono::steady_clock::now();
    std::vector<std::string> args = flags;
    args.insert(args.end(), {srv.url("/stall?ms=400"), srv.url("/bytes?n=5"), srv.url("/stall?ms=400"),
                             srv.url("/status/200"), srv.url("/stall?ms=400")});
    const Outcome o = RunGet(args);
    const int64_t ms = msSince(start);
    EXPECT_EQ(o.code, 0) << o.err;
    EXPECT_EQ(o.out, "lateabcdelatestatus 200late");
    EXPECT_THAT(o.err, IsEmpty());
    EXPECT_LT(ms, baseMs + 900);
  }
}

// One -o per URL, -w and -f for each transfer, and the exit code of the first URL (in argument
// order) that failed, whichever failed first in time.
TEST_F(ParallelGet, OutputFilesWriteOutAndFirstFailure) {
  const Outcome o =
      RunGet({"-Z", "-f", "-w", "[%{http_code}]", "-o", path("one"), "-o", path("two"), srv.url("/bytes?n=3"),
              srv.url("/status/404"), srv.url("/echo"), "http://127.0.0.1:1/", srv.url("/stall?ms=300")});
  EXPECT_EQ(o.code, 22);
  EXPECT_EQ(readFile(path("one")), "abc");
  EXPECT_FALSE(std::ifstream(path("two")).good()); // -f: the failed URL writes nothing
  EXPECT_THAT(o.out, testing::MatchesRegex("\\[200\\]\\[404\\]GET\n(.|\n)*\\[200\\]\\[000\\]late\\[200\\]"));
  EXPECT_THAT(o.err, HasSubstr("httptools get: HTTP status 404 from " + srv.url("/status/404")));

  // Without -f a 404 is an answer; the refused port is the first failure.
  const Outcome r =
      RunGet({"-Z", "-s", srv.url("/status/404"), "http://127.0.0.1:1/", srv.url("/stall?ms=3000"), "-m", "0.5"});
  EXPECT_EQ(r.code, 7);
  EXPECT_EQ(r.out, "status 404");
  EXPECT_THAT(r.err, IsEmpty());

  for (const std::vector<std::string>& bad : {std::vector<std::string>{"--parallel-max", "0", srv.url("/echo")},
                                              {"-Z"},
                                              {"-Z", "--bogus", srv.url("/echo")},
                                              {"-Z", "-o", path("one"), "-o", path("two"), srv.url("/echo")}}) {
    EXPECT_EQ(RunGet(bad).code, 2) << testing::PrintToString(bad);
  }
}

} // namespace
