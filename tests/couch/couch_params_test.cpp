#include <HttpTools/couch/CouchConnectionParameters.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using qz::couch::CouchConnectionParameters;

TEST(CouchConnectionParameters, BuildFromDbUrl) {
  struct Case {
    std::string dbUrl;
    bool ok;
    std::string db;
    std::string server; // encoded server URL when ok
  };
  const std::vector<Case> cases = {
      {"http://127.0.0.1:5984/mydb", true, "mydb", "http://127.0.0.1:5984"},
      {"https://u:p@couch.example.com:6984/prefix/mydb", true, "mydb", "https://u:p@couch.example.com:6984/prefix"},
      {"http://h/a/b/c", true, "c", "http://h/a/b"},
      {"http://h/my%20db", true, "my db", "http://h"},
      {"http://127.0.0.1:5984", false, "", ""},
      {"not a url at all", false, "", ""},
      {"/only/a/path", false, "path", ""}, // parses, but names no server
  };
  for (const auto& c : cases) {
    qztest::LogCapture cap;
    CouchConnectionParameters params;
    std::string db = "stale";
    EXPECT_EQ(CouchConnectionParameters::BuildFromDbUrl(&params, &db, c.dbUrl), c.ok) << c.dbUrl;
    EXPECT_EQ(db, c.db) << c.dbUrl;
    if (c.ok) {
      EXPECT_EQ(params.toEncodedUrl(), c.server) << c.dbUrl;
    }
    EXPECT_EQ(cap.size(), 0u) << cap.dump();
  }
  std::string db = "stale";
  EXPECT_FALSE(CouchConnectionParameters::BuildFromDbUrl(nullptr, &db, "http://h/db"));
  EXPECT_TRUE(db.empty());
  CouchConnectionParameters params;
  EXPECT_TRUE(CouchConnectionParameters::BuildFromDbUrl(&params, nullptr, "http://h/db"));
}

TEST(CouchConnectionParameters, DerivedUrls) {
  const CouchConnectionParameters server(qz::Url("http://admin:pw@127.0.0.1:5984/couch?ignored=1"));
  const CouchConnectionParameters::Query query = {{"include_docs", "true"}, {"key", "\"a b\""}};
  EXPECT_EQ(server.toDatabaseUrl("db", {}).toEncodedUrl(), "http://admin:pw@127.0.0.1:5984/couch/db");
  EXPECT_EQ(server.toDatabaseUrl("db", query).toEncodedUrl(),
            "http://admin:pw@127.0.0.1:5984/couch/db?include_docs=true&key=%22a%20b%22");
  EXPECT_EQ(server.toDocumentUrl("db", "a/b c", {}).toEncodedUrl(),
            "http://admin:pw@127.0.0.1:5984/couch/db/a%2Fb%20c");
  EXPECT_EQ(server.toDesignDocumentUrl("db", "app", {}).toEncodedUrl(),
            "http://admin:pw@127.0.0.1:5984/couch/db/_design/app");
  // The server itself is left as it was.
  EXPECT_EQ(server.toEncodedUrl(), "http://admin:pw@127.0.0.1:5984/couch?ignored=1");
}
#include <HttpTools/couch/CouchView_p.h>

#include <HttpTools/platform/qzJson.h>

#include <gtest/gtest.h>

using qz::couch::CouchConnectionParameters;

TEST(CouchView, ViewUrls) {
  const CouchConnectionParameters server(qz::Url("http://127.0.0.1:5984"));
  struct Case {
    std::string design, view;
    long limit;
    std::string url;
  };
  for (const Case& c : std::vector<Case>{
           {"", "", -1, "http://127.0.0.1:5984/db/_all_docs"},
           {"", "", 0, "http://127.0.0.1:5984/db/_all_docs?limit=0"},
           {"app", "by date", 25, "http://127.0.0.1:5984/db/_design/app/_view/by%20date?limit=25"},
           {"app", "v", -7, "http://127.0.0.1:5984/db/_design/app/_view/v"},
       })
    EXPECT_EQ(qz::couch::BuildViewUrl(server, "db", c.design, c.view, c.limit).toEncodedUrl(), c.url);
}

TEST(CouchView, KeysBodyIsJsonSizedBeforehand) {
  const std::vector<std::string> keys = {"plain", "quote\"s", "back\\slash", "new\nline", "\xc3\xa9t\xc3\xa9", ""};
  const std::string body = qz::couch::BuildKeysBody(keys);
  EXPECT_EQ(body.size(), qz::json::JsonStreamer::ConvertToJsonStringSize("keys", keys));
  qz::qzVariantMapImpl parsed;
  ASSERT_TRUE(qz::json::Json2Variant::Convert(body, parsed)) << body;
  std::vector<std::string> back;
  for (const auto& k : parsed["keys"].toList())
    back.push_back(k.toString());
  EXPECT_EQ(back, keys);
  EXPECT_EQ(qz::couch::BuildKeysBody({}), R"({"keys":[]})");
}
