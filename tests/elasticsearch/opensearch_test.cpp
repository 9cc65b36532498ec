// OpenSearch 1.x and 2.x as servers: the emulator's OpenSearch mode, checked by the official
// OpenSearch JS client (the river suite runs the library against it).
#include "EsFixture.h"
#include "support/Process.h"
#include "support/SourcePaths.h"

#include <HttpTools/platform/qzJson.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using OpenSearchTest = EsFixture;

TEST_F(OpenSearchTest, OfficialOpenSearchJsClient) {
  const std::string dir = qztest::SourceDir() + "/tests/esclient";
  struct stat st {};
  ASSERT_EQ(stat((dir + "/node_modules/@opensearch-project/opensearch").c_str(), &st), 0)
      << "the OpenSearch JS client is not installed: run scripts/install-deps (npm ci in tests/esclient)";
  emulator.setOpenSearch("2.11.0");
  auto f = emulator.faults();
  f.rejectItems = 5;
  emulator.setFaults(f);
  std::string out, err;
  ASSERT_EQ(qztest::RunProgram({"node", dir + "/check_opensearch.js", emulator.baseUrl()}, "", out, err), 0)
      << "the OpenSearch JS client failed: " << err << out;
  qz::qzVariantMapImpl got;
  ASSERT_TRUE(qz::json::Json2Variant::Convert(out.substr(out.rfind('{', out.rfind("\"distribution\""))), got)) << out;
  EXPECT_EQ(got["distribution"].toString(), "opensearch");
  EXPECT_EQ(got["number"].toString(), "2.11.0");
  EXPECT_EQ(got["successful"].toInt64(), 1200) << out;
  EXPECT_EQ(got["failed"].toInt64(), 0);
  EXPECT_EQ(got["dropped"].toInt64(), 0);
  EXPECT_EQ(got["listed"].toInt64(), 1);
  EXPECT_EQ(got["seen"].toInt64(), 1200);
  EXPECT_TRUE(got["ordered"].toBool());
  EXPECT_TRUE(got["deleted"].toBool());
  EXPECT_EQ(got["scrolled"].toInt64(), 1200);
  const auto s = emulator.stats();
  EXPECT_EQ(s.bulkItems, 1205u); // only the rejected items went twice
  EXPECT_EQ(s.pitsOpened, 1u);
  EXPECT_EQ(s.openPits, 0u);
  EXPECT_EQ(s.openScrolls, 0u);
}

// What each version answers: the product header, the point in time routes of both products.
TEST_F(OpenSearchTest, ModeAnswersAsEachVersionDoes) {
  const struct {
    const char* version; // "": Elasticsearch
    bool productHeader;
    int elasticPit, openSearchPit; // statuses of POST /i/_pit and POST /i/_search/point_in_time
  } table[] = {
      {"", true, 200, 400},       {"1.3.14", false, 400, 400}, {"2.3.0", false, 400, 400},
      {"2.4.0", false, 400, 200}, {"2.11.0", false, 400, 200},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.version);
    emulator.setOpenSearch(row.version);
    emulator.reset();
    ASSERT_EQ(call("PUT", "/i"), 200);
    httplib::Client client("127.0.0.1", emulator.port());
    auto info = client.Get("/");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->has_header("X-Elastic-Product"), row.productHeader);
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
      const std::string body = "{\"pit_id\":[\"" + answer["pit_id"].toString() + "\",\"unknown\"]}";
      auto closed = client.Delete("/_search/point_in_time", body, "application/json");
      ASSERT_TRUE(closed);
      EXPECT_NE(closed->body.find("\"successful\":true"), std::string::npos) << closed->body;
      EXPECT_NE(closed->body.find("\"successful\":false"), std::string::npos) << closed->body;
      EXPECT_EQ(emulator.stats().openPits, 0u);
    }
  }
}

} // namespace
