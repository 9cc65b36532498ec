#include <HttpTools/couch/CouchFind.h>

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/couch/FeedCheckpoint.h>
#include <HttpTools/platform/qzJson.h>

#include "support/PouchDbTest.h"

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
