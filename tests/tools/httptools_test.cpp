// The httptools program run as a separate process, as a user runs it: exit codes, what goes to
// stdout, stderr and -o, and what the server receives.
#include "support/NginxFixture.h"
#include "support/Process.h"
#include "support/TestHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
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

std::string Joined(const std::vector<std::string>& args) {
  std::string s;
  for (const std::string& a : args)
    s += (s.empty() ? "" : " ") + a;
  return s;
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

// --version prints the library's version and its dependencies' (every command's --help is checked
// with the man page: tests/tools/man_page_check.sh).
TEST_F(Tool, Version) {
  const Outcome v = RunTool({"--version"});
  EXPECT_EQ(v.code, 0);
  EXPECT_THAT(v.out, AllOf(StartsWith("HttpTools 3.0.0.17 2022-7\n"), HasSubstr("libcurl/"), HasSubstr("OpenSSL")));
}

// Usage errors exit 2 with a message on stderr and nothing on stdout, before any request.
TEST_F(Tool, UsageErrorsExitTwo) {
  const std::string echo = srv.url("/echo");
  const std::vector<std::vector<std::string>> cases{
      {},
      {"nonsense"},
      {"get"},
      {"get", echo, "extra"},
      {"get", "--expect", "abc", echo},
      {"get", "--expect", "99", echo},
      {"get", "--expect", "600", echo},
      {"get", "--no-such-option", echo},
      {"get", "http://[zz/"},
      {"post", "-d", "x", "--json", "{}", echo},
      {"jwt"},
      {"jwt", "sign", "--alg", "HS256", "{}"},
      {"jwt", "sign", "--alg", "HS999", "--secret", "s", "{}"},
      {"jwt", "sign", "--alg", "HS256", "--secret", "s", "--key", "/no/such.pem", "{}"},
      {"jwt", "verify", "--secret", "s", "--algs", "HS256,XX1", "t"},
      {"url"},
      {"couch", "view", srv.url("/db"), "design-without-view"},
      {"couch", "view", "not a url"},
  };
  for (const auto& args : cases) {
    const Outcome o = RunTool(args);
    EXPECT_EQ(o.code, 2) << Joined(args) << ": " << o.err;
    EXPECT_THAT(o.err, Not(IsEmpty())) << Joined(args);
    EXPECT_THAT(o.out, IsEmpty()) << Joined(args);
  }
  EXPECT_EQ(srv.requestCount(), 0u);
}

// Each method and body form: what the server gets and what the tool prints.
TEST_F(Tool, MethodsSendBodiesAndHeaders) {
  const std::string bodyFile = file("body", "from-file");
  struct Case {
    std::vector<std::string> args;
    std::string input;
    const char* method;
    const char* body;
    const char* contentType;
  };
  const std::string echo = srv.url("/echo");
  const std::vector<Case> cases{
      {{"get", "-H", "X-One: 1", "--header", "X-Two: 2", echo}, "", "GET", "", nullptr},
      {{"delete", echo}, "", "DELETE", "", nullptr},
      {{"put", "-d", "inline text", echo}, "", "PUT", "inline text", "application/octet-stream"},
      {{"put", "-d", "@" + bodyFile, echo}, "", "PUT", "from-file", nullptr},
      {{"post", "--data", "@-", "-H", "Content-Type: text/csv", echo}, "a,b\n", "POST", "a,b\n", "text/csv"},
      {{"post", "--json", R"({"a":1})", echo}, "", "POST", R"({"a":1})", "application/json"},
      {{"put", "--json", "@-", echo}, "[2]", "PUT", "[2]", "application/json"},
      {{"put", echo}, "ignored", "PUT", "", nullptr},
  };
  for (const Case& c : cases) {
    const Outcome o = RunTool(c.args, c.input);
    EXPECT_EQ(o.code, 0) << Joined(c.args) << ": " << o.err;
    EXPECT_THAT(o.out, AllOf(StartsWith(std::string(c.method) + "\n"), HasSubstr(std::string("\n\n") + c.body)))
        << Joined(c.args);
    EXPECT_THAT(o.err, IsEmpty()) << Joined(c.args); // no terminal, so no progress line
    const auto req = srv.lastRequest();
    EXPECT_EQ(req.method, c.method);
    EXPECT_EQ(req.body, c.body) << Joined(c.args);
    if (c.contentType) {
      EXPECT_EQ(req.header("Content-Type"), c.contentType) << Joined(c.args);
    }
    // --json also asks for JSON back, as curl's does.
    EXPECT_EQ(req.header("Accept") == "application/json", c.args[1] == "--json") << Joined(c.args);
  }
  const auto requests = srv.requests();
  ASSERT_FALSE(requests.empty());
  EXPECT_EQ(requests.front().header("X-One"), "1");
  EXPECT_EQ(requests.front().header("X-Two"), "2");

  const Outcome head = RunTool({"head", srv.url("/headers")});
  EXPECT_EQ(head.code, 0) << head.err;
  EXPECT_THAT(head.out, AllOf(StartsWith("HTTP 200\n"), HasSubstr("x-one: 1\n")));
}

TEST_F(Tool, OutputFileWriteOutAndVerbose) {
  const std::string out = file("out");
  Outcome o = RunTool({"get", "-o", out, "-w", R"(%{http_code} %{size_download} %%\n)", srv.url("/bytes?n=70000")});
  EXPECT_EQ(o.code, 0) << o.err;
  EXPECT_EQ(o.out, "200 70000 %\n"); // -w goes to stdout, the body to the file
  const std::string body = read(out);
  ASSERT_EQ(body.size(), 70000u);
  EXPECT_EQ(body.substr(0, 3), "abc");

  o = RunTool({"put", "-s", "-w", "%{http_code}:%{size_upload}:%{exitcode}", "-d", "12345", srv.url("/status/409")});
  EXPECT_EQ(o.code, 22);
  EXPECT_EQ(o.out, "status 409409:5:22");
  EXPECT_THAT(o.err, IsEmpty()); // -s: no message

  o = RunTool({"get", "-v", srv.url("/echo")});
  EXPECT_EQ(o.code, 0);
  EXPECT_THAT(o.err, AllOf(HasSubstr("> GET /echo HTTP/1.1\n"), HasSubstr("> Host: 127.0.0.1:"),
                           HasSubstr("< HTTP/1.1 200 OK\n"), Not(HasSubstr("DataIn"))));
}

// On a terminal (script(1) gives one), a transfer over a second shows a progress line on stderr;
// -s hides it.
TEST_F(Tool, ProgressLineOnATerminal) {
  const std::string out = file("slow");
  for (const bool silent : {false, true}) {
    const std::string command = std::string(HTTPTOOLS_CLI) + " get " + (silent ? "-s " : "") + "-o " + out + " '" +
                                srv.url("/slow?blocks=14&size=1000&delay=100") + "'";
    Outcome o;
    o.code = qztest::RunProgram({"script", "-qec", command, "/dev/null"}, "", o.out, o.err);
    EXPECT_EQ(o.code, 0) << o.out << o.err;
    EXPECT_EQ(read(out).size(), 14000u);
    if (silent)
      EXPECT_THAT(o.out, Not(HasSubstr("/s"))) << o.out;
    else
      EXPECT_THAT(o.out, AllOf(HasSubstr("\r"), HasSubstr(" KiB/s"))) << o.out; // no length announced: no "of"
  }
}

// Failures: curl's exit code for the cause and one line saying why on stderr; stdout has what
// the server answered, if anything.
TEST_F(Tool, FailuresExitWithCurlsCodes) {
  struct Case {
    std::vector<std::string> args;
    int code;
    testing::Matcher<std::string> err;
    const char* out = "";
  };
  const std::vector<Case> cases{
      {{"get", srv.url("/status/404")},
       22,
       StartsWith("httptools get: HTTP status 404 from http://127.0.0.1:"),
       "status 404"},
      {{"put", srv.url("/status/500")}, 22, HasSubstr("HTTP status 500 from http://"), "status 500"},
      {{"put", "--expect", "201", srv.url("/status/200")}, 22, HasSubstr(", expected 201\n"), "status 200"},
      {{"put", "--expect", "201", srv.url("/status/201")}, 0, IsEmpty(), "status 201"},
      {{"delete", "--expect", "409", srv.url("/status/409")}, 0, IsEmpty(), "status 409"},
      {{"get", "--expect", "409", srv.url("/status/200")}, 22, HasSubstr("expected 409"), "status 200"},
      {{"post", "--expect", "599", srv.url("/status/599")}, 0, IsEmpty(), "status 599"},
      {{"get", "-sS", srv.url("/status/503")}, 22, HasSubstr("HTTP status 503"), "status 503"},
      {{"get", "http://127.0.0.1:1/"}, 7, AllOf(StartsWith("httptools get: "), HasSubstr("Curl error : 7 ("))},
      {{"get", "-s", "http://127.0.0.1:1/"}, 7, IsEmpty()},
      {{"get", "http://no-such-host.invalid/"}, 6, HasSubstr("Curl error : 6 (")},
      {{"get", "--max-time", "0.3", srv.url("/stall?ms=3000")}, 28, HasSubstr("Curl error : 28 (")},
      {{"get", "--max-filesize", "10", srv.url("/bytes?n=100")},
       63,
       HasSubstr("Response body larger than the limit of 10 bytes")},
      {{"get", "--max-filesize", "26", srv.url("/bytes?n=26")}, 0, IsEmpty(), "abcdefghijklmnopqrstuvwxyz"},
      {{"post", "-d", "@/no/such/file", srv.url("/echo")}, 1, HasSubstr("httptools post: cannot read /no/such/file")},
      {{"get", "-o", "/no/such/dir/out", srv.url("/echo")},
       1,
       HasSubstr("httptools get: cannot write /no/such/dir/out")},
  };
  for (const Case& c : cases) {
    const Outcome o = RunTool(c.args);
    EXPECT_EQ(o.code, c.code) << Joined(c.args) << ": " << o.err;
    EXPECT_THAT(o.err, c.err) << Joined(c.args);
    EXPECT_EQ(o.out, c.out) << Joined(c.args);
  }
}

// Ctrl-C ends a follow at once, with what it printed so far and exit 0, also while the feed is
// silent (libcurl alone would notice only about once a second).
TEST_F(Tool, InterruptEndsAQuietFollow) {
  qztest::TestHttpServer own;
  own.route("GET", "/db/_changes", [&own](const httplib::Request&, httplib::Response& res) {
    res.set_chunked_content_provider("application/json", [&own](size_t, httplib::DataSink& sink) {
      const std::string line = R"({"seq":"1-q","id":"a","changes":[{"rev":"1-x"}]})"
                               "\n";
      sink.write(line.data(), line.size());
      while (own.sleepUnlessStopping(50)) {
      }
      return false;
    });
  });
  ASSERT_TRUE(own.start()) << own.lastError();
  const std::string out = file("feed.jsonl");
  const std::string url = own.url("/db");
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, 1);
    ::execl(HTTPTOOLS_CLI, HTTPTOOLS_CLI, "couch", "changes", url.c_str(), "--follow", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ASSERT_GT(pid, 0);
  for (int i = 0; i < 500 && read(out).empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the transfer is idle again
  const auto t0 = std::chrono::steady_clock::now();
  ::kill(pid, SIGINT);
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0 && std::chrono::steady_clock::now() - t0 < std::chrono::seconds(5))
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const auto took = std::chrono::steady_clock::now() - t0;
  if (took >= std::chrono::seconds(5)) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  }
  EXPECT_LT(took, std::chrono::milliseconds(300));
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_THAT(read(out), HasSubstr(R"("id":"a")"));
}

// jwt: a token signed by one command is checked by the next; refusals say why and exit 1.
TEST(ToolJwt, SignVerifyDecode) {
  const Outcome signed_ =
      RunTool({"jwt", "sign", "--alg", "hs384", "--secret", "s3", "--ttl", "60", R"({"sub":"al"})"});
  ASSERT_EQ(signed_.code, 0) << signed_.err;
  const std::string token = signed_.out.substr(0, signed_.out.find('\n'));
  struct Case {
    std::vector<std::string> args;
    std::string input;
    int code;
    testing::Matcher<std::string> out, err;
  };
  const std::vector<Case> cases{
      {{"jwt", "verify", "--secret", "s3", token}, "", 0, HasSubstr(R"("sub": "al")"), IsEmpty()},
      {{"jwt", "verify", "--secret", "s3", "-"}, token + "\n", 0, HasSubstr(R"("sub": "al")"), IsEmpty()},
      {{"jwt", "verify", "--secret", "other", token}, "", 1, IsEmpty(), HasSubstr("ignature")},
      {{"jwt", "verify", "--secret", "s3", "--algs", "HS256,HS512", token}, "", 1, IsEmpty(), Not(IsEmpty())},
      {{"jwt", "decode", token}, "", 0, AllOf(HasSubstr(R"("alg": "HS384")"), HasSubstr(R"("sub": "al")")), IsEmpty()},
      {{"jwt", "decode", "a.b"}, "", 1, IsEmpty(), HasSubstr("Malformed jwt")},
      {{"jwt", "sign", "--alg", "HS256", "--secret", "s", "{}"},
       "",
       1,
       IsEmpty(),
       HasSubstr("no token: the claims have no \"exp\"")},
  };
  for (const Case& c : cases) {
    const Outcome o = RunTool(c.args, c.input);
    EXPECT_EQ(o.code, c.code) << Joined(c.args) << ": " << o.err;
    EXPECT_THAT(o.out, c.out) << Joined(c.args);
    EXPECT_THAT(o.err, c.err) << Joined(c.args);
  }
}

// couch view takes the database URL with or without a trailing slash.
TEST(ToolCouch, ViewOfADatabaseUrl) {
  qztest::TestHttpServer server;
  server.route("GET", "/shop/_design/app/_view/by_city", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(R"({"total_rows":2,"offset":0,"rows":[
{"id":"o1","key":"Lyon","value":12.5},
{"id":"o2","key":["Paris",1],"value":{"n":40}}
]})",
                    "application/json");
  });
  ASSERT_TRUE(server.start()) << server.lastError();
  for (const std::string& db : {server.url("/shop"), server.url("/shop/")}) {
    const Outcome o = RunTool({"couch", "view", db, "app", "by_city"});
    EXPECT_EQ(o.code, 0) << db << ": " << o.err;
    EXPECT_EQ(o.out, "o1\tLyon\t12.5\no2\t[\"Paris\",1]\t{\"n\":40}\n") << db;
  }
  const Outcome missing = RunTool({"couch", "view", server.url("/other"), "app", "by_city"});
  EXPECT_EQ(missing.code, 22) << missing.err;
  EXPECT_THAT(missing.err, HasSubstr("httptools couch view: "));
}

// TLS against nginx's self-signed certificate for 127.0.0.1: refused as curl refuses it, taken
// with -k or with the certificate as the CA file.
TEST(ToolTls, SelfSignedCertificateOnLoopback) {
  qztest::NginxFixture nginx;
  ASSERT_TRUE(nginx.start()) << nginx.lastError();
  const std::string url = nginx.httpsUrl("/small");
  Outcome o = RunTool({"get", url});
  EXPECT_EQ(o.code, 60) << o.err;
  EXPECT_THAT(o.err, HasSubstr("Curl error : 60 ("));
  EXPECT_THAT(o.out, IsEmpty());
  for (const std::vector<std::string>& trusted :
       {std::vector<std::string>{"get", "-k", url}, {"get", "--cacert", nginx.certificatePath(), url}}) {
    o = RunTool(trusted);
    EXPECT_EQ(o.code, 0) << Joined(trusted) << ": " << o.err;
    EXPECT_EQ(o.out, "ok") << Joined(trusted);
  }
}

} // namespace
