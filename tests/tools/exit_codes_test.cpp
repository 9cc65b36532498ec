// Every network command but ping, against a refused port, a server that never answers, a name
// that does not resolve and URLs refused before anything is sent: the same exit code for each
// cause on every command, within a bound.
#include "support/Process.h"
#include "support/SilentListener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

TEST(ExitCodes, EveryCommandFailsFastWithTheCodeOfItsCause) {
  qztest::SilentListener silent;
  std::string silentBase = silent.url();
  silentBase.pop_back();
  // A network namespace of its own without routes: the name's DNS query cannot leave it.
  const std::vector<std::string> isolated{"unshare", "-n", "sh", "-c", "ip link set lo up && exec \"$@\"", "sh"};
  const struct {
    std::string base;
    std::vector<std::string> extra; // options before the URL
    int code;
    std::vector<std::string> wrapper = {};
    bool fewer = false; // one command of each family: the URL is refused before any of them runs
  } targets[] = {
      {"http://127.0.0.1:1", {}, 7},
      {silentBase, {"-m", "0.3"}, 28},
      {"http://no-such-host.invalid", {}, 6, isolated},
      {"http://127.0.0.1:99999", {}, 3},
      {"http://127.0.0.1:0", {}, 3, {}, true},
      {"http://127.0.0.1:8o80", {}, 3, {}, true},
      {"http://127.0.0.1:+80", {}, 3, {}, true},
  };
  for (const auto& t : targets) {
    const std::string& b = t.base;
    const std::vector<std::vector<std::string>> commands{
        {"get", b + "/x"},
        {"head", b + "/x"},
        {"put", "-d", "x", b + "/x"},
        {"post", "--json", "{}", b + "/x"},
        {"delete", b + "/x"},
        {"get", "-Z", b + "/a", b + "/b"},
        {"couch", "view", b + "/db"},
        {"couch", "changes", b + "/db"},
        {"couch", "get", b + "/db", "id"},
        {"couch", "upload", b + "/db"},
        {"couch", "conflicts", b + "/db"},
        {"es", "search", b + "/idx"},
        {"es", "get", b + "/idx", "id"},
        {"es", "bulk", b + "/idx"},
        {"jwt", "verify", "--jwks", b + "/jwks", "a.b.c"},
        {"river", b + "/db", b + "/alias"},
    };
    for (std::vector<std::string> args : commands) {
      if (t.fewer && args[0] != "get" && args[0] != "jwt" && args[1] != "view" && args[1] != "search" &&
          args[0] != "river")
        continue;
      const size_t at = args[0] == "couch" || args[0] == "es" || args[0] == "jwt" ? 2 : 1;
      args.insert(args.begin() + long(at), t.extra.begin(), t.extra.end());
      args.insert(args.begin(), HTTPTOOLS_CLI);
      args.insert(args.begin(), t.wrapper.begin(), t.wrapper.end());
      std::string out, err;
      const auto start = std::chrono::steady_clock::now();
      const int code = qztest::RunProgram(args, "", out, err);
      const auto took = std::chrono::steady_clock::now() - start;
      silent.accepted(); // keeps the backlog free
      const std::string trace = testing::PrintToString(args) + "\n" + err;
      EXPECT_EQ(code, t.code) << trace;
      EXPECT_LT(took, std::chrono::seconds(3)) << trace;
      EXPECT_THAT(err, testing::Not(testing::HasSubstr("[error]"))) << trace; // no library log line
    }
  }
}

} // namespace
