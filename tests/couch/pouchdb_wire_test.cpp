// The row parser on the bytes a real CouchDB-compatible server sends, read with plain libcurl.
#include <HttpTools/couch/ViewResultStreamParser_p.h>

#include "support/LogCapture.h"
#include "support/PouchDbFixture.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>

using qz::qzVariant;
using qz::couch::ViewResultStreamParser;

namespace {

struct Rows {
  std::map<std::string, std::pair<qzVariant, qzVariant>> byId;
  static bool Take(const std::string& id, qzVariant& key, qzVariant& value, void* userData) {
    static_cast<Rows*>(userData)->byId[id] = {key, value};
    return true;
  }
};

// The documents' strings hold the bytes the cutter reacts to.
const std::vector<std::pair<std::string, std::string>> kDocs = {
    {"plain", R"({"k":"plain","v":1})"},
    {"braces", R"({"k":"}{","v":"{{ ]] [[ }}"})"},
    {"quotes", R"({"k":"say \"hi\"","v":{"q":"\"}\""}})"},
    {"backslashes", R"({"k":"a\\","v":["\\\\","\\\""]})"},
    {"nested", R"({"k":["x",[1,{"y":"]"}]],"v":null})"},
};

class PouchDbWire : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    s_server = new qztest::PouchDbServer;
    if (!s_server->ok())
      return;
    s_server->request("PUT", "/wire");
    s_server->request("PUT", "/wire/_design/app", R"({"views":{"by_k":{"map":"function(doc){emit(doc.k, doc.v)}"}}})");
    for (const auto& [id, body] : kDocs)
      s_server->request("PUT", "/wire/" + id, body);
  }
  static void TearDownTestSuite() {
    delete s_server;
    s_server = nullptr;
  }
  void SetUp() override { ASSERT_TRUE(s_server->ok()) << s_server->error(); }

  // Streams one response through the parser in whatever chunks libcurl delivers.
  static bool fetch(const std::string& path, const std::string& keysBody, Rows& rows) {
    const bool notCancelled = false;
    ViewResultStreamParser parser(&Rows::Take, &rows, &notCancelled);
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
        curl_slist_append(nullptr, "Content-Type: application/json"), &curl_slist_free_all);
    const std::string url = s_server->baseUrl() + path;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &ViewResultStreamParser::WriteFunction);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &parser);
    if (!keysBody.empty()) {
      parser.setRequestBody(&keysBody);
      curl_easy_setopt(curl.get(), CURLOPT_POST, 1L);
      curl_easy_setopt(curl.get(), CURLOPT_READFUNCTION, &ViewResultStreamParser::ReadFunction);
      curl_easy_setopt(curl.get(), CURLOPT_READDATA, &parser);
      curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, long(keysBody.size()));
    }
    return curl_easy_perform(curl.get()) == CURLE_OK;
  }

  static qztest::PouchDbServer* s_server;
};

qztest::PouchDbServer* PouchDbWire::s_server = nullptr;

} // namespace

TEST_F(PouchDbWire, ViewRowsKeepTrickyStrings) {
  Rows rows;
  ASSERT_TRUE(fetch("/wire/_design/app/_view/by_k", {}, rows));
  ASSERT_EQ(rows.byId.size(), kDocs.size());
  EXPECT_EQ(rows.byId["braces"].first, qzVariant("}{"));
  EXPECT_EQ(rows.byId["braces"].second, qzVariant("{{ ]] [[ }}"));
  EXPECT_EQ(rows.byId["quotes"].first, qzVariant("say \"hi\""));
  EXPECT_EQ(rows.byId["quotes"].second.toMap().at("q"), qzVariant("\"}\""));
  EXPECT_EQ(rows.byId["backslashes"].first, qzVariant("a\\"));
  EXPECT_EQ(rows.byId["backslashes"].second.toList().at(1), qzVariant("\\\""));
  EXPECT_TRUE(rows.byId["nested"].second.isNull());
  EXPECT_EQ(rows.byId["nested"].first.toList().at(1).toList().at(1).toMap().at("y"), qzVariant("]"));
}

TEST_F(PouchDbWire, AllDocsAndKeysWithAMissingKey) {
  Rows rows;
  ASSERT_TRUE(fetch("/wire/_all_docs", {}, rows));
  EXPECT_EQ(rows.byId.size(), kDocs.size() + 1); // and the design document
  EXPECT_TRUE(rows.byId.count("_design/app"));

  Rows some;
  ASSERT_TRUE(fetch("/wire/_all_docs", R"({"keys":["plain","quotes"]})", some));
  EXPECT_EQ(some.byId.size(), 2u);

  // The error row of a missing key stops the transfer.
  qztest::LogCapture cap;
  Rows stopped;
  EXPECT_FALSE(fetch("/wire/_all_docs", R"({"keys":["plain","absent"]})", stopped));
  EXPECT_EQ(stopped.byId.size(), 1u);
  EXPECT_TRUE(cap.has("couchdb", "On error BracketCounter 2, SquareBracketCounter 1, cancelflag 0")) << cap.dump();
  EXPECT_TRUE(cap.has("couchdb",
                      R"(Error while parsing result, missing 'id' entry in json {"key":"absent","error":"not_found"})"))
      << cap.dump();
}
