// httptools river --metrics: the scrape as Prometheus' own parser reads it, and /healthz.
#include "RiverFixture.h"

#include "support/Loopback.h"

using namespace rivertest;

namespace {

#ifdef HTTPTOOLS_CLI
// Reads the scrape with prometheus_client's parser: "name river value" per sample, or the error.
const char* kParse = R"(
import sys, urllib.request
from prometheus_client.parser import text_string_to_metric_families
r = urllib.request.urlopen(sys.stdin.read())
print("content-type\t" + r.headers["Content-Type"].replace(" ", ""))
for family in text_string_to_metric_families(r.read().decode()):
    for s in family.samples:
        print(s.name, s.labels.get("river", "-"), sep="|", end="\t")
        print(s.value, family.type)
)";

class MetricsTest : public RiverTest {
protected:
  // The exit status, errors and lines of kParse.
  std::string scrape(int port) {
    std::string out, err;
    const int rc = qztest::RunPython(kParse, "http://127.0.0.1:" + std::to_string(port) + "/metrics", out, err);
    return std::to_string(rc) + " " + err + out;
  }
  int healthz(int port) {
    auto res = httplib::Client("127.0.0.1", port).Get("/healthz");
    return res ? res->status : 0;
  }
};

TEST_F(MetricsTest, ScrapeParsesAndHealthFollowsTheCycles) {
  load(0, 30);
  const int port = qztest::FreeLoopbackPort();
  spawn({couch.baseUrl() + "/db", elastic.baseUrl() + "/docs", "--follow", "--name", "orders \"eu\"", "--lease-ms",
         "3000", "--status-ms", "100000", "--metrics", "127.0.0.1:" + std::to_string(port), "--mapping",
         scratch("mapping.json", R"({"properties":{"n":{"type":"long"}}})"), "--dead-letter", scratch("letters")});
  std::string m;
  auto shows = [&](std::vector<std::pair<std::string, std::string>> samples) { // scraped: name, value
    m = scrape(port);
    for (const auto& [name, value] : samples)
      if (m.find("\nhttptools_river_" + name + "|orders \"eu\"\t" + value + "\n") == std::string::npos)
        return false;
    return true;
  };
  ASSERT_TRUE(waitFor([&] { return shows({{"indexed_total", "30.0 counter"}}); })) << m;
  remove("d7");
  put({{"_id", "bad"}, {"n", "x"}}); // refused by the mapping: a dead letter
  const std::string all = "0 content-type\ttext/plain;version=0.0.4;charset=utf-8\n"
                          "httptools_river_indexed_total|orders \"eu\"\t30.0 counter\n"
                          "httptools_river_deleted_total|orders \"eu\"\t1.0 counter\n"
                          "httptools_river_rejected_total|orders \"eu\"\t1.0 counter\n"
                          "httptools_river_retries_total|orders \"eu\"\t0.0 counter\n"
                          "httptools_river_lag_seconds|orders \"eu\"\t0.0 gauge\n"
                          "httptools_river_behind_changes|orders \"eu\"\t0.0 gauge\n";
  EXPECT_TRUE(waitFor([&] { return (m = scrape(port)) == all; })) << m;

  // While Elasticsearch refuses: unhealthy, lagging and one change behind; all back once it accepts.
  EXPECT_EQ(healthz(port), 200);
  elastic.setFaults({.unavailable = 1000000, .unavailablePath = "_bulk"});
  load(30, 31);
  auto refused = [&] {
    return healthz(port) == 503 && shows({{"behind_changes", "1.0 gauge"}}) &&
           m.find("lag_seconds|orders \"eu\"\t0.0 ") == std::string::npos;
  };
  EXPECT_TRUE(waitFor(refused, 60)) << m;
  elastic.setFaults({});
  auto back = [&] {
    return healthz(port) == 200 &&
           shows({{"indexed_total", "31.0 counter"}, {"behind_changes", "0.0 gauge"}, {"lag_seconds", "0.0 gauge"}});
  };
  EXPECT_TRUE(waitFor(back, 60)) << m;
}

#endif

} // namespace
