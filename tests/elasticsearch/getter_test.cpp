#include <HttpTools/elasticsearch/DocumentGetter.h>

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>

#include "EsFixture.h"

#include <gtest/gtest.h>

#include <map>

using qz::elasticsearch::DocumentGetter;
using qz::elasticsearch::ElasticConnectionParameters;

namespace {

class GetterTest : public EsFixture {
protected:
  void seed(int count) {
    std::string ndjson;
    for (int i = 0; i < count; ++i)
      ndjson += R"({"index":{"_index":"g","_id":"k)" + std::to_string(i) + "\"}}\n" + R"({"n":)" + std::to_string(i) +
                R"(,"s":"]}\"{"})" + "\n";
    ASSERT_EQ(call("POST", "/_bulk", ndjson), 200);
  }
};

TEST_F(GetterTest, FindsDocumentsOverThreadsAndListsMissingInOrder) {
  seed(2500);
  std::vector<std::string> ids, expectedMissing;
  for (int i = 0; i < 3000; ++i) {
    ids.push_back("k" + std::to_string(i * 7 % 3000)); // shuffled, 500 missing
    if (i * 7 % 3000 >= 2500)
      expectedMissing.push_back(ids.back());
  }
  ids.push_back("odd \"id\"/with?chars");
  expectedMissing.push_back(ids.back());
  for (const unsigned threads : {1u, 4u}) {
    SCOPED_TRACE(threads);
    DocumentGetter getter(pool, server, "g", threads);
    getter.setBatchSize(97);
    std::map<std::string, int64_t> got;
    std::vector<std::string> missing;
    std::string error;
    ASSERT_TRUE(getter.get(
        ids, [&](const std::string& id, qz::qzVariant& source) { got[id] = source.toMap().at("n").toInt64(); },
        &missing, &error, nullptr))
        << error;
    EXPECT_EQ(missing, expectedMissing);
    ASSERT_EQ(got.size(), 2500u);
    bool consistent = true;
    for (const auto& [id, n] : got)
      consistent = consistent && id == "k" + std::to_string(n);
    EXPECT_TRUE(consistent);
  }
  EXPECT_EQ(emulator.stats().mgetRequests, 2u * 31u);
}

// A missing index, a 503, an answer that leaves an id out and the caller's cancel each fail the call.
TEST_F(GetterTest, MissingIndexErrorShortAnswerAndCancel) {
  seed(10);
  std::string error;
  auto get = [&](const char* index, const std::vector<std::string>& ids, const bool* cancel = nullptr) {
    DocumentGetter getter(pool, server, index, 2);
    return getter.get(
        ids, [](const std::string&, qz::qzVariant&) {}, nullptr, &error, cancel);
  };
  EXPECT_FALSE(get("nope", {"a", "b"}));
  EXPECT_NE(error.find("index_not_found_exception"), std::string::npos) << error;
  inject([](auto& f) { f.unavailable = 1; });
  EXPECT_FALSE(get("g", {"k1"}));
  EXPECT_NE(error.find("503"), std::string::npos) << error;
  inject([](auto& f) { f.unavailable = 0, f.mgetDropLast = true; });
  EXPECT_FALSE(get("g", {"k1", "k2", "k3"}));
  EXPECT_NE(error.find("answered 2 of 3 ids"), std::string::npos) << error;
  const bool cancel = true;
  EXPECT_FALSE(get("g", {"k1", "k2"}, &cancel));
  EXPECT_EQ(error, "cancelled");
}

TEST(ElasticConnectionParameters, IndexAndDocumentUrls) {
  const struct {
    const char* url;
    bool ok;
    const char* index;
    const char* server;
  } table[] = {
      {"http://u:p@h:9200/prefix/orders", true, "orders", "http://u:p@h:9200/prefix"},
      {"https://h/orders", true, "orders", "https://h"},
      {"http://h:9200", false, "", ""},
      {"http://[zz/", false, "", ""},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.url);
    ElasticConnectionParameters params;
    std::string index = "stale";
    EXPECT_EQ(ElasticConnectionParameters::BuildFromIndexUrl(&params, &index, row.url), row.ok);
    EXPECT_EQ(index, row.index);
    if (row.ok) {
      EXPECT_EQ(params.toEncodedUrl(), row.server);
    }
  }
  EXPECT_FALSE(ElasticConnectionParameters::BuildFromIndexUrl(nullptr, nullptr, "http://h/i"));
  const ElasticConnectionParameters server(qz::Url("http://h:9200/p"));
  EXPECT_EQ(server.toIndexUrl("logs-1", {{"refresh", "true"}}).toEncodedUrl(), "http://h:9200/p/logs-1?refresh=true");
  EXPECT_EQ(server.toDocumentUrl("i", "a/b c", {}).toEncodedUrl(), "http://h:9200/p/i/_doc/a%2Fb%20c");
  EXPECT_EQ(server.toApiUrl({"", "_bulk"}, {}).toEncodedUrl(), "http://h:9200/p/_bulk");
}

} // namespace
