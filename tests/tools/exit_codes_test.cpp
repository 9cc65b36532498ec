// Every network command but ping, against a refused port, a name that does not resolve and a
// server that never answers: curl's exit code for each cause, within a bound.
#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace {

// A listener that accepts connections into its backlog and never reads or answers.
class SilentListener {
public:
  SilentListener() {
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&a), len) == 0 && ::listen(m_fd, 256) == 0 &&
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
      m_port = ntohs(a.sin_port);
  }
  ~SilentListener() { ::close(m_fd); }
  int port() const { return m_port; }

private:
  int m_fd = -1;
  int m_port = 0;
};

// The command for a server at `base`, as a user types it.
std::vector<std::vector<std::string>> Commands(const std::string& base) {
  return {
      {"get", base + "/x"},
      {"head", base + "/x"},
      {"put", "-d", "x", base + "/x"},
      {"post", "--json", "{}", base + "/x"},
      {"delete", base + "/x"},
      {"get", "-Z", base + "/a", base + "/b"},
      {"couch", "view", base + "/db"},
      {"couch", "changes", base + "/db"},
      {"couch", "get", base + "/db", "id"},
      {"couch", "upload", base + "/db"},
      {"couch", "conflicts", base + "/db"},
      {"es", "search", base + "/idx"},
      {"es", "get", base + "/idx", "id"},
      {"es", "bulk", base + "/idx"},
      {"jwt", "verify", "--jwks", base + "/jwks", "a.b.c"},
      {"river", base + "/db", base + "/alias"},
  };
}

int64_t MsSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t).count();
}

TEST(ExitCodes, EveryCommandFailsFastWithCurlsCode) {
  SilentListener silent;
  ASSERT_GT(silent.port(), 0) << "cannot listen on 127.0.0.1";
  struct Target {
    const char* what;
    std::string base;
    std::vector<std::string> extra; // options before the URL
    int code;
    int64_t boundMs;
    std::vector<std::string> wrapper = {};
  };
  const std::vector<Target> targets{
      {"refused port", "http://127.0.0.1:1", {}, 7, 2000},
      {"silent server", "http://127.0.0.1:" + std::to_string(silent.port()), {"-m", "1"}, 28, 4000},
      // A network namespace of its own without routes: the name's DNS query cannot leave it.
      {"unresolvable name",
       "http://no-such-host.invalid",
       {},
       6,
       4000,
       {"unshare", "-n", "sh", "-c", "ip link set lo up && exec \"$@\"", "sh"}},
  };
  for (const Target& t : targets) {
    for (std::vector<std::string> args : Commands(t.base)) {
      const size_t at = args[0] == "couch" || args[0] == "es" || args[0] == "jwt" ? 2 : 1;
      args.insert(args.begin() + long(at), t.extra.begin(), t.extra.end());
      args.insert(args.begin(), HTTPTOOLS_CLI);
      args.insert(args.begin(), t.wrapper.begin(), t.wrapper.end());
      std::string out, err;
      const auto start = std::chrono::steady_clock::now();
      const int code = qztest::RunProgram(args, "", out, err);
      const int64_t ms = MsSince(start);
      const std::string trace = std::string(t.what) + ": " + testing::PrintToString(args) + "\n" + err;
      EXPECT_EQ(code, t.code) << trace;
      EXPECT_LT(ms, t.boundMs) << trace;
      EXPECT_THAT(err, testing::Not(testing::HasSubstr("[error]"))) << trace; // no library log line
    }
  }
}

// URLs refused before anything is sent, on every command that takes one: exit 3.
TEST(ExitCodes, BadPortsAndUrls) {
  for (const std::string& base : {std::string("http://127.0.0.1:99999"), std::string("http://127.0.0.1:0"),
                                  std::string("http://127.0.0.1:8o80"), std::string("http://127.0.0.1:+80")}) {
    for (std::vector<std::string> args : Commands(base)) {
      args.insert(args.begin(), HTTPTOOLS_CLI);
      std::string out, err;
      EXPECT_EQ(qztest::RunProgram(args, "", out, err), 3) << testing::PrintToString(args) << err;
    }
  }
}

} // namespace
