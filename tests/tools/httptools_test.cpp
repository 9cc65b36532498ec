// The httptools HTTP commands, run as a separate process against the in-process server: exit
// codes, what goes to stdout, stderr and -o, and what the server receives.
#include "support/Process.h"
#include "support/TestHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

struct Outcome {
  int code = -1;
  std::string out, err;
};

Outcome RunTool(std::vector<std::string> args, const std::string& input = "") {
  args.insert(args.begin(), HTTPTOOLS_CLI);
  Outcome o;
  o.code = qztest::RunProgram(args, input, o.out, o.err);
  return o;
}

class Tool : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(srv.isRunning());
    srv.resetCounters();
    char dir[] = "/tmp/httptools-cli-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    m_dir = dir;
  }
  void TearDown() override {
    for (const std::string& f : m_files)
      std::remove(f.c_str());
    rmdir(m_dir.c_str());
  }
  std::string file(const std::string& name, const std::string& content = "") {
    const std::string path = m_dir + "/" + name;
    if (!content.empty())
      std::ofstream(path, std::ios::binary) << content;
    m_files.push_back(path);
    return path;
  }
  static std::string read(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
  }
  qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared();

private:
  std::string m_dir;
  std::vector<std::string> m_files;
};

// Each method: what the server gets and what the tool prints.
TEST_F(Tool, MethodsSendBodiesAndHeaders) {
  const std::string bodyFile = file("body", "from-file");
  struct Case {
    std::vector<std::string> args;
    std::string input;
    const char* method;
    const char* body;
    testing::Matcher<std::string> out;
  };
  const std::string echo = srv.url("/echo");
  const std::vector<Case> cases{
      {{"get", "-H", "X-One: 1", "-H", "X-Two: 2", echo},
       "",
       "GET",
       "",
       AllOf(StartsWith("GET\n"), HasSubstr("X-Two: 2"))},
      {{"delete", echo}, "", "DELETE", "", StartsWith("DELETE\n")},
      {{"put", "-d", bodyFile, echo}, "", "PUT", "from-file", HasSubstr("\n\nfrom-file")},
      {{"put", echo}, "from-stdin", "PUT", "from-stdin", HasSubstr("from-stdin")},
      {{"post", "-d", "-", "-H", "Content-Type: application/json", echo}, "{}", "POST", "{}", HasSubstr("{}")},
      {{"head", srv.url("/headers")}, "", "HEAD", "", AllOf(StartsWith("HTTP 200\n"), HasSubstr("x-one: 1\n"))},
  };
  for (const Case& c : cases) {
    const Outcome o = RunTool(c.args, c.input);
    EXPECT_EQ(o.code, 0) << c.method << ": " << o.err;
    EXPECT_THAT(o.out, c.out) << c.method;
    EXPECT_THAT(o.err, IsEmpty()) << c.method; // no terminal, so no progress line
    const auto req = srv.lastRequest();
    EXPECT_EQ(req.method, c.method);
    EXPECT_EQ(req.body, c.body) << c.method;
  }
  const auto requests = srv.requests();
  ASSERT_FALSE(requests.empty());
  EXPECT_EQ(requests.front().header("X-One"), "1");
  EXPECT_EQ(requests.front().header("X-Two"), "2");
  EXPECT_EQ(requests[requests.size() - 2].header("Content-Type"), "application/json");
}

TEST_F(Tool, OutputFileTakesTheBody) {
  const std::string out = file("out");
  const Outcome o = RunTool({"get", "-o", out, srv.url("/bytes?n=70000")});
  EXPECT_EQ(o.code, 0) << o.err;
  EXPECT_THAT(o.out, IsEmpty());
  const std::string body = read(out);
  ASSERT_EQ(body.size(), 70000u);
  EXPECT_EQ(body.substr(0, 3), "abc");
}

// Failures: a non-zero code and one line saying why on stderr; stdout has what the server
// answered, if anything.
TEST_F(Tool, FailuresExitNonZeroWithTheReason) {
  struct Case {
    std::vector<std::string> args;
    int code;
    testing::Matcher<std::string> err;
    const char* out = "";
  };
  const std::vector<Case> cases{
      {{"get", srv.url("/status/404")},
       1,
       StartsWith("httptools: get failed: HttpConnection error : bad html response code, got 404, expect 200 "),
       "status 404"},
      {{"put", srv.url("/status/500")},
       1,
       HasSubstr("httptools: put failed: HTTP status 500 from http://"),
       "status 500"},
      {{"put", "--expect", "201", srv.url("/status/200")},
       1,
       HasSubstr("bad html response code, got 200, expect 201"),
       "status 200"},
      {{"put", "--expect", "201", srv.url("/status/201")}, 0, IsEmpty(), "status 201"},
      {{"get", "http://127.0.0.1:1/"}, 1, AllOf(StartsWith("httptools: get failed: "), HasSubstr("Curl error : 7 ("))},
      {{"get", "http://[zz/"}, 1, StartsWith("httptools: invalid URL 'http://[zz/' fail to parse uri")},
      {{"post", "-d", "/no/such/file", srv.url("/echo")}, 1, HasSubstr("httptools: cannot read /no/such/file")},
      {{"get", "-o", "/no/such/dir/out", srv.url("/echo")}, 1, HasSubstr("httptools: cannot write /no/such/dir/out")},
      {{"get"}, 2, HasSubstr("usage: httptools")},
      {{"get", srv.url("/echo"), "extra"}, 2, HasSubstr("unexpected argument 'extra'")},
  };
  for (const Case& c : cases) {
    const Outcome o = RunTool(c.args);
    EXPECT_EQ(o.code, c.code) << c.args.back() << ": " << o.err;
    EXPECT_THAT(o.err, c.err) << c.args.back();
    EXPECT_EQ(o.out, c.out) << c.args.back();
  }
}

} // namespace
