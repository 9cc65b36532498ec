// curl as the oracle: each case runs through curl and through httptools against one local server,
// and both must exit alike, print alike and send the server the same requests (User-Agent,
// Accept-Encoding, Connection and header order aside).
#include "support/Process.h"
#include "support/TestHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Observed {
  int code = -1;
  std::string out, err;
  std::vector<std::string> requests; // one normalised text per request the server got
};

// Header lines that differ between the two clients by design, and the answer's date.
bool Ignored(std::string name, bool keepAgent) {
  for (char& c : name)
    c = char(std::tolower(static_cast<unsigned char>(c)));
  return (name == "user-agent" && !keepAgent) || name == "accept-encoding" || name == "connection" || name == "date" ||
         name == "keep-alive";
}

std::string WithoutIgnoredLines(const std::string& text, bool keepAgent) {
  std::istringstream in(text);
  std::string kept;
  for (std::string line; std::getline(in, line);) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos || line.find(' ') < colon || !Ignored(line.substr(0, colon), keepAgent))
      kept += line + "\n";
  }
  return kept;
}

class CurlOracle : public testing::Test {
protected:
  static void SetUpTestSuite() {
    server = new qztest::TestHttpServer;
    server->installStandardRoutes();
    // What a proxy gets: the absolute URL as the target.
    server->route("*", "http://.*", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content("proxied " + req.method + " " + req.target, "text/plain");
    });
    ASSERT_TRUE(server->start()) << server->lastError();
  }
  static void TearDownTestSuite() {
    delete server;
    server = nullptr;
  }
  void SetUp() override {
    m_dir = (std::filesystem::temp_directory_path() / "httptools-oracle-XXXXXX").string();
    ASSERT_TRUE(mkdtemp(m_dir.data()));
  }
  void TearDown() override { std::filesystem::remove_all(m_dir); }

  std::string file(const std::string& name, const std::string& content) {
    std::ofstream(m_dir + "/" + name, std::ios::binary) << content;
    return m_dir + "/" + name;
  }

  Observed run(std::vector<std::string> argv, const std::string& input, bool keepAgent) {
    server->resetCounters();
    Observed r;
    r.code = qztest::RunProgram(argv, input, r.out, r.err);
    r.out = WithoutIgnoredLines(r.out, keepAgent);
    for (const qztest::RecordedRequest& req : server->requests()) {
      std::string text = req.method + " " + req.target + "\n";
      for (const auto& [name, value] : req.headers) // a multimap: sorted by name
        if (!Ignored(name, keepAgent))
          text += name + ": " + value + "\n";
      r.requests.push_back(text + "\n" + req.body);
    }
    return r;
  }

  std::string m_dir;
  static inline qztest::TestHttpServer* server = nullptr;
};

TEST_F(CurlOracle, SameExitOutputAndRequests) {
  const std::string base = server->baseUrl();
  const std::string hostPort = base.substr(7);
  const std::string lines = file("lines", "a=1\r\nb=2\n");
  const std::string headers = file("headers", "X-From-File: 1\r\nX-Other: two\n");
  const std::string netrc = file("netrc", "machine 127.0.0.1 login al password s3cret\n");
  struct Case {
    std::string command;            // httptools' command; curl gets the matching method flags
    std::vector<std::string> flags; // given to both, before the URL
    std::string url;
    std::string input = "";
    std::vector<std::string> env = {}; // NAME=value for both
  };
  const std::vector<Case> cases{
      {"get", {}, base + "/echo"},
      {"get", {"-H", "X-A: 1", "-H", "X-B: 2", "-H", "Accept:"}, base + "/echo"},
      {"get", {"-H", "@" + headers}, base + "/echo"},
      {"get", {"-A", "agent/1"}, base + "/echo"},
      {"get", {"-u", "al:pw"}, base + "/echo"},
      {"get", {"--netrc-file", netrc}, base + "/echo"},
      {"get", {"-i"}, base + "/headers"},
      {"head", {}, base + "/headers"},
      {"get", {"-I"}, base + "/bytes?n=5"},
      {"get", {}, base + "/status/404"},
      {"get", {"-f"}, base + "/status/404"},
      {"get", {"-f", "-i"}, base + "/status/500"},
      {"get", {"--fail-with-body"}, base + "/status/404"},
      {"get", {"-f"}, base + "/status/302"},
      {"get", {}, base + "/redirect/2"},
      {"get", {"-L"}, base + "/redirect/2"},
      {"get", {"-L", "-i"}, base + "/redirect/1"},
      {"get",
       {"-L", "-w",
        "%{http_code} %{response_code} %{url_effective} %{content_type} %{num_redirects} %{size_download} "
        "%{exitcode} %header{x-one}|\\n"},
       base + "/redirect/1"},
      {"get", {"-w", "%{http_code}:%{exitcode}:%{url_effective}"}, "http://127.0.0.1:1/"},
      {"get", {}, base + "/chunked"},
      {"get", {}, base + "/truncated"},
      {"get", {"-o", m_dir + "/no/such/dir/file"}, base + "/echo"},
      {"get", {"-m", "0.5"}, base + "/stall?ms=3000"},
      {"get", {}, hostPort + "/echo"},
      {"get", {}, "http://127.0.0.1:99999/echo"},
      {"get", {}, "http://127.0.0.1:-1/echo"},
      {"get", {}, "http://127.0.0.1:8x/echo"},
      {"get", {}, "http://127.0.0.1:0" + base.substr(base.rfind(':') + 1) + "/echo"},
      {"get", {}, "http://[::1/echo"},
      {"get", {"--retry", "1", "--retry-delay", "1"}, base + "/status/503"},
      {"get", {"--retry", "1", "--retry-delay", "1"}, base + "/status/501"},
      {"get", {"-x", base}, "http://localhost/path?q=1"},
      {"get", {}, "http://localhost/env", "", {"http_proxy=" + base}},
      {"get", {}, base + "/echo", "", {"http_proxy=http://127.0.0.1:1", "no_proxy=127.0.0.1"}},
      {"get", {"--noproxy", "*"}, base + "/echo", "", {"http_proxy=http://127.0.0.1:1"}},
      {"post", {"-d", "a=1", "-d", "b=2"}, base + "/echo"},
      {"post", {"-d", "@" + lines}, base + "/echo"},
      {"post", {"--data-binary", "@" + lines}, base + "/echo"},
      {"post", {"--data-binary", "@-"}, base + "/echo", "from\nstdin"},
      {"post", {"--data-urlencode", "name=a b&c", "--data-urlencode", "=x/y", "-d", "z=1"}, base + "/echo"},
      {"post", {"--data-urlencode", "f@" + lines}, base + "/echo"},
      {"post", {"--json", R"({"a":1})"}, base + "/echo"},
      {"post", {"-d", "a,b", "-H", "Content-Type: text/csv"}, base + "/echo"},
      {"post", {"-d", "x"}, base + "/status/201"},
      {"post", {"-X", "PATCH", "-d", "x"}, base + "/echo"},
      {"put", {"-d", "inline text"}, base + "/echo"},
      {"put", {"--data-binary", "@" + lines, "-i"}, base + "/status/201"},
      {"delete", {}, base + "/echo"},
      {"delete", {"-w", "%{http_code}\\n"}, base + "/status/204"},
  };
  for (const Case& c : cases) {
    // The proxy variables of the case only. Proxied names are never resolved by the clients; a
    // client that would resolve one anyway finds "localhost" in the hosts file.
    std::vector<std::string> prefix{"env",      "-u", "http_proxy", "-u", "no_proxy", "-u",
                                    "NO_PROXY", "-u", "ALL_PROXY",  "-u", "all_proxy"};
    prefix.insert(prefix.end(), c.env.begin(), c.env.end());
    std::vector<std::string> curl = prefix, tool = prefix;
    curl.insert(curl.end(), {"/usr/bin/curl", "-sS"});
    if (c.command == "head")
      curl.push_back("-I");
    else if (c.command == "put" || c.command == "delete")
      curl.insert(curl.end(), {"-X", c.command == "put" ? "PUT" : "DELETE"});
    tool.insert(tool.end(), {HTTPTOOLS_CLI, c.command, "-sS"});
    for (auto* argv : {&curl, &tool}) {
      argv->insert(argv->end(), c.flags.begin(), c.flags.end());
      argv->push_back(c.url);
    }
    const bool keepAgent = std::find(c.flags.begin(), c.flags.end(), "-A") != c.flags.end();
    const Observed expected = run(curl, c.input, keepAgent);
    const Observed got = run(tool, c.input, keepAgent);
    const std::string trace = testing::PrintToString(tool);
    EXPECT_EQ(got.code, expected.code) << trace << "\ncurl: " << expected.err << "\nhttptools: " << got.err;
    EXPECT_EQ(got.out, expected.out) << trace;
    EXPECT_EQ(got.requests, expected.requests) << trace;
    EXPECT_EQ(got.err.empty(), expected.err.empty())
        << trace << "\ncurl: " << expected.err << "\nhttptools: " << got.err;
  }
}

} // namespace
