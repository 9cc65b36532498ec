#include <HttpTools/couch/CouchFind.h>

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/couch/FeedCheckpoint.h>
#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>

#include "support/PouchDbTest.h"
#include "support/TestHttpServer.h"

#include <gtest/gtest.h>

// Options by designated initializers: the members left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using qz::qzVariant;
using qz::qzVariantMapImpl;
using namespace qz::couch;

namespace {

qzVariantMapImpl Json(const std::string& text) {
  qzVariantMapImpl m;
  qz::json::Json2Variant::Convert(text, m);
  return m;
}

class CouchQuery : public ::testing::Test {
protected:
  static void SetUpTestSuite() { qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy); }
  static void TearDownTestSuite() { qz::terminateHttpTools(); }
  CouchConnectionParameters at(const std::string& base) const { return CouchConnectionParameters(qz::Url(base)); }
  qztest::TestHttpServer srv; // stops after the pool closed its connections
  qz::http::HttpConnectionPool pool;
};

// CouchDB 3's layout of a normal feed: one change per line, ",\r\n" between rows; with
// seq_interval=2 every other row's seq is null.
TEST_F(CouchQuery, SelectorFeedWithSeqIntervalDeliversBatchesCheckpointedByLastSeq) {
  srv.route("POST", "/db/_changes", [](const httplib::Request& req, httplib::Response& res) {
    auto row = [](const std::string& seq, const std::string& id) {
      return R"({"seq":)" + seq + R"(,"id":")" + id + R"(","changes":[{"rev":"1-a"}]})";
    };
    const bool first = req.get_param_value("since") == "0";
    const std::string rows =
        first ? row("null", "a") + ",\r\n" + row("\"2-g\"", "b") + ",\r\n" + row("null", "c") : row("null", "d");
    res.set_content("{\"results\":[\r\n" + rows + "\r\n],\r\n\"last_seq\":\"" + (first ? "3-g" : "4-g") +
                        "\",\"pending\":0}\n",
                    "application/json");
  });
  ASSERT_TRUE(srv.start()) << srv.lastError();
  const ChangesOptions o{.selector = R"({"type":{"$eq":"x"}})", .seqInterval = 2, .batchLimit = 3};
  const struct {
    int refuseAt;        // the batch refused (0: none)
    std::string batches; // "ids and seqs@checkpoint|..."
    std::vector<std::string> since;
    std::string lastSeq;
  } runs[] = {
      {0, "a b2-g c@3-g|d@4-g|", {"0", "3-g"}, "4-g"},
      {2, "a b2-g c@3-g|d@4-g|", {"0", "3-g"}, "3-g"},
      {1, "a b2-g c@3-g|", {"0"}, "0"},
  };
  for (const auto& r : runs) {
    SCOPED_TRACE(r.refuseAt);
    srv.resetCounters();
    ChangesFeedListener feed(pool, at(srv.baseUrl()), "db", o);
    std::string batches, error;
    int count = 0;
    EXPECT_TRUE(feed.runBatches(
        [&](std::vector<Change>& batch, const std::string& checkpoint) {
          for (const Change& c : batch)
            batches += (&c == &batch[0] ? "" : " ") + c.id + c.seq;
          batches += "@" + checkpoint + "|";
          return ++count != r.refuseAt;
        },
        &error))
        << error;
    EXPECT_EQ(batches, r.batches);
    EXPECT_EQ(feed.lastSeq(), r.lastSeq);
    std::vector<std::string> targets, want;
    for (const auto& req : srv.requests()) {
      EXPECT_EQ(Json(req.body), Json(R"({"selector":{"type":{"$eq":"x"}}})"));
      targets.push_back(req.target);
    }
    for (const std::string& since : r.since)
      want.push_back("/db/_changes?feed=normal&since=" + since + "&limit=3&seq_interval=2&filter=_selector");
    EXPECT_EQ(targets, want);
  }
}

TEST_F(CouchQuery, FindFollowsBookmarksUpToTheLimit) {
  srv.route("POST", "/db/_find", [](const httplib::Request& req, httplib::Response& res) {
    const qzVariantMapImpl q = Json(req.body);
    if (q.at("selector").toMap().count("bad")) {
      res.status = 400;
      res.set_content(R"({"error":"invalid_operator","reason":"Invalid operator: $bad"})", "application/json");
      return;
    }
    const std::string from = q.count("bookmark") ? q.at("bookmark").toString() : "b0";
    const int page = from[1] - '0', limit = int(q.at("limit").toInt64());
    std::string docs;
    for (int i = page * 3; i < std::min(7, page * 3 + limit); ++i)
      docs += std::string(docs.empty() ? "" : ",") + R"({"_id":"d)" + std::to_string(i) + "\"}";
    res.set_content(R"({"docs":[)" + docs + R"(],"bookmark":"b)" + std::to_string(page + 1) + "\"}",
                    "application/json");
  });
  ASSERT_TRUE(srv.start()) << srv.lastError();
  struct Case {
    long limit;
    std::string ids;
    std::vector<std::string> sent; // bookmark and limit of each request
  };
  const Case cases[] = {
      {-1, "d0d1d2d3d4d5d6", {"-3", "b1 3", "b2 3"}},
      {5, "d0d1d2d3d4", {"-3", "b1 2"}},
      {6, "d0d1d2d3d4d5", {"-3", "b1 3"}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.limit);
    srv.resetCounters();
    const FindQuery q{.selector = R"({"n":{"$gt":0}})", .limit = k.limit, .pageSize = 3};
    std::string ids, error;
    FindStats stats;
    EXPECT_TRUE(FindDocuments(
        pool, at(srv.baseUrl()), "db", q,
        [&](qzVariant& doc) {
          ids += doc.toMap().at("_id").toString();
          return true;
        },
        &stats, &error, nullptr))
        << error;
    EXPECT_EQ(ids, k.ids);
    EXPECT_FALSE(stats.pagedBySkip);
    std::vector<std::string> sent;
    for (const auto& req : srv.requests()) {
      const qzVariantMapImpl body = Json(req.body);
      EXPECT_EQ(body.count("skip"), 0u);
      sent.push_back((body.count("bookmark") ? body.at("bookmark").toString() + " " : "-") +
                     body.at("limit").toString());
    }
    EXPECT_EQ(sent, k.sent);
  }
  for (const auto& [selector, why] : {std::pair{R"({"bad":{"$bad":1}})", "invalid_operator: Invalid operator: $bad"},
                                      std::pair{"[]", "the selector is not a JSON object"}}) {
    std::string error;
    EXPECT_FALSE(FindDocuments(
        pool, at(srv.baseUrl()), "db", {.selector = selector}, [](qzVariant&) { return true; }, nullptr, &error,
        nullptr));
    EXPECT_NE(error.find(why), std::string::npos) << error;
  }
}

using CouchQueryOnPouchDb = qztest::PouchDbTest;

TEST_F(CouchQueryOnPouchDb, FindPagesBySkipWithFieldsAndSort) {
  std::string docs = R"({"docs":[)";
  for (int i = 0; i < 23; ++i)
    docs += std::string(i ? "," : "") + R"({"_id":"k)" + std::to_string(100 + i) + R"(","n":)" + std::to_string(i) +
            R"(,"odd":)" + (i % 2 ? "true" : "false") + "}";
  ASSERT_EQ(s_server->request("POST", "/" + db + "/_bulk_docs", docs + "]}"), 201);
  ASSERT_EQ(s_server->request("POST", "/" + db + "/_index", R"({"index":{"fields":["n"]}})"), 200);
  struct Case {
    const char* selector;
    std::vector<std::string> fields;
    bool descending;
    long limit;
    std::string ns; // the n of each document, as the fields asked for
    size_t pages;
  };
  const Case cases[] = {
      {R"({"n":{"$gte":0},"odd":true})", {"n"}, false, -1, "1 3 5 7 9 11 13 15 17 19 21 ", 3},
      {R"({"n":{"$gte":0}})", {"n"}, true, 7, "22 21 20 19 18 17 16 ", 2},
      {R"({"n":{"$gte":20}})", {"n", "_id"}, false, -1, "20k120 21k121 22k122 ", 1},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.selector);
    const FindQuery q{
        .selector = k.selector, .fields = k.fields, .sort = {{"n", k.descending}}, .limit = k.limit, .pageSize = 5};
    std::string ns, error;
    FindStats stats;
    ASSERT_TRUE(FindDocuments(
        *s_pool, server(), db, q,
        [&](qzVariant& doc) {
          EXPECT_EQ(doc.toMap().size(), k.fields.size());
          ns +=
              doc.toMap().at("n").toString() + (doc.toMap().count("_id") ? doc.toMap().at("_id").toString() : "") + " ";
          return true;
        },
        &stats, &error, nullptr))
        << error;
    EXPECT_EQ(ns, k.ns);
    EXPECT_EQ(stats.pages, k.pages);
    EXPECT_EQ(stats.pagedBySkip, k.pages > 1);
  }
}

TEST_F(CouchQueryOnPouchDb, StoredCheckpointResumesAFeedWhereTheLastConsumerStopped) {
  auto put = [&](const std::string& id) { ASSERT_EQ(s_server->request("PUT", "/" + db + "/" + id, "{}"), 201); };
  for (const char* id : {"a", "b", "c"})
    put(id);
  const ChangesOptions o{.batchLimit = 2};
  auto follow = [&](const char* name, int refuseAt = 0) {
    FeedCheckpoint checkpoint(*s_pool, server(), db, name);
    ChangesFeedListener feed(*s_pool, server(), db, o);
    std::string ids, error;
    int batches = 0;
    EXPECT_TRUE(checkpoint.follow(
        feed,
        [&](std::vector<Change>& batch) {
          if (++batches == refuseAt)
            return false;
          for (const Change& c : batch)
            ids += c.id;
          return true;
        },
        &error))
        << error;
    return ids;
  };
  EXPECT_EQ(follow("one", 2), "ab"); // stops before its second batch
  EXPECT_EQ(follow("one"), "c");
  EXPECT_EQ(follow("one"), "");
  EXPECT_EQ(follow("two"), "abc"); // a checkpoint of its own
  put("d");
  // Another writer moved the checkpoint meanwhile: the save reads it again and wins.
  FeedCheckpoint stale(*s_pool, server(), db, "one");
  std::string seq;
  ASSERT_TRUE(stale.load(seq));
  EXPECT_EQ(seq, "3");
  std::string stored;
  s_server->request("GET", "/" + db + "/_local/one", {}, &stored);
  ASSERT_EQ(s_server->request("PUT", "/" + db + "/_local/one",
                              R"({"seq":"2","_rev":")" + Json(stored)["_rev"].toString() + "\"}"),
            201);
  EXPECT_TRUE(stale.save("4"));
  EXPECT_EQ(follow("one"), "");
  std::string answer;
  ASSERT_EQ(s_server->request("GET", "/" + db + "/_changes", {}, &answer), 200);
  EXPECT_EQ(answer.find("_local"), std::string::npos); // the checkpoint is no change
}

} // namespace
