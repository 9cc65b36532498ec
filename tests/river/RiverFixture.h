#pragma once

// The river suites' fixture: pouchdb-server and the Elasticsearch emulator, a database "db" and a
// river definition from one to the other.

#include <HttpTools/river/River.h>

#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>

#include "support/ElasticEmulator.h"
#include "support/FaultProxy.h"
#include "support/PouchDbTest.h"
#include "support/Process.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <fstream>

#include <unistd.h>

// Faults and definitions are set with designated initializers; the fields left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace rivertest {

using qz::qzVariantMapImpl;

using Clock = std::chrono::steady_clock;

class RiverTest : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(couch.ok()) << couch.error();
    ASSERT_TRUE(elastic.start()) << "the Elasticsearch emulator cannot start: " << elastic.lastError();
    // One pouchdb-server for the program: every database of an earlier test goes first.
    std::string text;
    ASSERT_EQ(couch.request("GET", "/_all_dbs", {}, &text), 200);
    for (const auto& name : qz::qzVariantListImpl(parsed("{\"dbs\":" + text + "}")["dbs"].toList()))
      ASSERT_TRUE(name.toString()[0] == '_' || couch.request("DELETE", "/" + name.toString()) == 200)
          << name.toString();
    ASSERT_EQ(couch.request("PUT", "/db"), 201);
    ASSERT_TRUE(
        qz::couch::CouchConnectionParameters::BuildFromDbUrl(&def.couch, &def.database, couch.baseUrl() + "/db"));
    def.elastic = qz::elasticsearch::ElasticConnectionParameters(qz::Url(elastic.baseUrl()));
  }

  // `method` `path` (with a JSON `body`) to Elasticsearch: its status (0 unreachable), its body in `out`.
  int es(const std::string& method, const std::string& path, const std::string& body = {}, std::string* out = nullptr) {
    httplib::Request req;
    req.method = method;
    req.path = path;
    req.body = body;
    req.set_header("Content-Type", "application/json");
    auto res = httplib::Client("127.0.0.1", elastic.port()).send(req);
    if (res && out)
      *out = res->body;
    return res ? res->status : 0;
  }
  static qzVariantMapImpl parsed(const std::string& json) {
    qzVariantMapImpl object;
    qz::json::Json2Variant::Convert(json, object);
    return object;
  }

  // Writes documents {"_id": prefix+i, "n": i, "group": i % 7} for i in [from, to).
  void load(int from, int to, const std::string& prefix = "d") {
    for (int start = from; start < to; start += 2500) {
      std::string body = "{\"docs\":[";
      for (int i = start; i < std::min(to, start + 2500); ++i)
        body += (i > start ? "," : "") + std::string("{\"_id\":\"") + prefix + std::to_string(i) +
                "\",\"n\":" + std::to_string(i) + ",\"group\":" + std::to_string(i % 7) +
                ",\"text\":\"caf\\u00e9 \\\"" + std::to_string(i) + "\\\"\"}";
      body += "]}";
      ASSERT_EQ(couch.request("POST", "/db/_bulk_docs", body), 201);
    }
  }

  qzVariantMapImpl couchDoc(const std::string& id) {
    std::string text;
    return couch.request("GET", "/db/" + id, {}, &text) == 200 ? parsed(text) : qzVariantMapImpl();
  }
  void put(qzVariantMapImpl doc) {
    std::string text;
    qz::json::Json2Variant::Convert(doc, text, false);
    ASSERT_EQ(couch.request("PUT", "/db/" + doc["_id"].toString(), text), 201) << text;
  }
  // Document `id` written again with `fields` changed (created when absent).
  void edit(const std::string& id, const qzVariantMapImpl& fields) {
    qzVariantMapImpl doc = couchDoc(id);
    doc["_id"] = id;
    for (const auto& [name, value] : fields)
      doc[name] = value;
    put(doc);
  }
  void remove(const std::string& id) {
    ASSERT_EQ(couch.request("DELETE", "/db/" + id + "?rev=" + couchDoc(id)["_rev"].toString()), 200);
  }
  std::string couchSeq() { return couchDoc("")["update_seq"].toString(); }

  // Every document of the database (design documents aside) is in the index under the alias as
  // `transform` makes it, at its winning revision, and nothing else is; compared document by document.
  void expectIndexEqualsDatabase(const std::function<bool(qzVariantMapImpl&)>& transform = {}) {
    std::string text;
    ASSERT_EQ(couch.request("GET", "/db/_all_docs?include_docs=true", {}, &text), 200);
    std::map<std::string, qzVariantMapImpl> expected;
    for (const auto& row : qz::qzVariantListImpl(parsed(text)["rows"].toList())) { // a copy: parsed() is a temporary
      qzVariantMapImpl doc = row.toMap().at("doc").toMap();
      const std::string id = doc["_id"].toString();
      if (id.rfind("_design/", 0) == 0 || (transform && !transform(doc)))
        continue;
      doc["httptools_rev"] = doc["_rev"]; // the winner the index holds
      doc.erase("_id");
      doc.erase("_rev");
      expected.emplace(id, std::move(doc));
    }
    ASSERT_EQ(es("POST", "/docs/_refresh"), 200);
    ASSERT_EQ(es("POST", "/docs/_search", R"({"size":10000})", &text), 200);
    std::map<std::string, qzVariantMapImpl> actual;
    for (const auto& hit : qz::qzVariantListImpl(parsed(text)["hits"].asMap()["hits"].toList())) {
      qzVariantMapImpl h = hit.toMap();
      EXPECT_TRUE(actual.emplace(h["_id"].toString(), h["_source"].toMap()).second) << "twice: " << h["_id"].toString();
    }
    std::vector<std::string> wrong; // missing or different
    for (const auto& [id, doc] : expected)
      if (auto it = actual.find(id); it == actual.end() || it->second != doc)
        wrong.push_back(id);
    EXPECT_EQ(std::pair(actual.size(), wrong.size()), std::pair(expected.size(), size_t(0)))
        << (wrong.empty() ? "" : wrong[0]);
  }

  // A manager (one worker) with river `d` added.
  std::unique_ptr<qz::river::RiverManager> manager(const qz::river::RiverDefinition& d) {
    auto rivers = std::make_unique<qz::river::RiverManager>(pool, 1);
    std::string error;
    EXPECT_TRUE(rivers->addRiver(d, &error)) << error;
    return rivers;
  }
  // One run of `rivers` to its end, expected to succeed; the first river's status afterwards.
  static qz::river::RiverStatus ran(qz::river::RiverManager& rivers) {
    std::string error;
    EXPECT_TRUE(rivers.runOnce(&error, nullptr)) << error;
    return rivers.status().at(0);
  }
  qz::river::RiverStatus runOnce(const qz::river::RiverDefinition& d) { return ran(*manager(d)); }

  // Sends `req` on to pouchdb-server as `method` (GET: without its body) and its answer back.
  void toCouch(const httplib::Request& req, httplib::Response& res, const std::string& target,
               const std::string& method) {
    std::string body;
    res.status = couch.request(method, target, method == "GET" ? "" : req.body, &body);
    res.set_content(body, "application/json");
  }

  // Polls until `done` holds, at most `seconds`.
  static bool waitFor(const std::function<bool()>& done, int seconds = 20) {
    const auto until = Clock::now() + std::chrono::seconds(seconds);
    while (!done() && Clock::now() < until)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return done();
  }
  static bool caughtUpTo(qz::river::RiverManager& rivers, const std::string& seq) {
    auto s = rivers.status();
    return !s.empty() && s[0].caughtUp && s[0].lastSeq == seq;
  }

  void TearDown() override {
    for (const pid_t pid : pids) // a test that failed early leaves its processes
      qztest::EndProgram(pid, SIGKILL);
    if (!dir.empty())
      std::filesystem::remove_all(dir);
  }
  // A file of the test's own scratch folder, written with `text` unless empty; its path.
  std::string scratch(const std::string& name, const std::string& text = {}) {
    if (dir.empty()) {
      dir = (std::filesystem::temp_directory_path() / "httptools-river-XXXXXX").string();
      EXPECT_TRUE(::mkdtemp(dir.data()));
    }
    if (!text.empty())
      std::ofstream(dir + "/" + name) << text;
    return dir + "/" + name;
  }
  std::set<pid_t> pids;
  std::string dir;

#ifdef HTTPTOOLS_CLI
  // `httptools river ARGS...` run to its end: its exit status, stdout and stderr in `out`.
  int cli(std::vector<std::string> args, std::string* out = nullptr) {
    args.insert(args.begin(), {HTTPTOOLS_CLI, "river"});
    std::string o, e;
    const int code = qztest::RunProgram(args, "", o, e);
    if (out)
      *out = o + e;
    return code;
  }
  // `httptools river ARGS...` started in the background, its output in `log` (by default discarded).
  pid_t spawn(std::vector<std::string> args, const std::string& log = "/dev/null") {
    args.insert(args.begin(), {HTTPTOOLS_CLI, "river"});
    const pid_t pid = qztest::StartProgram(args, log);
    pids.insert(pid);
    return pid;
  }
  // Ends `pid` with `signal`; its exit status (-1 unless it exited).
  int end(pid_t pid, int signal) {
    pids.erase(pid);
    return qztest::EndProgram(pid, signal, 60000);
  }
#endif

  qztest::PouchDbServer& couch = qztest::SharedPouchDb();
  qztest::ElasticEmulator elastic;
  qz::http::HttpConnectionPool pool;
  qz::river::RiverDefinition def{
      .name = "r", .index = "docs", .mappingJson = "{}", .batchDocs = 500, .flushIntervalMs = 50, .leaseMs = 1000};
};

} // namespace rivertest
