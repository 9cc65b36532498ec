#include <HttpTools/couch/CouchFind.h>

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/couch/FeedCheckpoint.h>
#include <HttpTools/couch/MangoSelector.h>
#include <HttpTools/platform/qzJson.h>

#include "support/PouchDbTest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <tuple>

// Options by designated initializers: the members left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using qz::qzVariant;
using qz::qzVariantMapImpl;
using namespace qz::couch;

namespace {

using CouchQueryOnPouchDb = qztest::PouchDbTest;

TEST_F(CouchQueryOnPouchDb, FindPagesBySkipWithFieldsAndSort) {
  std::string docs = R"({"docs":[)";
  for (int i = 0; i < 23; ++i)
    docs += std::string(i ? "," : "") + R"({"_id":"k)" + std::to_string(100 + i) + R"(","n":)" + std::to_string(i) +
            R"(,"odd":)" + (i % 2 ? "true" : "false") + "}";
  ASSERT_EQ(s_server->request("POST", "/" + db + "/_bulk_docs", docs + "]}"), 201);
  ASSERT_EQ(s_server->request("POST", "/" + db + "/_index", R"({"index":{"fields":["n"]}})"), 200);
  const std::tuple<const char*, std::vector<std::string>, bool, long, std::string, size_t> cases[] = {
      // selector, fields, descending, limit, the n (and _id) of each document, pages
      {R"({"n":{"$gte":0},"odd":true})", {"n"}, false, -1, "1 3 5 7 9 11 13 15 17 19 21 ", 3},
      {R"({"n":{"$gte":0}})", {"n"}, true, 7, "22 21 20 19 18 17 16 ", 2},
      {R"({"n":{"$gte":20}})", {"n", "_id"}, false, -1, "20k120 21k121 22k122 ", 1},
  };
  for (const auto& [selector, fields, descending, limit, want, pages] : cases) {
    SCOPED_TRACE(selector);
    const FindQuery q{
        .selector = selector, .fields = fields, .sort = {{"n", descending}}, .limit = limit, .pageSize = 5};
    std::string ns, error;
    FindStats stats;
    ASSERT_TRUE(FindDocuments(
        *s_pool, server(), db, q,
        [&](qzVariant& doc) {
          const qzVariantMapImpl& d = doc.toMap();
          EXPECT_EQ(d.size(), fields.size());
          return ns += d.at("n").toString() + (d.count("_id") ? d.at("_id").toString() : "") + " ", true;
        },
        &stats, &error, nullptr))
        << error;
    EXPECT_EQ(ns, want);
    EXPECT_EQ(stats.pages, pages);
    EXPECT_EQ(stats.pagedBySkip, pages > 1);
  }
}

TEST_F(CouchQueryOnPouchDb, StoredCheckpointResumesAFeedWhereTheLastConsumerStopped) {
  auto put = [&](const std::string& id, const std::string& body) {
    return s_server->request("PUT", "/" + db + "/" + id, body);
  };
  for (const char* id : {"a", "b", "c"})
    ASSERT_EQ(put(id, "{}"), 201);
  auto follow = [&](const char* name, int refuseAt = 0) {
    FeedCheckpoint checkpoint(*s_pool, server(), db, name);
    ChangesFeedListener feed(*s_pool, server(), db, {.batchLimit = 2});
    std::string ids, error;
    int batches = 0;
    EXPECT_TRUE(checkpoint.follow(
        feed,
        [&](std::vector<Change>& batch) {
          for (const Change& c : batch)
            ids += batches + 1 == refuseAt ? "" : c.id;
          return ++batches != refuseAt;
        },
        &error))
        << error;
    return ids;
  };
  EXPECT_EQ(follow("one", 2), "ab"); // stops before its second batch
  EXPECT_EQ(follow("one"), "c");
  EXPECT_EQ(follow("one"), "");
  EXPECT_EQ(follow("two"), "abc"); // a checkpoint of its own
  ASSERT_EQ(put("d", "{}"), 201);
  // Another writer moved the checkpoint meanwhile: the save reads it again and wins.
  FeedCheckpoint stale(*s_pool, server(), db, "one");
  std::string seq;
  ASSERT_TRUE(stale.load(seq));
  EXPECT_EQ(seq, "3");
  ASSERT_EQ(
      put("_local/one", R"({"seq":"2","_rev":")" + get("/" + db + "/_local/one").toMap().at("_rev").toString() + "\"}"),
      201);
  EXPECT_TRUE(stale.save("4"));
  EXPECT_EQ(follow("one"), "");
  std::string answer;
  ASSERT_EQ(s_server->request("GET", "/" + db + "/_changes", {}, &answer), 200);
  EXPECT_EQ(answer.find("_local"), std::string::npos); // the checkpoint is no change
}

const char* const kSelectorDocs[] = {
    R"({"_id":"a","n":1,"s":"x","tags":["red","blue"],"o":{"k":1},"b":true})",
    R"({"_id":"b","n":2.5,"s":"y","tags":["red"],"o":{"k":2,"z":null}})",
    R"({"_id":"c","n":"3","s":"xy","tags":[],"nul":null})",
    R"({"_id":"d","n":10,"arr":[{"q":1},{"q":5}],"dot.key":7})",
    R"({"_id":"e"})",
};

struct Case {
  const char* selector;
  const char* ids;  // the documents it matches, in order
  bool peer = true; // pouchdb-server's _find decides it as CouchDB does
};
const Case kCases[] = {
    {R"({"n":1})", "a"},
    {R"({"n":{"$gt":2}})", "bcd"}, // the string "3" sorts after every number
    {R"({"n":{"$lt":"a"}})", "abcd"},
    {R"({"n":{"$gt":1,"$lt":10}})", "b"},
    // A missing field matches nothing but $exists false; pouchdb-server lets $ne match it.
    {R"({"n":{"$ne":1}})", "bcd", false},
    {R"({"n":{"$in":[1,10]}})", "ad"},
    {R"({"n":{"$nin":[1,10]}})", "bc"},
    {R"({"n":{"$type":"string"}})", "c"},
    {R"({"n":{"$mod":[3,1]}})", "ad"},
    {R"({"s":{"$regex":"^x"}})", "ac"},
    {R"({"s":{"$exists":false}})", "de"},
    {R"({"nul":{"$exists":true}})", "c"},
    {R"({"tags":"red"})", ""}, // an array is not searched by a plain value
    {R"({"tags":{"$in":["blue"]}})", "a"},
    {R"({"tags":{"$all":["red"]}})", "ab"},
    {R"({"tags":{"$size":0}})", "c"},
    {R"({"tags":{"$elemMatch":{"$eq":"blue"}}})", "a"},
    {R"({"tags":{"$allMatch":{"$eq":"red"}}})", "b"},
    {R"({"arr":{"$elemMatch":{"q":{"$gt":2}}}})", "d"},
    {R"({"tags.0":"red"})", "ab"},
    {R"({"o.k":{"$gte":2}})", "b"},
    {R"({"o":{"k":1}})", "a"},
    {R"({"o.z":null})", "b"},
    {R"({"dot\\.key":7})", "d"},
    {R"({"$or":[{"n":1},{"s":"y"}]})", "ab"},
    {R"({"$nor":[{"n":1},{"s":"y"}]})", "cde"},
    {R"({"$and":[{"s":{"$gt":"x"}},{"tags":{"$size":0}}]})", "c"},
    {R"({"$not":{"n":1}})", "bcde"},
    {R"({"n":{"$not":{"$gt":2}}})", "a", false}, // pouchdb-server: $not only around a selector
    {R"({"o":{"$keyMapMatch":{"$eq":"z"}}})", "b", false},
};

std::string Matches(const qzVariant& selector, std::string* error) {
  std::string ids;
  for (const char* text : kSelectorDocs) {
    qzVariant doc;
    qz::json::Json2Variant::Convert(text, std::strlen(text), doc);
    std::string why;
    if (qz::couch::MatchesSelector(selector, doc, &why))
      ids += doc.toMap().at("_id").toString();
    if (error->empty())
      *error = why;
  }
  return ids;
}

qzVariant Parse(const std::string& text) {
  qzVariant v;
  EXPECT_TRUE(qz::json::Json2Variant::Convert(text.data(), text.size(), v)) << text;
  return v;
}

using MangoSelectorOnPouchDb = qztest::PouchDbTest;

TEST_F(MangoSelectorOnPouchDb, MatchesAsCouchDbAndAsPouchDbServerFinds) {
  for (const char* doc : kSelectorDocs)
    ASSERT_EQ(s_server->request("POST", "/" + db, doc), 201);
  for (const Case& k : kCases) {
    SCOPED_TRACE(k.selector);
    std::string error;
    EXPECT_EQ(Matches(Parse(k.selector), &error), k.ids);
    EXPECT_EQ(error, "");
    if (!k.peer)
      continue;
    std::string answer;
    ASSERT_EQ(
        s_server->request("POST", "/" + db + "/_find", std::string(R"({"selector":)") + k.selector + "}", &answer), 200)
        << answer;
    std::string ids; // one letter each
    const qzVariant result = Parse(answer);
    for (const qzVariant& doc : result.toMap().at("docs").toList())
      ids += doc.toMap().at("_id").toString();
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, k.ids) << "pouchdb-server disagrees";
  }
}

TEST(MangoSelector, SelectorsItCannotReadAreErrorsNotMismatches) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"n":{"$foo":1}})", "unknown operator $foo"},
      {R"({"$where":"1"})", "unknown operator $where"},
      {R"({"$and":{"n":1}})", "$and takes an array of selectors"},
      {R"({"n":{"$in":5}})", "bad argument of $in"},
      {R"({"n":{"$type":"num"}})", "bad argument of $type"},
      {R"({"n":{"$mod":[0,1]}})", "bad argument of $mod"},
      {R"({"s":{"$regex":"("}})", "invalid $regex ("},
      {R"({"n":{"$exists":1}})", "$exists takes a boolean"},
      {R"([1])", "a selector must be an object"},
  };
  for (const auto& [selector, why] : cases) {
    SCOPED_TRACE(selector);
    std::string error;
    EXPECT_EQ(Matches(Parse(selector), &error), "");
    EXPECT_EQ(error, why);
  }
}

} // namespace
