// httptools river run as a service: rivers from a config file, processes sharing them through
// their leases, signals, and the administration commands.
#include "RiverFixture.h"

#include <HttpTools/river/RiverLease_p.h>

using namespace rivertest;

namespace {

#ifdef HTTPTOOLS_CLI
class RiverServiceTest : public RiverTest {
protected:
  // A config of rivers r0.. from databases db0.. into aliases a0.. (the databases created with
  // `docs[i]` documents each).
  std::string config(const std::vector<int>& docs, unsigned leaseMs, const std::string& extra = "") {
    std::string rivers;
    for (size_t i = 0; i < docs.size(); ++i) {
      const std::string n = std::to_string(i);
      EXPECT_EQ(couch.request("PUT", "/db" + n), 201);
      for (int d = 0; d < docs[i]; ++d)
        couch.request("PUT", "/db" + n + "/d" + std::to_string(d), "{\"n\":" + std::to_string(d) + "}");
      rivers += std::string(i ? "," : "") + R"({"name":"r)" + n + R"(","source":")" + couch.baseUrl() + "/db" + n +
                R"(","target":")" + elastic.baseUrl() + R"(","alias":"a)" + n + R"(","options":{"leaseMs":)" +
                std::to_string(leaseMs) + R"(,"intervalMs":50)" + (i == 0 ? extra : "") + "}}";
    }
    return scratch("rivers.json", R"({"workers":2,"rivers":[)" + rivers + "]}");
  }
  int64_t count(const std::string& alias) {
    std::string text; // {"count":N,...}
    es("POST", "/" + alias + "/_refresh");
    return es("GET", "/" + alias + "/_count", {}, &text) == 200 ? std::atoll(text.c_str() + text.find(':') + 1) : -1;
  }
  // The process (pid) holding river `name`'s live lease; 0 when none does.
  pid_t holder(const std::string& name) {
    std::string text;
    es("GET", "/httptools-river/_doc/" + name, {}, &text);
    auto src = parsed(text)["_source"].toMap();
    const std::string owner = src["owner"].toString(); // host:pid:n
    const bool live = !owner.empty() && src["expires"].toInt64() > qz::river::detail::NowMs();
    return live ? pid_t(std::atoi(owner.c_str() + owner.find(':') + 1)) : 0;
  }
  std::map<pid_t, int> holders(int rivers) {
    std::map<pid_t, int> held;
    for (int i = 0; i < rivers; ++i)
      ++held[holder("r" + std::to_string(i))];
    return held;
  }
};

TEST_F(RiverServiceTest, ConfigErrorsNameTheKeyAndAGoodConfigFillsEachAliasThrottledWhereAsked) {
  const std::string a =
      R"({"name":"a","source":")" + couch.baseUrl() + R"(/db","target":")" + elastic.baseUrl() + "/docs\"";
  const std::pair<std::string, const char*> cases[] = {
      {"[1]", "not a JSON object"},
      {R"({"worker":2,"rivers":[]})", "worker: unknown key"},
      {R"({"rivers":[{"name":"a","target":"http://127.0.0.1:1/x"}]})", "rivers[0].source: missing"},
      {R"({"rivers":[)" + a + "}," + a + "}]}", "rivers[1].name: a is defined twice"},
  };
  std::string out;
  for (const auto& [text, error] : cases) {
    EXPECT_EQ(cli({"--config", scratch("bad.json", text), "--once"}, &out), 2) << text;
    EXPECT_NE(out.find(error), std::string::npos) << text << "\n" << out;
  }

  // Three rivers of one good config each fill their alias; r0 reads at most 20 changes a second:
  // its 30 documents take nearly 1.5 s.
  const std::string path = config({30, 120, 7}, 5000, R"(,"maxDocsPerSecond":20)");
  const auto started = Clock::now();
  ASSERT_EQ(cli({"--config", path, "--once"}, &out), 0) << out;
  EXPECT_GE(Clock::now() - started, std::chrono::milliseconds(1250));
  EXPECT_EQ(std::vector<int64_t>({count("a0"), count("a1"), count("a2")}), std::vector<int64_t>({30, 120, 7}));
  ASSERT_EQ(cli({"--config", path, "--status"}, &out), 0) << out;
  for (const char* line :
       {"river r0: db0 -> a0\n  index: a0-1 seq=30\n", "river r1: db1 -> a1\n  index: a1-1 seq=120\n",
        "river r2: db2 -> a2\n  index: a2-1 seq=7\n"})
    EXPECT_NE(out.find(line), std::string::npos) << line << " in\n" << out;
}

TEST_F(RiverServiceTest, TwoProcessesShareSixRiversAndOneTakesOverWhenTheOtherIsKilled) {
  const unsigned leaseMs = 2000;
  const std::string path = config({3, 3, 3, 3, 3, 3}, leaseMs);
  const std::vector<std::string> args{"--config", path, "--follow", "--status-ms", "500", "--log-json"};
  const pid_t first = spawn(args, scratch("first.log")), second = spawn(args, scratch("second.log"));
  using Held = std::map<pid_t, int>; // pid (0: nobody) to the rivers it holds
  auto halves = [&] { return holders(6) == Held{{first, 3}, {second, 3}}; };
  ASSERT_TRUE(waitFor(halves, 30)) << testing::PrintToString(holders(6));
  const auto killed = Clock::now();
  end(first, SIGKILL);
  ASSERT_TRUE(waitFor([&] { return holders(6) == Held{{second, 6}}; }, 30)) << testing::PrintToString(holders(6));
  // The leases expire at most leaseMs after the kill and are taken as they do (a margin for
  // loaded machines).
  EXPECT_LE(Clock::now() - killed, std::chrono::milliseconds(leaseMs + 1000));
  for (int i = 0; i < 6; ++i)
    ASSERT_EQ(couch.request("PUT", "/db" + std::to_string(i) + "/late", "{}"), 201);
  EXPECT_TRUE(waitFor([&] {
    for (int i = 0; i < 6; ++i)
      if (count("a" + std::to_string(i)) != 4)
        return false;
    return true;
  }));
  EXPECT_EQ(end(second, SIGTERM), 0);
  EXPECT_EQ(holders(6), (Held{{0, 6}}));      // given back on the way out
  std::ifstream lines(scratch("second.log")); // --log-json: every line one object
  for (std::string line; std::getline(lines, line);) {
    qzVariantMapImpl object;
    EXPECT_TRUE(qz::json::Json2Variant::Convert(line, object) && object.count("time") && object.count("level")) << line;
  }
}

TEST_F(RiverServiceTest, SigtermDuringABulkStatusResetAndRemove) {
  load(0, 20);
  const std::vector<std::string> river{couch.baseUrl() + "/db", elastic.baseUrl() + "/docs", "--name", "r"};
  auto with = [&](std::vector<std::string> flags) {
    flags.insert(flags.begin(), river.begin(), river.end());
    return flags;
  };
  std::string out;
  auto status = [&] { return cli(with({"--status"}), &out) == 0 ? out : "failed: " + out; };
  EXPECT_NE(status().find("no stored state"), std::string::npos) << out;

  // SIGTERM while a bulk is under way stops at once; the next run loses nothing.
  qztest::FaultProxy proxy(uint16_t(elastic.port()));
  ASSERT_TRUE(proxy.start()) << proxy.error();
  const size_t slow = proxy.addRule(qztest::FaultProxy::Match("POST", "/_bulk", qztest::FaultProxy::Delay).wait(5000));
  const pid_t signalledPid = spawn({couch.baseUrl() + "/db", proxy.baseUrl() + "/docs", "--name", "r", "--follow"});
  ASSERT_TRUE(waitFor([&] { return proxy.matched(slow) >= 1; })) << "no bulk request";
  const auto signalled = Clock::now();
  EXPECT_EQ(end(signalledPid, SIGTERM), 0);
  EXPECT_LT(Clock::now() - signalled, std::chrono::seconds(1));
  ASSERT_EQ(cli(with({"--once"}), &out), 0) << out;
  expectIndexEqualsDatabase(); // every document once
  EXPECT_NE(status().find("index: docs-1 seq=20\n  lease: free"), std::string::npos) << out;
  // --verify exits 0 only when both sides are equal at its end (repaired: RiverVerifyTest).
  ASSERT_EQ(es("DELETE", "/docs-1/_doc/d3"), 200);
  ASSERT_EQ(es("POST", "/docs/_refresh"), 200);
  EXPECT_EQ(cli(with({"--verify"}), &out), 1) << out;
  EXPECT_EQ(cli(with({"--verify", "--repair"}), &out), 0) << out;

  // A live lease refuses removal; once it is given back, the state goes, the index stays.
  const pid_t pid = spawn(with({"--follow", "--lease-ms", "3000"}), scratch("follow.log"));
  ASSERT_TRUE(waitFor([&] { return holder("r") == pid; }));
  EXPECT_TRUE(cli(with({"--remove"}), &out) == 1 && out.find("stop it first") != std::string::npos) << out;
  // A reset meanwhile is carried out by the process following the river: docs-2 filled from seq
  // 0, the alias moved and docs-1 dropped.
  ASSERT_EQ(cli(with({"--reset"}), &out), 0) << out;
  EXPECT_TRUE(waitFor([&] { return es("GET", "/docs-1") == 404 && count("docs") == 20; }));
  EXPECT_EQ(end(pid, SIGTERM), 0);
  EXPECT_NE(status().find("index: docs-2 seq=20\n"), std::string::npos) << out;
  // (--delete-index: RiverRouteTest's RemoveRiver)
  ASSERT_EQ(cli(with({"--remove"}), &out), 0) << out;
  EXPECT_EQ(std::pair(es("GET", "/httptools-river/_doc/r"), count("docs")), std::pair(404, int64_t(20)));
}
#endif

TEST(RiverShareTest, EveryProcessHoldsFloorOrCeilingAndTogetherAll) {
  for (unsigned rivers = 0; rivers <= 13; ++rivers)
    for (unsigned processes = 1; processes <= 5; ++processes) {
      std::vector<unsigned> shares;
      for (unsigned rank = 0; rank < processes; ++rank)
        shares.push_back(qz::river::detail::ProcessRegistry::Share(rivers, processes, rank));
      const auto [low, high] = std::minmax_element(shares.begin(), shares.end());
      EXPECT_EQ(std::tuple(std::accumulate(shares.begin(), shares.end(), 0u), *low, *high),
                std::tuple(rivers, rivers / processes, (rivers + processes - 1) / processes))
          << rivers << " rivers, " << processes << " processes";
    }
}

} // namespace
