#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/couch/CouchView_p.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <tuple>

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
    const bool ok = CouchConnectionParameters::BuildFromDbUrl(&params, &db, c.dbUrl);
    EXPECT_EQ(std::tuple(ok, db, ok ? params.toEncodedUrl() : ""), std::tuple(c.ok, c.db, c.server)) << c.dbUrl;
    EXPECT_EQ(cap.size(), 0u) << cap.dump();
  }
  std::string db = "stale";
  EXPECT_FALSE(CouchConnectionParameters::BuildFromDbUrl(nullptr, &db, "http://h/db"));
  EXPECT_TRUE(db.empty());
  CouchConnectionParameters params;
  EXPECT_TRUE(CouchConnectionParameters::BuildFromDbUrl(&params, nullptr, "http://h/db"));
}

TEST(CouchConnectionParameters, DerivedAndViewUrls) {
  const CouchConnectionParameters server(qz::Url("http://admin:pw@127.0.0.1:5984/couch?ignored=1"));
  const std::string db = "http://admin:pw@127.0.0.1:5984/couch/db";
  const std::vector<std::pair<qz::Url, std::string>> cases = {
      {server.toDatabaseUrl("db", {}), db},
      {server.toDatabaseUrl("db", {{"include_docs", "true"}, {"key", "\"a b\""}}),
       db + "?include_docs=true&key=%22a%20b%22"},
      {server.toDocumentUrl("db", "a/b c", {}), db + "/a%2Fb%20c"},
      {server.toDesignDocumentUrl("db", "app", {}), db + "/_design/app"},
      {qz::couch::BuildViewUrl(server, "db", "", "", -1), db + "/_all_docs"},
      {qz::couch::BuildViewUrl(server, "db", "", "", 0), db + "/_all_docs?limit=0"},
      {qz::couch::BuildViewUrl(server, "db", "app", "by date", 25), db + "/_design/app/_view/by%20date?limit=25"},
      {qz::couch::BuildViewUrl(server, "db", "app", "v", -7), db + "/_design/app/_view/v"},
  };
  for (const auto& [url, want] : cases)
    EXPECT_EQ(url.toEncodedUrl(), want);
  EXPECT_EQ(server.toEncodedUrl(), "http://admin:pw@127.0.0.1:5984/couch?ignored=1"); // left as it was
}
