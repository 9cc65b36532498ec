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
  std::map<std::string, std::string> scrape(int port) {
    std::string out, err;
    const int rc = qztest::RunPython(kParse, "http://127.0.0.1:" + std::to_string(port) + "/metrics", out, err);
    std::map<std::string, std::string> samples{{"exit", std::to_string(rc) + " " + err}};
    for (size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1) {
      const std::string line = out.substr(at, end - at);
      const size_t tab = line.find('\t');
      samples[line.substr(0, tab)] = line.substr(tab + 1);
    }
    return samples;
  }
  int healthz(int port) {
    httplib::Client client("127.0.0.1", port);
    auto res = client.Get("/healthz");
    return res ? res->status : 0;
  }
};

TEST_F(MetricsTest, ScrapeParsesAndHealthFollowsTheCycles) {
  for (const char* bad : {"9100", "127.0.0.1:", "127.0.0.1:99999", "127.0.0.1:x1"}) // a usage error
    EXPECT_EQ(cli({couch.baseUrl() + "/db", elastic.baseUrl() + "/docs", "--follow", "--metrics", bad}), 2) << bad;
  load(0, 30);
  const int port = qztest::FreeLoopbackPort();
  spawn({couch.baseUrl() + "/db", elastic.baseUrl() + "/docs", "--follow", "--name", "orders \"eu\"", "--lease-ms",
         "3000", "--status-ms", "100000", "--metrics", "127.0.0.1:" + std::to_string(port), "--mapping",
         scratch("mapping.json", R"({"properties":{"n":{"type":"long"}}})"), "--dead-letter", scratch("letters")});
  std::map<std::string, std::string> m;
  const std::string river = "|orders \"eu\"";
  ASSERT_TRUE(waitFor([&] {
    m = scrape(port);
    return m["httptools_river_indexed_total" + river] == "30.0 counter";
  })) << "last scrape: "
      << [&] {
           std::string all;
           for (const auto& [k, v] : m)
             all += k + "=" + v + "|";
           return all;
         }();
  remove("d7");
  put({{"_id", "bad"}, {"n", "x"}}); // refused by the mapping: a dead letter
  ASSERT_TRUE(waitFor([&] {
    m = scrape(port);
    return m["httptools_river_deleted_total" + river] == "1.0 counter" &&
           m["httptools_river_rejected_total" + river] == "1.0 counter";
  }));
  struct Expected {
    const char *sample, *value;
  } expected[] = {
      {"content-type", "text/plain;version=0.0.4;charset=utf-8"},
      {"httptools_river_indexed_total|orders \"eu\"", "30.0 counter"},
      {"httptools_river_deleted_total|orders \"eu\"", "1.0 counter"},
      {"httptools_river_rejected_total|orders \"eu\"", "1.0 counter"},
      {"httptools_river_retries_total|orders \"eu\"", "0.0 counter"},
      {"httptools_river_lag_seconds|orders \"eu\"", "0.0 gauge"},
      {"httptools_river_behind_changes|orders \"eu\"", "0.0 gauge"},
      {"exit", "0 "},
  };
  m = scrape(port);
  for (const auto& e : expected)
    EXPECT_EQ(m[e.sample], e.value) << e.sample;
  EXPECT_EQ(m.size(), std::size(expected));

  EXPECT_EQ(healthz(port), 200);
  elastic.setFaults({.unavailable = 1000000, .unavailablePath = "_bulk"});
  load(30, 31);
  EXPECT_TRUE(waitFor([&] { return healthz(port) == 503; }, 60));
  elastic.setFaults({});
  EXPECT_TRUE(waitFor([&] { return healthz(port) == 200; }, 60));
  EXPECT_TRUE(waitFor([&] { return scrape(port)["httptools_river_indexed_total" + river] == "31.0 counter"; }));
}

#endif

} // namespace
