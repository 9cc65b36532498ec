#include <HttpTools/couch/CouchBackup.h>

#include <HttpTools/couch/CouchFind.h>
#include <HttpTools/couch/FeedCheckpoint.h>
#include <HttpTools/couch/MangoSelector.h>
#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>

#include "support/FaultProxy.h"
#include "support/PouchDbTest.h"
#include "support/Process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

// Options by designated initializers: the members left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using qz::qzVariant;
using qz::qzVariantMapImpl;
using namespace qz::couch;

namespace {

class CouchDataOnPouchDb : public qztest::PouchDbTest {
protected:
  // A database as the server shows it, read without the code under test: every leaf of every
  // document with its history, and each document's winner with its conflicts.
  std::map<std::string, std::string> contents(const std::string& name) const {
    std::map<std::string, std::string> out;
    const qzVariant feed = get("/" + name + "/_changes?style=all_docs");
    for (const qzVariant& row : feed.toMap().at("results").toList()) {
      const std::string id = row.toMap().at("id").toString();
      for (const qzVariant& c : row.toMap().at("changes").toList()) {
        const std::string rev = c.toMap().at("rev").toString();
        out["leaf " + id + " " + rev] =
            get("/" + name + "/" + id + "?revs=true&attachments=true&rev=" + rev).toString();
      }
      int status = 0;
      const std::string winner = get("/" + name + "/" + id + "?conflicts=true", &status).toString();
      out["winner " + id] = std::to_string(status) + winner;
    }
    return out;
  }
};

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
  std::string docs = R"({"docs":[{"_id":"_design/app","views":{"v":{"map":"function(d){emit(d.n)}"}}})";
  for (int i = 0; i < plain; ++i)
    docs += ",{\"_id\":\"p" + std::to_string(i) + "\",\"n\":" + std::to_string(i) + ",\"s\":\"\\u00e9\\n\"}";
  ASSERT_EQ(s.request("POST", "/" + db + "/_bulk_docs", docs + "]}"), 201);
  ASSERT_EQ(s.request("PUT", "/" + db + "/att",
                      R"({"_attachments":{"f.txt":{"content_type":"text/plain","data":"aGVsbG8="}}})"),
            201);
  ASSERT_EQ(s.request("PUT", "/" + db + "/_local/mine", R"({"x":1})"), 201);
}

TEST_F(CouchDataOnPouchDb, BackupThenRestoreGivesTheSameLeavesWinnersAndConflicts) {
  Fill(*s_server, db, 60);
  struct Case {
    bool attachments;
    size_t batch;
    unsigned threads;
  };
  for (const Case& k : {Case{true, 10, 2}, Case{false, 1000, 1}}) { // 7 batches: the feed waits for the writer
    SCOPED_TRACE(k.attachments);
    const std::string target = db + (k.attachments ? "_att" : "_plain");
    s_server->request("DELETE", "/" + target); // left by an earlier repeat
    ASSERT_EQ(s_server->request("PUT", "/" + target), 201);
    std::stringstream file;
    std::vector<std::string> checkpoints;
    const BackupOptions o{.batchSize = k.batch, .threads = k.threads, .attachments = k.attachments};
    BackupStats stats;
    std::string error;
    ASSERT_TRUE(BackupDatabase(
        *s_pool, server(), db, o, file, [&](const std::string& seq, uint64_t) { checkpoints.push_back(seq); }, &stats,
        &error, nullptr))
        << error;
    EXPECT_EQ(stats.documents, 65u); // 60 plain, c, gone, dw, att, the design document; not _local/mine
    EXPECT_EQ(stats.revisions, 65u + 3u);
    EXPECT_EQ(checkpoints.size(), (65 + k.batch - 1) / k.batch);
    EXPECT_EQ(checkpoints.back(), stats.lastSeq);
    EXPECT_EQ(file.str().find("_local"), std::string::npos);
    EXPECT_EQ(file.str().find("\"stub\""), std::string::npos);
    EXPECT_EQ(file.str().find("aGVsbG8=") != std::string::npos, k.attachments);

    RestoreStats restored;
    ASSERT_TRUE(RestoreDatabase(*s_pool, server(), target, file, 2, 50, &restored, &error, nullptr)) << error;
    EXPECT_EQ(restored.stored, stats.revisions);
    std::map<std::string, std::string> want = contents(db), got = contents(target);
    if (!k.attachments) { // the same revision, without its attachment
      EXPECT_EQ(get("/" + target + "/att").toMap().count("_attachments"), 0u);
      for (auto* m : {&want, &got})
        std::erase_if(*m, [](const auto& e) { return e.first.starts_with("leaf att") || e.first == "winner att"; });
    }
    EXPECT_EQ(got, want);
    EXPECT_EQ(get("/" + db + "/c?conflicts=true").toMap().at("_conflicts").toList().size(),
              1u); // the check sees conflicts
    EXPECT_EQ(s_server->request("GET", "/" + target + "/_local/mine"), 404);
  }
  { // A stream that refuses writes: the backup fails and hands on no checkpoint.
    std::stringstream refused;
    refused.setstate(std::ios::badbit);
    std::vector<std::string> checkpoints;
    std::string error;
    EXPECT_FALSE(BackupDatabase(
        *s_pool, server(), db, {.batchSize = 10}, refused,
        [&](const std::string& seq, uint64_t) { checkpoints.push_back(seq); }, nullptr, &error, nullptr));
    EXPECT_EQ(error, "writing the backup failed");
    EXPECT_TRUE(checkpoints.empty());
  }
  // Lines that are not documents with an id are counted and skipped; the last, longer than a read, has no newline.
  std::stringstream odd("[1]\n{\"_id\":5}\n\n{\"a\":{\"_id\":\"x\"}}\n{\"_id\":\"x\",\"_rev\":\"1-ab\",\"p\":\"" +
                        std::string(150000, 'p') + "\"} ");
  RestoreStats restored;
  std::string error;
  EXPECT_FALSE(RestoreDatabase(*s_pool, server(), db, odd, 1, 10, &restored, &error, nullptr));
  EXPECT_EQ(error, "3 line(s) are not documents");
  EXPECT_EQ(restored.stored, 1u);
  EXPECT_EQ(get("/" + db + "/x").toMap().at("_rev").toString(), "1-ab");
}

#ifdef HTTPTOOLS_CLI
TEST_F(CouchDataOnPouchDb, CommandLineBackupResumesFromItsLogAfterAFailedBatch) {
  Fill(*s_server, db, 40);
  qztest::FaultProxy proxy(s_server->port());
  ASSERT_TRUE(proxy.start()) << proxy.error();
  // The second _bulk_get is refused: the first batch (a quarter of the feed's first page) is logged, no more.
  proxy.addRule(qztest::FaultProxy::Match("POST", "/_bulk_get", qztest::FaultProxy::Refuse).from(2).answer(400));
  const std::string dir = ::testing::TempDir() + db;
  const std::string file = dir + ".ndjson", log = dir + ".log";
  std::remove(file.c_str());
  std::remove(log.c_str());
  auto backup = [&](const std::string& base) {
    std::string out, err;
    const int rc = qztest::RunProgram({"/bin/sh", "-c",
                                       std::string(HTTPTOOLS_CLI) + " couch backup " + base + "/" + db +
                                           " --attachments --threads 1 --batch 10 --log " + log + " >> " + file},
                                      "", out, err);
    return std::make_pair(rc, err);
  };
  auto lines = [](std::istream&& in) {
    std::multiset<std::string> out;
    for (std::string l; std::getline(in, l);)
      out.insert(l);
    return out;
  };
  const auto [failed, why] = backup(proxy.baseUrl());
  EXPECT_EQ(failed, 22); // the refused request's kind, as curl -f gives it
  EXPECT_NE(why.find("_bulk_get"), std::string::npos) << why;
  EXPECT_GE(lines(std::ifstream(file)).size(), 10u);
  std::ofstream(file, std::ios::app) << "{\"_id\":\"torn"; // a write cut short

  const auto [rc, resumeErr] = backup(s_server->baseUrl());
  ASSERT_EQ(rc, 0) << resumeErr;
  std::string out, err, full;
  ASSERT_EQ(qztest::RunProgram({HTTPTOOLS_CLI, "couch", "backup", s_server->baseUrl() + "/" + db, "--attachments"}, "",
                               full, out),
            0);
  const std::multiset<std::string> whole = lines(std::istringstream(full));
  EXPECT_EQ(lines(std::ifstream(file)), whole); // no line lost, none twice, none torn
  EXPECT_EQ(whole.size(), 48u);

  s_server->request("DELETE", "/" + db + "_copy");
  ASSERT_EQ(s_server->request("PUT", "/" + db + "_copy"), 201);
  EXPECT_EQ(qztest::RunProgram({HTTPTOOLS_CLI, "couch", "restore", s_server->baseUrl() + "/" + db + "_copy", file}, "",
                               out, err),
            0)
      << err;
  EXPECT_EQ(out, "{\"revisions\":48,\"stored\":48,\"failed\":0,\"invalid\":0}\n");
  EXPECT_EQ(contents(db + "_copy"), contents(db));
}
#endif

} // namespace
