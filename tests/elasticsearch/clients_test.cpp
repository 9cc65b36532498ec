// The emulator is checked by code we did not write: the official Python and JS clients (the JS ones
// of Elasticsearch and of OpenSearch) run their bulk helpers (with rejected items to retry) and their
// paging against it and read back what they wrote.
#include "EsFixture.h"
#include "support/Process.h"
#include "support/SourcePaths.h"

#include <HttpTools/platform/qzJson.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

class ClientsTest : public EsFixture {
protected:
  // Runs a client's check with 5 bulk items to reject; its last line of output.
  std::string check(const std::vector<std::string>& argv) {
    auto f = emulator.faults();
    f.rejectItems = 5;
    emulator.setFaults(f);
    std::string out, err;
    EXPECT_EQ(qztest::RunProgram(argv, "", out, err), 0) << "the client failed: " << err << out;
    const size_t start = out.rfind('\n', out.size() >= 2 ? out.size() - 2 : 0);
    return out.substr(start == std::string::npos ? 0 : start + 1);
  }
  std::string statsText() {
    const auto s = emulator.stats();
    return "items " + std::to_string(s.bulkItems) + ", pits " + std::to_string(s.pitsOpened) + ", scrolls " +
           std::to_string(s.scrollsOpened) + ", open " + std::to_string(s.openPits + s.openScrolls);
  }
};

TEST_F(ClientsTest, OfficialPythonClient) {
  const std::string script = qztest::SourceDir() + "/tests/elasticsearch/clients_check.py";
  EXPECT_EQ(check({"/usr/bin/python3", script, emulator.baseUrl()}),
            R"({"ok":2000,"errors":0,"count":2000,"distinct":2000,"intact":true,"found":[true,true,false],)"
            R"("sliced":[2000,0,true],)"
            R"("meta":{"owner":"py"},"zipped":300,"zipped_count":300,)"
            R"("partial":"Scroll request has only succeeded on 1 (+0 skipped) shards out of 2.",)"
            R"("stream":[3,"illegal_argument_exception",3,true,true]})"
            "\n")
      << "the Python client is Debian's python3-elasticsearch";
  EXPECT_EQ(emulator.stats().lastBulkContentEncoding, "gzip");
  EXPECT_EQ(statsText(), "items 2309, pits 0, scrolls 4, open 0"); // only the rejected items went twice
}

TEST_F(ClientsTest, OfficialJsClients) {
  const std::string dir = qztest::SourceDir() + "/tests/esclient";
  for (const auto& [product, module, version] :
       {std::tuple{"elasticsearch", "@elastic/elasticsearch", "8.11.0"},
        std::tuple{"opensearch", "@opensearch-project/opensearch", "2.11.0"}}) {
    SCOPED_TRACE(product);
    struct stat st {};
    ASSERT_EQ(stat((dir + "/node_modules/" + module).c_str(), &st), 0)
        << "the JS clients are not installed: run scripts/install-deps (npm ci in tests/esclient)";
    emulator.setOpenSearch(*product == 'o' ? version : "");
    emulator.reset();
    EXPECT_EQ(check({"node", dir + "/check.js", emulator.baseUrl(), product}),
              std::string(R"({"distribution":")") + product + R"(","number":")" + version +
                  R"(","successful":1200,"failed":0,"dropped":0,"listed":1,"seen":1200,"ordered":true,)"
                  R"("closed":true,"scrolled":1200,"sliced":[1200,0,true],"count":1200,"owner":"js",)"
                  R"("stream":[3,3,true,true]})"
                  "\n");
    EXPECT_EQ(statsText(), "items 1208, pits 1, scrolls 3, open 0");
  }
}

// What each version answers: the product header, the point in time routes of both products.
TEST_F(ClientsTest, OpenSearchModeAnswersAsEachVersionDoes) {
  const struct {
    const char* version;           // "": Elasticsearch
    int elasticPit, openSearchPit; // statuses of POST /i/_pit and POST /i/_search/point_in_time
  } table[] = {{"", 200, 400}, {"1.3.14", 400, 400}, {"2.3.0", 400, 400}, {"2.4.0", 400, 200}, {"2.11.0", 400, 200}};
  for (const auto& row : table) {
    SCOPED_TRACE(row.version);
    qztest::ElasticEmulator os; // the product is chosen before serving
    os.setOpenSearch(row.version);
    ASSERT_TRUE(os.start()) << os.lastError();
    httplib::Client client("127.0.0.1", os.port());
    auto index = client.Put("/i", "", "application/json");
    ASSERT_TRUE(index && index->status == 200);
    auto info = client.Get("/");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->has_header("X-Elastic-Product"), !*row.version);
    EXPECT_EQ(info->body.find("\"distribution\":\"opensearch\"") != std::string::npos, *row.version != '\0');
    auto pit = client.Post("/i/_pit?keep_alive=1m", "", "application/json");
    ASSERT_TRUE(pit);
    EXPECT_EQ(pit->status, row.elasticPit) << pit->body;
    auto osPit = client.Post("/i/_search/point_in_time?keep_alive=1m", "", "application/json");
    ASSERT_TRUE(osPit);
    EXPECT_EQ(osPit->status, row.openSearchPit) << osPit->body;
    if (osPit->status == 200) {
      qz::qzVariantMapImpl answer;
      ASSERT_TRUE(qz::json::Json2Variant::Convert(osPit->body, answer));
      const std::string id = answer["pit_id"].toString();
      auto closed =
          client.Delete("/_search/point_in_time", R"({"pit_id":[")" + id + R"(","unknown"]})", "application/json");
      ASSERT_TRUE(closed);
      EXPECT_EQ(closed->body,
                R"({"pits":[{"successful":true,"pit_id":")" + id + R"("},{"successful":false,"pit_id":"unknown"}]})");
      EXPECT_EQ(os.stats().openPits, 0u);
    }
  }
}

} // namespace
