// httptools river --metrics: the scrape as Prometheus' own parser reads it, and /healthz.
#include "RiverFixture.h"

#include "support/Loopback.h"
#include "support/TestHttpServer.h"

#include <regex>

using namespace rivertest;

namespace {

// Behind a proxy that makes pouchdb-server's seqs opaque as CouchDB 2's ("7-g1x") and adds the
// feed's `pending` count, the river's figure of changes behind comes from that count.
TEST_F(RiverTest, BehindChangesComesFromThePendingCountWhereSeqsAreOpaque) {
  load(0, 25);
  def.batchDocs = 10;
  auto opaque = [](const std::string& body) {
    return std::regex_replace(body, std::regex(R"re("(seq|last_seq|update_seq)":(\d+))re"), "\"$1\":\"$2-g1x\"");
  };
  std::atomic<int64_t> lastPending{-1}; // written on the proxy's threads
  qztest::TestHttpServer proxy;
  proxy.route("*", "/db.*", [&](const httplib::Request& req, httplib::Response& res) {
    httplib::Params params = req.params;
    if (auto since = params.find("since"); since != params.end())
      since->second = since->second.substr(0, since->second.find('-'));
    toCouch(req, res, req.path + "?" + httplib::detail::params_to_query_str(params),
            req.method == "PUT" ? "PUT" : "GET");
    std::smatch last;
    if (req.path == "/db/_changes" && std::regex_search(res.body, last, std::regex(R"re("last_seq":(\d+))re"))) {
      lastPending = std::stoll(couchSeq()) - std::stoll(last[1]);
      res.body.insert(res.body.rfind('}'), ",\"pending\":" + std::to_string(lastPending));
    }
    res.body = opaque(res.body);
  });
  ASSERT_TRUE(proxy.start()) << proxy.lastError();
  ASSERT_TRUE(qz::couch::CouchConnectionParameters::BuildFromDbUrl(&def.couch, &def.database, proxy.url("/db")));
  qz::http::HttpConnectionPool local; // its connections to the proxy close before the proxy stops
  qz::river::RiverManager rivers(local, 1);
  std::string error;
  ASSERT_TRUE(rivers.addRiver(def, &error)) << error;
  const auto s = ran(rivers);
  EXPECT_EQ(s.lastSeq, couchSeq() + "-g1x");
  EXPECT_EQ(lastPending.load(), 0);
  EXPECT_EQ(s.behindChanges, 0); // -1 unless the count was read
  expectIndexEqualsDatabase();
}

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
