// curl as the oracle: each case runs through curl and through httptools against one local server,
// and both must exit alike, print alike and send the server the same requests (User-Agent,
// Accept-Encoding, Connection and header order aside).
#include "support/Process.h"
#include "support/TestHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Header lines that differ between the two clients by design, and the answer's date.
bool Ignored(std::string name, bool keepAgent) {
  for (char& c : name)
    c = char(std::tolower(static_cast<unsigned char>(c)));
  return (name == "user-agent" && !keepAgent) || name == "accept-encoding" || name == "connection" || name == "date" ||
         name == "keep-alive";
}

// A case is a shell command line whose first word (after any NAME=value) is a function: httptools'
// command of that name, or curl with the matching method flags. Only the case's proxy variables are
// set. $B is the server, $P its port, $D a directory of files.
const std::string kUnset = "set -f; unset http_proxy no_proxy NO_PROXY ALL_PROXY all_proxy; ";
const std::string kTool =
    kUnset + R"(for c in get head post put delete; do eval "$c() { \"\$CLI\" $c -sS \"\$@\"; }"; done; )";
const std::string kCurl = kUnset +
                          R"(get() { /usr/bin/curl -sS "$@"; }; post() { get "$@"; }; head() { get -I "$@"; }; )" +
                          R"(put() { get -X PUT "$@"; }; delete() { get -X DELETE "$@"; }; )";

TEST(CurlOracle, SameExitOutputAndRequests) {
  qztest::TestHttpServer server;
  server.installStandardRoutes();
  // What a proxy gets: the absolute URL as the target.
  server.route("*", "http://.*", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content("proxied " + req.method + " " + req.target, "text/plain");
  });
  ASSERT_TRUE(server.start()) << server.lastError();
  std::string dir = (std::filesystem::temp_directory_path() / "httptools-oracle-XXXXXX").string();
  ASSERT_TRUE(mkdtemp(dir.data()));
  std::ofstream(dir + "/lines") << "a=1\r\nb=2\n";
  std::ofstream(dir + "/headers") << "X-From-File: 1\r\nX-Other: two\n";
  std::ofstream(dir + "/netrc") << "machine 127.0.0.1 login al password s3cret\n";
  // Every case gets "from\nstdin" on its standard input.
  const std::vector<std::string> env{"env",      "B=" + server.baseUrl(), "P=" + std::to_string(server.port()),
                                     "D=" + dir, "CLI=" HTTPTOOLS_CLI,    "bash",
                                     "-c"};
  for (const std::string command :
       {"get $B/echo", "get -H 'X-A: 1' -H 'X-B: 2' -H Accept: -H @$D/headers -A agent/1 -u al:pw $B/echo",
        "get --netrc-file $D/netrc $B/echo", "get -i $B/headers", "head $B/headers", "get -I $B/bytes?n=5",
        "get $B/status/404", "get -f $B/status/404", "get -f -i $B/status/500", "get --fail-with-body $B/status/404",
        "get -f $B/status/302", "get $B/redirect/2", "get -L $B/redirect/2", "get -L -i $B/redirect/1",
        "get -L -w '%{http_code} %{response_code} %{url_effective} %{content_type} %{num_redirects} "
        "%{size_download} %{exitcode} %header{x-one}|\\n' $B/redirect/1",
        "get -w %{http_code}:%{exitcode}:%{url_effective} http://127.0.0.1:1/", "get $B/chunked", "get $B/truncated",
        "get -o $D/no/such/dir/file $B/echo", "get -m 0.5 $B/stall?ms=3000", "get 127.0.0.1:$P/echo",
        "get http://127.0.0.1:99999/echo", "get http://127.0.0.1:-1/echo", "get http://127.0.0.1:8x/echo",
        "get http://127.0.0.1:0$P/echo", "get 'http://[::1/echo'", "get --retry 1 --retry-delay 1 $B/status/503",
        "get --retry 1 --retry-delay 1 $B/status/501",
        // Proxied names are never resolved; a client that would resolve one finds "localhost" in /etc/hosts.
        "get -x $B 'http://localhost/path?q=1'", "http_proxy=$B get http://localhost/env",
        "http_proxy=http://127.0.0.1:1 no_proxy=127.0.0.1 get $B/echo",
        "http_proxy=http://127.0.0.1:1 get --noproxy '*' $B/echo", "post -d a=1 -d b=2 $B/echo",
        "post -d @$D/lines $B/echo", "post --data-binary @$D/lines $B/echo",
        "post --data-binary @- $B/echo", // reads the standard input
        "post --data-urlencode 'name=a b&c' --data-urlencode =x/y -d z=1 $B/echo",
        "post --data-urlencode f@$D/lines $B/echo", "post --json '{\"a\":1}' $B/echo",
        "post -d a,b -H 'Content-Type: text/csv' $B/echo", "post -d x $B/status/201", "post -X PATCH -d x $B/echo",
        "put -d 'inline text' $B/echo", "put --data-binary @$D/lines -i $B/status/201", "delete $B/echo",
        "delete -w '%{http_code}\\n' $B/status/204"}) {
    SCOPED_TRACE(command);
    const bool keepAgent = command.find(" -A ") != std::string::npos;
    std::string outs[2], errs[2];
    int codes[2];
    std::vector<std::string> requests[2];
    for (int tool = 0; tool < 2; ++tool) {
      server.resetCounters();
      std::vector<std::string> argv = env;
      argv.push_back((tool ? kTool : kCurl) + command);
      codes[tool] = qztest::RunProgram(argv, "from\nstdin", outs[tool], errs[tool]);
      std::istringstream in(outs[tool]);
      outs[tool].clear();
      for (std::string line; std::getline(in, line);) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos || line.find(' ') < colon || !Ignored(line.substr(0, colon), keepAgent))
          outs[tool] += line + "\n";
      }
      for (const qztest::RecordedRequest& req : server.requests()) {
        std::string text = req.method + " " + req.target + "\n";
        for (const auto& [name, value] : req.headers) // a multimap: sorted by name
          if (!Ignored(name, keepAgent))
            text += name + ": " + value + "\n";
        requests[tool].push_back(text + "\n" + req.body);
      }
    }
    EXPECT_NE(codes[0], 127) << "curl or the tool not run";
    EXPECT_EQ(codes[1], codes[0]) << "curl: " << errs[0] << "\nhttptools: " << errs[1];
    EXPECT_EQ(outs[1], outs[0]);
    EXPECT_EQ(requests[1], requests[0]);
    EXPECT_EQ(errs[1].empty(), errs[0].empty()) << "curl: " << errs[0] << "\nhttptools: " << errs[1];
  }
  std::filesystem::remove_all(dir);
}

} // namespace
