#include <HttpTools/couch/CouchDocuments.h>

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/couch/ConflictSolver.h>
#include <HttpTools/couch/CouchBackup.h>
#include <HttpTools/couch/CouchFind.h>
#include <HttpTools/couch/CouchViewQuery.h>
#include <HttpTools/couch/FeedCheckpoint.h>
#include <HttpTools/couch/MangoSelector.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/platform/qzJson.h>

#include "support/FaultProxy.h"
#include "support/PouchDbTest.h"
#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

// Options by designated initializers: the members left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using qz::qzVariant;
using qz::qzVariantMapImpl;
using namespace qz::couch;

namespace {

class CouchToolsOnPouchDb : public qztest::PouchDbTest {
protected:
  // A proxy in front of the server, with one rule.
  CouchConnectionParameters through(qztest::FaultProxy& proxy, const qztest::FaultProxy::Rule& rule) const {
    EXPECT_TRUE(proxy.start()) << proxy.error();
    proxy.addRule(rule);
    return CouchConnectionParameters(qz::Url(proxy.baseUrl()));
  }
  int put(const std::string& id, const std::string& body) const {
    return s_server->request("PUT", "/" + db + "/" + id, body);
  }
  qzVariantMapImpl doc(const std::string& id, const std::string& query = {}) const {
    return get("/" + db + "/" + id + query).toMap();
  }
  std::string rev(const std::string& id) const { return doc(id)["_rev"].toString(); }
  // A database as the server shows it, read without the code under test: every leaf of every
  // document with its history, and each document's winner with its conflicts.
  std::map<std::string, std::string> contents(const std::string& name) const {
    std::map<std::string, std::string> out;
    const qzVariant feed = get("/" + name + "/_changes");
    for (const qzVariant& row : feed.toMap().at("results").toList()) {
      const std::string id = row.toMap().at("id").toString(), at = "/" + name + "/" + id;
      int status = 0;
      const std::string winner = get(at + "?conflicts=true", &status).toString();
      out[id] = std::to_string(status) + winner + get(at + "?open_revs=all&revs=true&attachments=true").toString();
    }
    return out;
  }
  // Two leaves for `id`: the one PUT made and a sibling written with new_edits=false.
  void conflict(const std::string& id) const {
    ASSERT_EQ(put(id, R"({"a":1})"), 201);
    ASSERT_EQ(s_server->request("POST", "/" + db + "/_bulk_docs",
                                R"({"docs":[{"_id":")" + id + R"(","_rev":"1-ffff","b":2}],"new_edits":false})"),
              201);
  }
  // The winner's fields and how many conflicts it has, e.g. "a:1 b:2 /0".
  std::string state(const std::string& id) const {
    std::string out;
    const qzVariantMapImpl d = doc(id, "?conflicts=true");
    for (const auto& [k, v] : d)
      if (k[0] != '_')
        out += k + ":" + v.toString() + " ";
    return out + "/" + std::to_string(d.count("_conflicts") ? d.at("_conflicts").toList().size() : 0);
  }
};

TEST_F(CouchToolsOnPouchDb, FeedCatchesUpFollowsAndResumesWithoutLossOrRepeat) {
  for (int i = 0; i < 5; ++i)
    ASSERT_EQ(put("d" + std::to_string(i), R"({"n":)" + std::to_string(i) + "}"), 201);
  // The ids a run delivers and its checkpoint; the documents, when asked for, are the ids' own.
  auto run = [&](const ChangesOptions& o, const CouchConnectionParameters& at) {
    ChangesFeedListener feed(*s_pool, at, db, o);
    std::string ids, error;
    EXPECT_TRUE(feed.run(
        [&](const Change& c) {
          EXPECT_EQ(c.doc.isNull() ? -1 : c.doc.toMap().at("n").toInt64(), o.includeDocs ? c.id[1] - '0' : -1);
          return ids += c.id + " ", true;
        },
        &error))
        << error;
    return ids + "@" + feed.lastSeq();
  };
  EXPECT_EQ(run({.includeDocs = true, .batchLimit = 2}, server()), "d0 d1 d2 d3 d4 @5"); // three requests

  // Follow from the checkpoint while documents change; stop; change more; resume.
  ChangesFeedListener follow(*s_pool, server(), db, {.since = "5", .continuous = true});
  std::string followed; // read once the feed's thread is stopped
  ASSERT_TRUE(follow.start([&](const Change& c) { return followed += c.id + (c.deleted ? "- " : "+ "), true; }));
  ASSERT_EQ(put("d5", "{}"), 201);
  ASSERT_EQ(s_server->request("DELETE", "/" + db + "/d2?rev=" + rev("d2")), 200);
  for (int i = 0; i < 1000 && follow.changeCount() < 2; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  follow.stop();
  EXPECT_EQ(followed, "d5+ d2- ");
  ASSERT_EQ(put("d6", "{}"), 201);
  ASSERT_EQ(put("d7", "{}"), 201);
  EXPECT_EQ(run({.since = follow.lastSeq()}, server()), "d6 d7 @9");
  EXPECT_EQ(run({.docIds = {"d7", "d1", "nope"}}, server()), "d1 d7 @9"); // d7's change

  // Longpoll from the end: the request waits for the next change, written once it is out.
  qztest::FaultProxy proxy(s_server->port());
  const CouchConnectionParameters viaProxy = through(proxy, qztest::FaultProxy::Match("", "/_changes"));
  std::thread writer([&] {
    for (int i = 0; i < 1000 && proxy.forwarded(0) == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(put("d8", "{}"), 201);
  });
  EXPECT_EQ(run({.since = "9", .longpoll = true}, viaProxy), "d8 @10");
  writer.join();
}

// The resolver that merges: the union of every leaf's fields.
bool Merge(const std::string&, const std::vector<qzVariantMapImpl>& leaves, qzVariantMapImpl& winner) {
  for (const auto& leaf : leaves)
    for (const auto& [k, v] : leaf)
      if (k[0] != '_')
        winner[k] = v;
  return true;
}

TEST_F(CouchToolsOnPouchDb, ConflictsAreSolvedAndEveryLeafIsKeptUntilTheWinnerIsStored) {
  for (const char* id : {"c1", "c2", "c3", "z1"}) // z1 on the second page of the listing
    conflict(id);
  std::string plain = R"({"docs":[{"_id":"plain"})";
  for (int i = 0; i < 500; ++i)
    plain += R"(,{"_id":"p)" + std::to_string(1000 + i) + "\"}";
  ASSERT_EQ(s_server->request("POST", "/" + db + "/_bulk_docs", plain + "]}"), 201);
  ConflictSolver solver(*s_pool, server(), db);
  std::vector<std::string> ids;
  std::string error;
  ASSERT_TRUE(solver.findConflicts(ids, &error, nullptr)) << error;
  EXPECT_EQ(ids, (std::vector<std::string>{"c1", "c2", "c3", "z1"}));

  // Default: CouchDB's winner stays as it is; the other leaf goes, and there is nothing left to solve.
  const qzVariantMapImpl before = doc("c1");
  bool solved = false, again = true;
  ASSERT_TRUE(solver.solve("c1", &error, &solved) && solver.solve("c1", &error, &again)) << error;
  EXPECT_EQ(std::tuple(solved, again, doc("c1", "?conflicts=true")), std::tuple(true, false, before));

  size_t seenLeaves = 0, count = 0;
  solver.setResolver([&](const std::string& id, const std::vector<qzVariantMapImpl>& leaves, qzVariantMapImpl& w) {
    seenLeaves = leaves.size();
    return Merge(id, leaves, w);
  });
  ASSERT_TRUE(solver.solveAll(&count, &error, nullptr)) << error;
  EXPECT_EQ(std::tuple(count, seenLeaves, state("c2") + state("z1")), std::tuple(3u, 2u, "a:1 b:2 /0a:1 b:2 /0"));
  ASSERT_TRUE(solver.solveAll(&count, &error, nullptr)) << error;
  EXPECT_EQ(count, 0u);

  conflict("c4"); // a resolver that declines leaves the document conflicted
  solver.setResolver([](const auto&, const auto&, auto&) { return false; });
  ASSERT_TRUE(solver.solve("c4", &error, &solved));
  EXPECT_EQ(std::tuple(solved, state("c4")), std::tuple(false, "b:2 /1"));

  // Through a proxy: lost answers, another writer, a resolver that throws.
  using P = qztest::FaultProxy;
  const std::tuple<const char*, P::Rule, const char*, std::string> cases[] = {
      // error; the winner's state (its end)
      {"lost-winner", P::Match("POST", "/_bulk_docs", P::DropAnswer), "", "a:1 b:2 /0"},
      {"lost-tombstones", P::Match("POST", "/_bulk_docs", P::DropAnswer).from(2), "", "a:1 b:2 /0"},
      {"raced", P::Match("", ""), "changed by another writer meanwhile", "/1"},
      {"throws", P::Match("", ""), "the resolver failed: boom", "/1"},
  };
  P proxy(s_server->port());
  ConflictSolver faulty(*s_pool, through(proxy, P::Match("", "")), db);
  faulty.setResolver([&](const std::string& id, const std::vector<qzVariantMapImpl>& leaves, qzVariantMapImpl& winner) {
    if (id == "throws")
      throw std::runtime_error("boom");
    if (id == "raced") { // another writer updates the winner first
      EXPECT_EQ(put(id, R"({"other":true,"_rev":")" + winner["_rev"].toString() + "\"}"), 201);
    }
    return Merge(id, leaves, winner);
  });
  for (const auto& [id, rule, why, after] : cases) {
    SCOPED_TRACE(id);
    conflict(id);
    proxy.clearRules();
    proxy.addRule(rule);
    const bool ok = !*why, result = faulty.solve(id, &error, &solved);
    EXPECT_EQ(std::tuple(result, solved, proxy.acted(0)), std::tuple(ok, ok, 1u)); // the fault did happen
    EXPECT_NE(error.find(why), std::string::npos) << error;
    EXPECT_TRUE(state(id).ends_with(after)) << state(id);
    EXPECT_TRUE(ok || doc(id, "?rev=1-ffff")["b"].toInt64() == 2); // nothing lost: the other leaf is there
  }
  // The two that fail again do not hold c4 back.
  EXPECT_FALSE(faulty.solveAll(&count, &error, nullptr));
  EXPECT_EQ(std::tuple(count, state("c4")), std::tuple(1u, "a:1 b:2 /0"));
  EXPECT_NE(error.find("(and 1 more document(s) not solved)"), std::string::npos) << error;
}

TEST_F(CouchToolsOnPouchDb, UpdaterRetriesDocumentsAnotherWriterChangedAndGetterReportsTheMissing) {
  // By i % 7: 3 is deleted, 5 gets an inline attachment, the rest counts up; every batch has each.
  std::vector<std::string> ids;
  for (int i = 0; i < 35; ++i)
    ASSERT_EQ(put(ids.emplace_back("u" + std::to_string(i)), R"({"n":0})"), 201);
  ids.push_back("absent");
  auto role = [](const std::string& id) { return id == "absent" ? -1 : std::stoi(id.substr(1)) % 7; };
  std::set<std::string> raced;
  // The first write is applied but its answer lost: the retry must not change those documents again.
  qztest::FaultProxy proxy(s_server->port());
  DocumentUpdater updater(
      *s_pool, through(proxy, qztest::FaultProxy::Match("POST", "/_bulk_docs", qztest::FaultProxy::DropAnswer)), db, 4);
  updater.setBatchSize(7);
  size_t written = 0;
  std::string error;
  ASSERT_TRUE(updater.update(
      ids,
      [&](qzVariantMapImpl& d) {
        const std::string id = d["_id"].toString();
        if (role(id) == 3)
          return d["_deleted"] = true, true;
        if (role(id) == 5)
          d["_attachments"] = qzVariantMapImpl{
              {"a.txt", qzVariantMapImpl{{"content_type", "text/plain"}, {"data", "aGVsbG8gd29ybGQ="}}}};
        else if (id.back() % 2 == 0 && raced.insert(id).second) { // another writer gets there first, once
          EXPECT_EQ(put(id, R"({"n":10,"other":true,"_rev":")" + d["_rev"].toString() + "\"}"), 201);
        }
        d["n"] = d["n"].toInt64() + 1;
        return id != "u29"; // one document is left alone
      },
      &written, &error, nullptr))
      << error;
  EXPECT_EQ(std::tuple(written, raced.size(), proxy.acted(0)), std::tuple(34u, 14u, 1u));
  for (const std::string& id : std::vector(ids.begin(), ids.end() - 1)) { // not "absent"
    const std::string want = role(id) == 3     ? "error:not_found reason:missing /0"
                             : raced.count(id) ? "n:11 other:true /0"
                             : role(id) == 5   ? "n:1 /0 +a"
                             : id == "u29"     ? "n:0 /0"
                                               : "n:1 /0";
    EXPECT_EQ(state(id) + (doc(id).count("_attachments") ? " +a" : ""), want) << id;
  }

  // The getter: deleted and absent ids are reported missing, in the order asked.
  ids.insert(ids.begin() + 10, "absent-1");
  DocumentGetter getter(*s_pool, server(), db, 3);
  getter.setBatchSize(4);
  std::atomic<int64_t> read{0}, sum{0}; // the updates above: 14 * 11 + 15 * 1 + 0
  std::vector<std::string> missing;
  ASSERT_TRUE(getter.get(
      ids, [&](const std::string&, qzVariant& d) { ++read, sum += d.toMap().at("n").toInt64(); }, &missing, &error,
      nullptr))
      << error;
  EXPECT_EQ(missing, (std::vector<std::string>{"u3", "absent-1", "u10", "u17", "u24", "u31", "absent"}));
  EXPECT_EQ(std::tuple(read.load(), sum.load()), std::tuple(30, 169));
  const bool cancel = true;
  EXPECT_FALSE(getter.get(ids, nullptr, &missing, &error, &cancel));
}

TEST_F(CouchToolsOnPouchDb, UploaderStoresTwentyThousandDocumentsAndReportsPerItemFailures) {
  // doc-00100 is not in the way: that document gets an id of its own.
  for (const char* id : {"doc-00077", "doc-00100", "doc-12345"})
    ASSERT_EQ(put(id, "{}"), 201);
  const size_t total = 20000;
  // Answers of applied batches are lost: their retries store nothing twice, fail nothing.
  qztest::FaultProxy proxy(s_server->port());
  const auto lost = qztest::FaultProxy::Match("POST", "/_bulk_docs", qztest::FaultProxy::DropAnswer).from(2).repeat(3);
  DocumentUploader up(*s_pool, through(proxy, lost), db, 4, 500, 64 << 10); // ~220 B each: bytes fill first
  for (size_t i = 0; i < total; ++i) {
    char id[16];
    std::snprintf(id, sizeof id, "doc-%05zu", i);
    qzVariantMapImpl d{{"i", int64_t(i)}, {"pad", std::string(180, 'x')}};
    if (i % 100 != 0) // every hundredth has no id
      d["_id"] = id;
    ASSERT_TRUE(up.add(std::move(d)));
  }
  std::string error;
  EXPECT_FALSE(up.flush(&error));
  EXPECT_NE(error.find("2 document(s) not stored"), std::string::npos) << error;
  EXPECT_THAT(up.failures(), testing::UnorderedElementsAre(testing::Pair("doc-00077", testing::HasSubstr("conflict")),
                                                           testing::Pair("doc-12345", testing::HasSubstr("conflict"))));
  EXPECT_EQ(std::tuple(up.uploaded(), proxy.acted(0)), std::tuple(total - 2, 3u));
  const qzVariantMapImpl info = get("/" + db).toMap();
  EXPECT_EQ(std::tuple(info.at("doc_count").toInt64(), info.at("update_seq").toInt64()), // nothing written twice
            std::tuple(int64_t(total + 1), int64_t(total + 1)));
}

using CouchQueryOnPouchDb = CouchToolsOnPouchDb;

// Views and finds over the same documents: k100 to k122 with n from 0 to 22.
TEST_F(CouchQueryOnPouchDb, ViewOptionsReachTheServerAndFindPagesBySkipWithFieldsAndSort) {
  std::string docs = R"({"docs":[{"_id":"_design/app","views":{"by_n":{"reduce":"_sum",)"
                     R"("map":"function(d){ if (d.n !== undefined) emit([d.n % 2, d.n], d.n); }"}}})";
  for (int i = 0; i < 23; ++i)
    docs += R"(,{"_id":"k)" + std::to_string(100 + i) + R"(","n":)" + std::to_string(i) + R"(,"odd":)" +
            (i % 2 ? "true" : "false") + "}";
  ASSERT_EQ(s_server->request("POST", "/" + db + "/_bulk_docs", docs + "]}"), 201);
  ASSERT_EQ(s_server->request("POST", "/" + db + "/_index", R"({"index":{"fields":["n"]}})"), 200);
  qz::http::HttpConnection conn;
  // "id|key|value[|doc's n][error] ..." or the error; `take` false refuses the first row.
  auto fetch = [&](const ViewQueryOptions& q, const std::string& view = "by_n", bool take = true) {
    std::string rows, error;
    const bool ok = FetchCouchDbView(
        conn, server(), db, view.empty() ? "" : "app", view, q,
        [&](ViewRow& r) {
          rows += r.id + "|" + r.key.toString() + "|" + r.value.toString() +
                  (r.doc.isNull() ? "" : "|" + r.doc.toMap().at("n").toString()) + r.error + " ";
          return take;
        },
        &error);
    return ok ? rows : "failed: " + error;
  };
  const std::pair<ViewQueryOptions, std::string> cases[] = {
      {{}, "||253 "},
      {{.startKey = "[1,3]", .endKey = "[1,7]", .includeDocs = true, .reduce = false, .inclusiveEnd = false, .skip = 1},
       "k105|[1,5]|5|5 "},
      {{.reduce = false, .descending = true, .limit = 2}, "k121|[1,21]|21 k119|[1,19]|19 "},
      {{.keys = {"[0,4]", "[1,1]"}, .reduce = false}, "k104|[0,4]|4 k101|[1,1]|1 "},
  };
  for (const auto& [q, rows] : cases)
    EXPECT_EQ(fetch(q), rows);
  EXPECT_TRUE(fetch({.keys = {"\"k102\"", "\"nope\""}}, "").ends_with(" |nope|not_found ")); // _all_docs
  EXPECT_THAT(fetch({}, "missing"), testing::AllOf(testing::StartsWith("failed: "), testing::HasSubstr("404")));
  EXPECT_EQ(fetch({}, "by_n", false), "failed: row refused");

  const std::tuple<const char*, std::vector<std::string>, bool, long, std::string> finds[] = {
      // selector, fields, descending, limit, the n (and _id) of each document, then the pages
      {R"({"n":{"$gte":0},"odd":true})", {"n"}, false, -1, "1 3 5 7 9 11 13 15 17 19 21 /3"},
      {R"({"n":{"$gte":0}})", {"n"}, true, 7, "22 21 20 19 18 17 16 /2"},
      {R"({"n":{"$gte":20}})", {"n", "_id"}, false, -1, "20k120 21k121 22k122 /1"},
  };
  for (const auto& [selector, fields, descending, limit, want] : finds) {
    const FindQuery q{
        .selector = selector, .fields = fields, .sort = {{"n", descending}}, .limit = limit, .pageSize = 5};
    std::string ns, error;
    FindStats stats;
    ASSERT_TRUE(FindDocuments(
        *s_pool, server(), db, q,
        [&](qzVariant& doc) {
          const qzVariantMapImpl& d = doc.toMap();
          EXPECT_EQ(d.size(), q.fields.size());
          return ns += d.at("n").toString() + (d.count("_id") ? d.at("_id").toString() : "") + " ", true;
        },
        &stats, &error, nullptr))
        << error;
    EXPECT_EQ(ns + "/" + std::to_string(stats.pages), want);
    EXPECT_EQ(stats.pagedBySkip, stats.pages > 1);
  }
}

TEST_F(CouchQueryOnPouchDb, StoredCheckpointResumesAFeedWhereTheLastConsumerStopped) {
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
  // The second batch is refused; then the rest, nothing; another name has a checkpoint of its own.
  EXPECT_EQ((std::vector<std::string>{follow("one", 2), follow("one"), follow("one"), follow("two")}),
            (std::vector<std::string>{"ab", "c", "", "abc"}));
  ASSERT_EQ(put("d", "{}"), 201);
  // Another writer moved the checkpoint meanwhile: the save reads it again and wins.
  FeedCheckpoint stale(*s_pool, server(), db, "one");
  std::string seq;
  ASSERT_TRUE(stale.load(seq) && seq == "3") << seq;
  ASSERT_EQ(put("_local/one", R"({"seq":"2","_rev":")" + rev("_local/one") + "\"}"), 201);
  EXPECT_TRUE(stale.save("4"));
  EXPECT_EQ(follow("one"), "");
  EXPECT_EQ(get("/" + db + "/_changes").toString().find("_local"), std::string::npos); // the checkpoint is no change
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
  const char* ids;        // the documents it matches, in order
  bool peer = true;       // pouchdb-server's _find decides it as CouchDB does
  const char* error = ""; // a selector it cannot read is an error, not a mismatch
};
const Case kCases[] = {
    {R"({"n":1})", "a"},
    {R"({"n":{"$gt":2}})", "bcd"}, // the string "3" sorts after every number
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
    {R"({"n":{"$foo":1}})", "", false, "unknown operator $foo"},
    {R"({"$where":"1"})", "", false, "unknown operator $where"},
    {R"({"$and":{"n":1}})", "", false, "$and takes an array of selectors"},
    {R"({"n":{"$in":5}})", "", false, "bad argument of $in"},
    {R"({"n":{"$type":"num"}})", "", false, "bad argument of $type"},
    {R"({"n":{"$mod":[0,1]}})", "", false, "bad argument of $mod"},
    {R"({"s":{"$regex":"("}})", "", false, "invalid $regex ("},
    {R"({"n":{"$exists":1}})", "", false, "$exists takes a boolean"},
    {R"([1])", "", false, "a selector must be an object"},
};

using MangoSelectorOnPouchDb = qztest::PouchDbTest;

TEST_F(MangoSelectorOnPouchDb, MatchesAsCouchDbAndAsPouchDbServerFinds) {
  std::vector<qzVariant> docs(std::size(kSelectorDocs));
  for (size_t i = 0; i < docs.size(); ++i) {
    ASSERT_EQ(s_server->request("POST", "/" + db, kSelectorDocs[i]), 201);
    ASSERT_TRUE(qz::json::Json2Variant::Convert(kSelectorDocs[i], std::strlen(kSelectorDocs[i]), docs[i]));
  }
  for (const Case& k : kCases) {
    qzVariant selector;
    ASSERT_TRUE(qz::json::Json2Variant::Convert(k.selector, std::strlen(k.selector), selector));
    std::string ids, error, found; // one letter each; the first document's error
    for (const qzVariant& doc : docs) {
      std::string why;
      if (MatchesSelector(selector, doc, &why))
        ids += doc.toMap().at("_id").toString();
      error = error.empty() ? why : error;
    }
    EXPECT_EQ(ids + " " + error, std::string(k.ids) + " " + k.error) << k.selector;
    if (k.peer) { // pouchdb-server's _find decides the same
      EXPECT_TRUE(FindDocuments(
          *s_pool, server(), db, {.selector = k.selector},
          [&](qzVariant& doc) { return found += doc.toMap().at("_id").toString(), true; }, nullptr, &error, nullptr))
          << error;
      std::sort(found.begin(), found.end());
      EXPECT_EQ(found, k.ids) << k.selector;
    }
  }
}

using CouchDataOnPouchDb = CouchToolsOnPouchDb;

// Revisions written as a replicator would: conflicts, a deleted leaf, a deleted document.
const char* const kHistory = R"({"new_edits":false,"docs":[
 {"_id":"c","_rev":"1-aa","v":1,"_revisions":{"start":1,"ids":["aa"]}},
 {"_id":"c","_rev":"2-bb","v":2,"_revisions":{"start":2,"ids":["bb","aa"]}},
 {"_id":"c","_rev":"2-cc","v":3,"_revisions":{"start":2,"ids":["cc","aa"]}},
 {"_id":"c","_rev":"2-dd","_deleted":true,"_revisions":{"start":2,"ids":["dd","aa"]}},
 {"_id":"gone","_rev":"3-ee","_deleted":true,"_revisions":{"start":3,"ids":["ee","e2","e1"]}},
 {"_id":"dw","_rev":"1-ff","_deleted":true,"_revisions":{"start":1,"ids":["ff"]}},
 {"_id":"dw","_rev":"1-01","w":"live loser","_revisions":{"start":1,"ids":["01"]}}]})";

void Fill(const qztest::PouchDbServer& s, const std::string& db, int plain) {
  ASSERT_EQ(s.request("POST", "/" + db + "/_bulk_docs", kHistory), 201);
  std::string docs = R"({"docs":[{"_id":"_design/app","views":{"v":{"map":"function(d){emit(d.n)}"}}},)"
                     R"({"_id":"att","_attachments":{"f.txt":{"content_type":"text/plain","data":"aGVsbG8="}}})";
  for (int i = 0; i < plain; ++i)
    docs += ",{\"_id\":\"p" + std::to_string(i) + "\",\"n\":" + std::to_string(i) + ",\"s\":\"\\u00e9\\n\"}";
  ASSERT_EQ(s.request("POST", "/" + db + "/_bulk_docs", docs + "]}"), 201);
  ASSERT_EQ(s.request("PUT", "/" + db + "/_local/mine", R"({"x":1})"), 201);
}

TEST_F(CouchDataOnPouchDb, BackupThenRestoreGivesTheSameLeavesWinnersAndConflicts) {
  Fill(*s_server, db, 60);
  std::string error;
  // 7 batches on two threads: the feed waits for the writer.
  for (const auto& [attachments, batch, threads] :
       {std::tuple{true, size_t(10), 2u}, std::tuple{false, size_t(1000), 1u}}) {
    SCOPED_TRACE(attachments);
    const std::string target = db + (attachments ? "_att" : "_plain");
    s_server->request("DELETE", "/" + target); // left by an earlier repeat
    ASSERT_EQ(s_server->request("PUT", "/" + target), 201);
    std::stringstream file;
    std::vector<std::string> checkpoints;
    BackupStats stats;
    ASSERT_TRUE(BackupDatabase(
        *s_pool, server(), db, {.batchSize = batch, .threads = threads, .attachments = attachments}, file,
        [&](const std::string& seq, uint64_t) { checkpoints.push_back(seq); }, &stats, &error, nullptr))
        << error;
    // 60 plain, c, gone, dw, att, the design document (not _local/mine), and three more leaves of c and dw.
    EXPECT_EQ(std::tuple(stats.documents, stats.revisions, checkpoints.size()),
              std::tuple(65u, 68u, (64 + batch) / batch));
    EXPECT_EQ(checkpoints.back(), stats.lastSeq);
    const std::string text = file.str(), none;
    EXPECT_EQ(std::tuple(text.find("_local"), text.find("\"stub\""), text.find("aGVsbG8=") != none.npos),
              std::tuple(none.npos, none.npos, attachments));

    RestoreStats restored;
    ASSERT_TRUE(RestoreDatabase(*s_pool, server(), target, file, 2, 50, &restored, &error, nullptr)) << error;
    EXPECT_EQ(restored.stored, stats.revisions);
    std::map<std::string, std::string> want = contents(db), got = contents(target);
    if (!attachments) { // the same revision, without its attachment
      EXPECT_EQ(get("/" + target + "/att").toMap().count("_attachments"), 0u);
      want.erase("att");
      got.erase("att");
    }
    EXPECT_EQ(got, want);
    EXPECT_EQ(s_server->request("GET", "/" + target + "/_local/mine"), 404);
  }
  // A stream that refuses writes: the backup fails and hands on no checkpoint.
  std::stringstream refused;
  refused.setstate(std::ios::badbit);
  EXPECT_FALSE(BackupDatabase(
      *s_pool, server(), db, {.batchSize = 10}, refused,
      [](const std::string& seq, uint64_t) { ADD_FAILURE() << "checkpoint " << seq; }, nullptr, &error, nullptr));
  EXPECT_EQ(error, "writing the backup failed");
  // Lines that are not documents with an id are counted and skipped; the last, longer than a read, has no newline.
  std::stringstream odd("[1]\n{\"_id\":5}\n\n{\"a\":{\"_id\":\"x\"}}\n{\"_id\":\"x\",\"_rev\":\"1-ab\",\"p\":\"" +
                        std::string(150000, 'p') + "\"} ");
  RestoreStats restored;
  EXPECT_FALSE(RestoreDatabase(*s_pool, server(), db, odd, 1, 10, &restored, &error, nullptr));
  EXPECT_EQ(std::tuple(error, restored.stored, rev("x")), std::tuple("3 line(s) are not documents", 1u, "1-ab"));
}

#ifdef HTTPTOOLS_CLI

TEST_F(CouchToolsOnPouchDb, CommandLineToolsUploadFollowGetAndSolve) {
  const std::string url = s_server->baseUrl() + "/" + db;
  std::string out, err;
  ASSERT_EQ(put("taken", R"({"mine":false})"), 201);
  EXPECT_EQ(qztest::RunProgram(
                {HTTPTOOLS_CLI, "couch", "upload", url, "-", "--threads", "2"},
                "{\"_id\":\"a\",\"n\":1}\n\n{\"_id\":\"taken\"}\n[1]\n{\"_id\":\"b\",\"s\":\"\\u00e9\"}\n", out, err),
            1);
  EXPECT_EQ(out, "{\"uploaded\":2,\"failed\":1,\"invalid\":1}\n");
  EXPECT_THAT(err,
              testing::AllOf(testing::HasSubstr("line 4: not a JSON object"), testing::HasSubstr("taken: conflict")));

  EXPECT_EQ(qztest::RunProgram({HTTPTOOLS_CLI, "couch", "changes", url, "--since", "1"}, "", out, err), 0) << err;
  const std::string change = R"({"deleted":false,"doc":null,"id":")";
  EXPECT_EQ(out, change + R"(a","revs":[")" + rev("a") + R"("],"seq":"2"})" + "\n" + change + R"(b","revs":[")" +
                     rev("b") + R"("],"seq":"3"})" + "\n");

  EXPECT_EQ(qztest::RunProgram({HTTPTOOLS_CLI, "couch", "get", url, "b", "zz"}, "", out, err), 1);
  EXPECT_EQ(out + err, "{\"_id\":\"b\",\"_rev\":\"" + rev("b") + "\",\"s\":\"\xc3\xa9\"}\nnot found: zz\n");

  conflict("c");
  EXPECT_EQ(qztest::RunProgram({HTTPTOOLS_CLI, "couch", "conflicts", url, "--resolve"}, "", out, err), 0) << err;
  EXPECT_EQ(out, "c\nsolved 1\n");
  EXPECT_EQ(qztest::RunProgram({HTTPTOOLS_CLI, "couch", "changes", "http://127.0.0.1:1"}, "", out, err), 3);
}

TEST_F(CouchDataOnPouchDb, CommandLineBackupResumesFromItsLogAfterAFailedBatch) {
  Fill(*s_server, db, 40);
  qztest::FaultProxy proxy(s_server->port());
  // The second _bulk_get is refused: the first batch (a quarter of the feed's first page) is logged, no more.
  through(proxy, qztest::FaultProxy::Match("POST", "/_bulk_get", qztest::FaultProxy::Refuse).from(2).answer(400));
  const std::string file = ::testing::TempDir() + db + ".ndjson", log = ::testing::TempDir() + db + ".log";
  std::remove(file.c_str());
  std::remove(log.c_str());
  std::string out, err;
  auto backup = [&](const std::string& base) {
    return qztest::RunProgram({"/bin/sh", "-c",
                               std::string(HTTPTOOLS_CLI) + " couch backup " + base + "/" + db +
                                   " --attachments --threads 1 --batch 10 --log " + log + " >> " + file},
                              "", out, err);
  };
  auto lines = [](std::istream&& in) {
    std::multiset<std::string> out;
    for (std::string l; std::getline(in, l);)
      out.insert(l);
    return out;
  };
  EXPECT_EQ(backup(proxy.baseUrl()), 22); // the refused request's kind, as curl -f gives it
  EXPECT_NE(err.find("_bulk_get"), std::string::npos) << err;
  EXPECT_GE(lines(std::ifstream(file)).size(), 10u);
  std::ofstream(file, std::ios::app) << "{\"_id\":\"torn"; // a write cut short

  ASSERT_EQ(backup(s_server->baseUrl()), 0) << err;
  std::string full;
  ASSERT_EQ(qztest::RunProgram({HTTPTOOLS_CLI, "couch", "backup", s_server->baseUrl() + "/" + db, "--attachments"}, "",
                               full, err),
            0);
  const std::multiset<std::string> whole = lines(std::istringstream(full));
  EXPECT_EQ(lines(std::ifstream(file)), whole); // no line lost, none twice, none torn
  EXPECT_EQ(whole.size(), 48u);

  s_server->request("DELETE", "/" + db + "_copy");
  ASSERT_EQ(s_server->request("PUT", "/" + db + "_copy"), 201);
  const int rc = qztest::RunProgram({HTTPTOOLS_CLI, "couch", "restore", s_server->baseUrl() + "/" + db + "_copy", file},
                                    "", out, err);
  EXPECT_EQ(std::to_string(rc) + " " + out, "0 {\"revisions\":48,\"stored\":48,\"failed\":0,\"invalid\":0}\n") << err;
  EXPECT_EQ(contents(db + "_copy"), contents(db));
}
#endif

} // namespace
