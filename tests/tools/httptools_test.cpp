// The httptools program run as a separate process, as a user runs it from a shell: exit codes,
// what goes to stdout, stderr and -o, and what the server receives.
#include "support/NginxFixture.h"
#include "support/Process.h"
#include "support/SilentListener.h"
#include "support/TestHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>

using namespace testing;

namespace {

struct Outcome {
  int code = -1;
  std::string out, err;
  friend void PrintTo(const Outcome& o, std::ostream* os) {
    *os << "exit " << o.code << ", out: " << o.out << ", err: " << o.err;
  }
};

// An outcome: the exit code, and what went to stdout and to stderr.
Matcher<const Outcome&> Is(int code, Matcher<const std::string&> out = _, Matcher<const std::string&> err = _) {
  return AllOf(Field(&Outcome::code, code), Field(&Outcome::out, out), Field(&Outcome::err, err));
}

// `script` run by bash with $CLI the program and the variables of `env` ("NAME=value") set;
// without globbing, so that URLs keep their "?" and "[]" unquoted.
Outcome Sh(const std::string& script, std::vector<std::string> env = {}, const std::string& input = "") {
  env.insert(env.begin(), {"env", "CLI=" HTTPTOOLS_CLI});
  env.insert(env.end(), {"bash", "-c", "set -f; " + script});
  Outcome o;
  o.code = qztest::RunProgram(env, input, o.out, o.err);
  return o;
}

std::string Read(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

// Runs against the shared server, $S in the scripts, with a directory of its own, $D.
class Tool : public testing::Test {
protected:
  void SetUp() override {
    srv.resetCounters();
    ASSERT_TRUE(mkdtemp(m_dir.data()));
  }
  void TearDown() override { std::filesystem::remove_all(m_dir); }
  Outcome run(const std::string& script) { return Sh(script, {"S=" + srv.baseUrl(), "D=" + m_dir}); }
  qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared();
  std::string m_dir = (std::filesystem::temp_directory_path() / "httptools-cli-XXXXXX").string();
};

// --version names the library and its dependencies. Usage errors exit 2 with a message on stderr
// and nothing on stdout, before any request (every --help is checked by man_page_check.sh).
TEST_F(Tool, VersionAndUsageErrors) {
  EXPECT_THAT(run("$CLI --version"),
              Is(0, AllOf(StartsWith("HttpTools 3.0.0.17 2022-7\n"), HasSubstr("libcurl/"), HasSubstr("OpenSSL"))));
  for (const char* args :
       {"", "nonsense", "get", "get --expect abc $S/echo", "get --expect 600 $S/echo", "get --no-such-option $S/echo",
        "post -d x --json {} $S/echo", "jwt", "jwt sign --alg HS256 {}", "jwt sign --alg HS999 --secret s {}",
        "jwt sign --alg HS256 --secret s --key /no/such.pem {}", "jwt verify --secret s --algs HS256,XX1 t", "url",
        "couch view $S/db design-without-view", "get --parallel-max 0 $S/echo", "get -Z", "get -Z --bogus $S/echo",
        "get -Z -o /dev/null -o /dev/null $S/echo"})
    EXPECT_THAT(run(std::string("$CLI ") + args), Is(2, IsEmpty(), Not(IsEmpty()))) << args;
  EXPECT_EQ(srv.requestCount(), 0u);
}

TEST_F(Tool, OutputFileWriteOutAndVerbose) {
  // -w goes to stdout, the body to the file.
  EXPECT_THAT(run("$CLI get -o $D/out -w '%{http_code} %{size_download} %%\\n' $S/bytes?n=70000 && wc -c <$D/out && "
                  "head -c 3 $D/out"),
              Is(0, "200 70000 %\n70000\nabc"));

  // --expect: any other status exits 22, the body still written; -s: no message.
  EXPECT_THAT(run("$CLI put -s --expect 201 -w %{http_code}:%{size_upload}:%{exitcode} -d 12345 $S/status/409"),
              Is(22, "status 409409:5:22", IsEmpty()));
  EXPECT_THAT(run("$CLI delete --expect 409 $S/status/409"), Is(0));

  // A closed pipe ends the transfer quietly with 23, not with SIGPIPE.
  EXPECT_THAT(run("$CLI get $S/bytes?n=3000000 | head -c 10 >/dev/null; exit ${PIPESTATUS[0]}"), Is(23, _, IsEmpty()));

  // -v: the lines as they happen (the body waits until the status line is on stderr), credentials
  // redacted.
  const std::string err = m_dir + "/err";
  qztest::TestHttpServer own;
  own.route("GET", "/held", [&](const httplib::Request&, httplib::Response& res) {
    res.set_chunked_content_provider("text/plain", [&](size_t, httplib::DataSink& sink) {
      auto seen = [&] { return Read(err).find("< HTTP/1.1 200 OK\n") != std::string::npos; };
      for (int i = 0; i < 1000 && !seen() && own.sleepUnlessStopping(10); ++i) {
      }
      sink.os << (seen() ? "live" : "late");
      sink.done();
      return true;
    });
  });
  ASSERT_TRUE(own.start()) << own.lastError();
  EXPECT_THAT(run("$CLI get -v -u al:s3cret -H 'Cookie: k=v' " + own.url("/held") + " 2>" + err), Is(0, "live"));
  EXPECT_THAT(Read(err), AllOf(HasSubstr("*   Trying 127.0.0.1:"), HasSubstr("> GET /held HTTP/1.1\n"),
                               HasSubstr("> Authorization: Basic [redacted]\n"), HasSubstr("> Cookie: [redacted]\n"),
                               HasSubstr("\n< \n"), Not(ContainsRegex("s3cret|YWw6czNjcmV0|k=v|DataIn"))));
}

// curl as the oracle: each case runs through curl and through httptools against one local server,
// and both must exit alike, print alike and send the server the same requests (User-Agent,
// Accept-Encoding, Connection and header order aside). A case is a shell command line whose first
// word (after any NAME=value) is a function: curl with the method flags of that name, or the
// httptools command. Only the case's proxy variables are set; $B is the server, $P its port.
TEST_F(Tool, SameExitOutputAndRequestsAsCurl) {
  const std::string unset = "unset http_proxy no_proxy NO_PROXY ALL_PROXY all_proxy; ";
  const std::string clients[] = {
      unset + R"(get() { /usr/bin/curl -sS "$@"; }; post() { get "$@"; }; head() { get -I "$@"; }; )" +
          R"(put() { get -X PUT "$@"; }; delete() { get -X DELETE "$@"; }; )",
      unset + R"(for c in get head post put delete; do eval "$c() { \"\$CLI\" $c -sS \"\$@\"; }"; done; )"};
  qztest::TestHttpServer server;
  server.installStandardRoutes();
  // What a proxy gets: the absolute URL as the target.
  server.route("*", "http://.*", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content("proxied " + req.method + " " + req.target, "text/plain");
  });
  ASSERT_TRUE(server.start()) << server.lastError();
  run(R"(printf 'a=1\r\nb=2\n' >$D/lines; printf 'X-From-File: 1\r\nX-Other: two\n' >$D/headers; )"
      R"(echo machine 127.0.0.1 login al password s3cret >$D/netrc)");
  const std::vector<std::string> env{"B=" + server.baseUrl(), "P=" + std::to_string(server.port()), "D=" + m_dir};
  for (const std::string command :
       {"get -H 'X-A: 1' -H 'X-B: 2' -H Accept: -H @$D/headers -A agent/1 -u al:pw $B/echo",
        "get --netrc-file $D/netrc $B/echo", "head $B/headers", "get $B/status/404", "get -f -i $B/status/500",
        "get --fail-with-body $B/status/404", "get -f $B/status/302", "get $B/redirect/2", "get -L -i $B/redirect/2",
        "get -L -w '%{http_code} %{response_code} %{url_effective} %{content_type} %{num_redirects} "
        "%{size_download} %{exitcode} %header{x-one}|\\n' $B/redirect/1",
        "get -w %{http_code}:%{exitcode}:%{url_effective} http://127.0.0.1:1/", "get $B/chunked", "get $B/truncated",
        "get -o $D/no/such/dir/file $B/echo", "get -m 0.5 $B/stall?ms=3000", "get 127.0.0.1:$P/echo",
        "get http://127.0.0.1:0$P/echo", "get 'http://[::1/echo'", "get --retry 1 --retry-delay 1 $B/status/503",
        "get --retry 1 --retry-delay 1 $B/status/501",
        // Proxied names are never resolved; a client that would resolve one finds "localhost" in /etc/hosts.
        "get -x $B 'http://localhost/path?q=1'", "http_proxy=$B get http://localhost/env",
        "http_proxy=http://127.0.0.1:1 no_proxy=127.0.0.1 get $B/echo",
        "http_proxy=http://127.0.0.1:1 get --noproxy '*' $B/echo", "post -d a=1 -d b=2 $B/echo",
        "post -d @$D/lines $B/echo", "post --data-binary @$D/lines $B/echo",
        "post --data-binary @- $B/echo", // reads the standard input
        "post --data-urlencode 'name=a b&c' --data-urlencode =x/y --data-urlencode f@$D/lines -d z=1 $B/echo",
        "post --json '{\"a\":1}' $B/echo", "post -d a,b -H 'Content-Type: text/csv' $B/echo",
        "post -X PATCH -d x $B/echo", "put --data-binary @$D/lines -i $B/status/201",
        "delete -w '%{http_code}\\n' $B/status/204"}) {
    // Header lines that differ between the two clients by design (User-Agent unless -A sets it),
    // and the answer's date.
    const std::regex ignored(std::string("\n(") + (command.find(" -A ") == std::string::npos ? "user-agent|" : "") +
                                 "accept-encoding|connection|date|keep-alive):[^\n]*",
                             std::regex::icase);
    // The exit code, whether anything went to stderr, stdout, then each request.
    std::string seen[2], err[2];
    for (int tool = 0; tool < 2; ++tool) {
      server.resetCounters();
      const Outcome o = Sh(clients[tool] + command, env, "from\nstdin");
      seen[tool] = std::to_string(o.code) + (o.err.empty() ? "" : " with a message") + "\n" + o.out;
      for (const qztest::RecordedRequest& req : server.requests()) {
        seen[tool] += "\n--- " + req.method + " " + req.target;
        for (const auto& [name, value] : req.headers) // a multimap: sorted by name
          seen[tool] += "\n" + name + ": " + value;
        seen[tool] += "\n\n" + req.body;
      }
      err[tool] = o.err;
    }
    EXPECT_EQ(std::regex_replace(seen[1], ignored, ""), std::regex_replace(seen[0], ignored, ""))
        << command << "\ncurl: " << err[0] << "\nhttptools: " << err[1];
  }
}

// get -Z / --parallel: standard output keeps the order of the URLs while three 400 ms answers
// overlap (one after the other they would add 1.2 s to the tool's own run time). One -o per URL,
// -w and -f for each transfer, and the exit code of the first URL (in argument order) that failed,
// whichever failed first in time.
TEST_F(Tool, ParallelGet) {
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(run("$CLI get -Z $S/bytes?n=1").code, 0);
  const auto base = std::chrono::steady_clock::now() - start;
  start = std::chrono::steady_clock::now();
  EXPECT_THAT(run("$CLI get --parallel --parallel-max 3 $S/stall?ms=400 $S/bytes?n=5 $S/stall?ms=400 $S/status/200 "
                  "$S/stall?ms=400"),
              Is(0, "lateabcdelatestatus 200late", IsEmpty()));
  EXPECT_LT(std::chrono::steady_clock::now() - start, base + std::chrono::milliseconds(900));

  EXPECT_THAT(run("$CLI get -Z -f -w [%{http_code}] -o $D/one -o $D/two $S/bytes?n=3 $S/status/404 $S/echo "
                  "http://127.0.0.1:1/ $S/stall?ms=300"),
              Is(22, MatchesRegex("\\[200\\]\\[404\\]GET\n(.|\n)*\\[200\\]\\[000\\]late\\[200\\]"),
                 HasSubstr("httptools get: HTTP status 404 from " + srv.url("/status/404"))));
  EXPECT_THAT(run("cat $D/one && ls $D"), Is(0, "abcone\n")); // -f: the failed URL writes nothing
  // Without -f a 404 is an answer; the refused port is the first failure.
  EXPECT_THAT(run("$CLI get -Z -s $S/status/404 http://127.0.0.1:1/ $S/stall?ms=3000 -m 0.5"),
              Is(7, "status 404", IsEmpty()));
}

// Ctrl-C ends a follow at once, with what it printed so far and exit 0, also while the feed is
// silent (libcurl alone would notice only about once a second).
TEST_F(Tool, InterruptEndsAQuietFollow) {
  qztest::TestHttpServer own;
  own.route("GET", "/db/_changes", [&own](const httplib::Request&, httplib::Response& res) {
    res.set_chunked_content_provider("application/json", [&own](size_t, httplib::DataSink& sink) {
      sink.os << "{\"seq\":\"1-q\",\"id\":\"a\",\"changes\":[{\"rev\":\"1-x\"}]}\n";
      while (own.sleepUnlessStopping(50)) {
      }
      return false;
    });
  });
  ASSERT_TRUE(own.start()) << own.lastError();
  // Once the line is out, the tool waits on a silent connection. The script tells when the tool
  // took 700 ms or more from the SIGINT to its end (libcurl alone: up to 1 s; killed after 5 s),
  // prints the feed and exits with the tool's status. Job control: a background job of a script
  // would ignore SIGINT otherwise.
  EXPECT_THAT(run("set -m; $CLI couch changes " + own.url("/db") +
                  " --follow >$D/feed & p=$!; for i in $(seq 1000); do [ -s $D/feed ] && break; sleep 0.01; done; "
                  "t=$(date +%s%N); kill -INT $p; for i in $(seq 500); do kill -0 $p 2>/dev/null || break; sleep 0.01; "
                  "done; kill -9 $p 2>/dev/null; wait $p; rc=$?; ms=$((($(date +%s%N) - t) / 1000000)); "
                  "[ $ms -lt 700 ] || echo took $ms ms; cat $D/feed; exit $rc"),
              Is(0, AllOf(HasSubstr(R"("id":"a")"), Not(HasSubstr("took")))));
}

// Each family of network commands but ping, against a refused port, a server that never answers,
// a name that does not resolve and URLs refused before anything is sent: the same exit code for
// each cause on every command, within a bound, and no library log line. The other commands of a
// family (head, put, couch get, es get...) share its connection code.
TEST(ToolExitCodes, EveryCommandFailsFastWithTheCodeOfItsCause) {
  qztest::SilentListener silent;
  const std::string silentBase = silent.url().substr(0, silent.url().size() - 1); // without the "/"
  // A network namespace of its own without routes: the name's DNS query cannot leave it.
  const std::string isolated = "unshare -n sh -c 'ip link set lo up && exec \"$@\"' sh ";
  const std::tuple<std::string, std::string, int, std::string> targets[] = {
      {"http://127.0.0.1:1", "", 7, ""},
      {silentBase, "-m 0.3", 28, ""},
      {"http://no-such-host.invalid", "", 6, isolated},
      {"http://127.0.0.1:99999", "", 3, ""},
      {"http://127.0.0.1:+80", "", 3, ""}};
  // $X: options before the URL.
  for (const auto& [base, extra, code, wrapper] : targets)
    for (const char* command :
         {"get $X $B/x", "get -Z $X $B/a $B/b", "couch view $X $B/db", "couch changes $X $B/db", "es search $X $B/idx",
          "es bulk $X $B/idx", "jwt verify $X --jwks $B/jwks a.b.c", "river $X $B/db $B/alias"}) {
      EXPECT_THAT(Sh(wrapper + "timeout 3 $CLI " + command, {"B=" + base, "X=" + extra}),
                  Is(code, _, Not(HasSubstr("[error]"))))
          << base << ": " << command;
      silent.accepted(); // keeps the backlog free
    }
}

// jwt: a token signed by one command is checked by the next; refusals say why and exit 1.
TEST(ToolJwt, SignVerifyDecode) {
  qztest::TestHttpServer keys;
  keys.route("GET", "/jwks", [](const httplib::Request& req, httplib::Response& res) {
    res.status = req.get_header_value("X-Key") == "k" ? 200 : 403;
    res.set_content(R"({"keys":[]})", "application/json");
  });
  ASSERT_TRUE(keys.start()) << keys.lastError();
  // $T: the token, signed anew for each case; $K: RS256 with kid "nope" and any signature, refused at
  // the key lookup.
  const std::string sign = R"(T=$($CLI jwt sign --alg hs384 --secret s3 '{"sub":"al"}') || exit 9; )";
  const std::tuple<std::string, int, Matcher<const std::string&>, Matcher<const std::string&>> cases[] = {
      {"verify --secret s3 - <<<$T", 0, HasSubstr(R"("sub": "al")"), IsEmpty()},
      {"verify --secret other $T", 1, IsEmpty(), HasSubstr("ignature")},
      {"verify --secret s3 --algs HS256,HS512 $T", 1, IsEmpty(), Not(IsEmpty())},
      {"decode $T", 0, AllOf(HasSubstr(R"("alg": "HS384")"), HasSubstr(R"("sub": "al")")), IsEmpty()},
      {"decode a.b", 1, IsEmpty(), HasSubstr("Malformed jwt")},
      // The key set: fetched with -H, a status of its own, a kid it lacks.
      {"verify --jwks $J -H 'X-Key: k' $K", 1, IsEmpty(), HasSubstr("no usable key for kid 'nope'")},
      {"verify --jwks $J $K", 22, IsEmpty(), HasSubstr("cannot fetch the key set http://127.0.0.1:")},
      // Without --ttl the token lives one hour: the seconds left.
      {R"(decode $T | grep -Eo '"exp": [0-9]+' | { read -r _ e; echo $((e - $(date +%s))); })", 0,
       MatchesRegex("(3600|35[7-9][0-9])\n"), IsEmpty()}};
  const std::vector<std::string> env{
      "J=" + keys.url("/jwks"), "K=eyJhbGciOiJSUzI1NiIsImtpZCI6Im5vcGUifQ.eyJzdWIiOiJ4IiwiZXhwIjo0MTAyNDQ0ODAwfQ.c2ln"};
  for (const auto& [args, code, out, err] : cases)
    EXPECT_THAT(Sh(sign + "$CLI jwt " + args, env), Is(code, out, err)) << args;
}

// couch view takes the database URL with or without a trailing slash; --keys JSON values, one
// array of them or one per option, a text that is not JSON as a string.
TEST(ToolCouch, ViewOfADatabaseUrl) {
  qztest::TestHttpServer server;
  // The second row's value: the request's body, 0 without one.
  server.route("*", "/shop/_design/app/_view/by_city", [](const httplib::Request& req, httplib::Response& res) {
    const std::string rows = R"({"id":"o1","key":"Lyon","value":12.5},{"id":"o2","key":["Paris",1],"value":)";
    res.set_content(R"({"rows":[)" + rows + (req.body.empty() ? "0" : req.body) + "}]}", "application/json");
  });
  ASSERT_TRUE(server.start()) << server.lastError();
  const std::vector<std::string> env{"S=" + server.baseUrl()};
  const std::pair<const char*, const char*> cases[] = {
      {"$S/shop", "0"},
      {"$S/shop/ --keys '[1,\"a\",[2,3]]'", R"({"keys":[1,"a",[2,3]]})"},
      {"$S/shop --keys 1 --keys a --keys [2,3]", R"({"keys":[1,"a",[2,3]]})"}};
  for (const auto& [args, body] : cases)
    EXPECT_THAT(Sh(std::string("$CLI couch view ") + args + " app by_city", env),
                Is(0, "o1\tLyon\t12.5\no2\t[\"Paris\",1]\t" + std::string(body) + "\n"))
        << args;
  EXPECT_THAT(Sh("$CLI couch view $S/other app by_city", env), Is(22, _, HasSubstr("httptools couch view: ")));
}

// TLS against nginx's self-signed certificate for 127.0.0.1: every command refuses it as curl does
// (60), and takes it with -k or with the certificate as the CA file (nginx has no such API: 22;
// the key set is no JSON and the token no token: 1).
TEST(ToolTls, SelfSignedCertificateOnLoopback) {
  qztest::NginxFixture nginx;
  ASSERT_TRUE(nginx.start()) << nginx.lastError();
  const std::vector<std::string> env{"S=" + nginx.httpsUrl(""), "C=" + nginx.certificatePath()};
  // get answers "ok"; es search shares its connection options with the couch commands.
  const std::tuple<std::string, std::string, int> tools[] = {
      {"get -s", "$S/small", 0}, {"es search", "$S/idx", 22}, {"jwt verify", "--jwks $S/small a.b.c", 1}};
  for (const auto& [command, rest, trustedCode] : tools)
    for (const char* trust : {"", "-k", "--cacert $C"})
      EXPECT_THAT(Sh("$CLI " + command + " " + trust + " " + rest, env),
                  Is(*trust ? trustedCode : 60, *trust && !trustedCode ? Matcher<const std::string&>("ok") : _))
          << command << " " << trust;
}

} // namespace
