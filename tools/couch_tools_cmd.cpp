// httptools couch changes | get | upload | conflicts: the CouchDB tools from the command line.

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>

namespace httptools {

void AddCouchDataCommands(CLI::App& couch); // couch_data_cmd.cpp: backup, restore, find

// The connection options of every couch tool, kept per command line.
ConnectionOptions& Conn() {
  static ConnectionOptions options;
  return options;
}

// "http://host:port/db" to server and database (exit 3 otherwise), the connection options, and one
// request to the server: the tools repeat failed requests, so an unreachable server is reported
// here at once. False with exitCode set.
bool SplitDbUrl(const std::string& dbUrl, qz::couch::CouchConnectionParameters& server, std::string& db,
                const char* command) {
  const std::string name = std::string("httptools couch ") + command;
  std::string url = dbUrl, error;
  while (url.size() > 1 && url.back() == '/')
    url.pop_back();
  if (!CheckCommandLineUrl(url, error) || !qz::couch::CouchConnectionParameters::BuildFromDbUrl(&server, &db, url) ||
      db.empty()) {
    std::cerr << name << ": '" << dbUrl << "' is not a database URL (http://host:port/db) " << error << "\n";
    exitCode = kExitBadUrl;
    return false;
  }
  if (!UseConnectionOptions(name, Conn())) {
    exitCode = kExitUsage;
    return false;
  }
  exitCode = ProbeServer(name, server);
  return exitCode == kExitOk;
}

namespace {

std::string ChangeLine(const qz::couch::Change& c) {
  qz::qzVariantListImpl revs(c.revs.begin(), c.revs.end());
  qz::qzVariantMapImpl line{{"seq", c.seq.empty() ? qz::qzVariant() : qz::qzVariant(c.seq)},
                            {"id", c.id},
                            {"revs", revs},
                            {"deleted", c.deleted},
                            {"doc", c.doc}};
  std::string text;
  qz::json::Json2Variant::Convert(line, text, false);
  return text;
}

struct ChangesArgs {
  std::string dbUrl;
  std::string since = "0";
  bool includeDocs = false;
  bool follow = false;
  unsigned heartbeatMs = 10000;
  std::string selector, checkpoint;
  std::vector<std::string> docIds;
  unsigned seqInterval = 0;
};

void RunChanges(const ChangesArgs& a) {
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!SplitDbUrl(a.dbUrl, server, db, "changes"))
    return;
  qz::couch::ChangesOptions o;
  o.since = a.since;
  o.includeDocs = a.includeDocs;
  o.continuous = a.follow;
  o.heartbeatMs = a.heartbeatMs;
  o.selector = a.selector;
  o.docIds = a.docIds;
  o.seqInterval = a.seqInterval;
  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  qz::couch::ChangesFeedListener feed(pool, server, db, o);
  const bool* interrupted = InterruptFlag();
  std::string error;
  auto print = [](const qz::couch::Change& c) {
    std::cout << ChangeLine(c) << '\n';
    return bool(std::cout);
  };
  bool ok;
  if (!a.checkpoint.empty()) {
    qz::couch::FeedCheckpoint checkpoint(pool, server, db, a.checkpoint);
    ok = checkpoint.follow(
        feed,
        [&](std::vector<qz::couch::Change>& batch) {
          for (const auto& c : batch)
            print(c);
          std::cout.flush();
          return bool(std::cout);
        },
        &error, interrupted);
  } else {
    ok = feed.run(
        [&](const qz::couch::Change& c) {
          print(c);
          std::cout.flush();
          return bool(std::cout);
        },
        &error, interrupted);
  }
  if (!std::cout) {
    exitCode = kExitWrite; // the reader went away: quietly
    return;
  }
  if (!ok)
    std::cerr << "httptools couch changes: " << error << "\n";
  exitCode = ok ? kExitOk : kExitHttpStatus;
}

void RunGet(const std::string& dbUrl, const std::vector<std::string>& ids, unsigned threads) {
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!SplitDbUrl(dbUrl, server, db, "get"))
    return;
  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  qz::couch::DocumentGetter getter(pool, server, db, threads);
  std::vector<std::string> missing;
  std::string error;
  const bool ok = getter.get(
      ids,
      [](const std::string&, qz::qzVariant& doc) {
        std::string text;
        qz::json::Json2Variant::Convert(doc, text, false);
        std::cout << text << '\n';
      },
      &missing, &error, nullptr);
  for (const std::string& id : missing)
    std::cerr << "not found: " << id << "\n";
  if (!ok)
    std::cerr << "httptools couch get: " << error << "\n";
  exitCode = !ok ? kExitHttpStatus : missing.empty() ? kExitOk : kExitFailure;
}

void RunUpload(const std::string& dbUrl, const std::string& file, unsigned threads, size_t batch) {
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!SplitDbUrl(dbUrl, server, db, "upload"))
    return;
  std::ifstream in;
  if (file != "-") {
    in.open(file);
    if (!in) {
      std::cerr << "httptools couch upload: cannot read " << file << "\n";
      exitCode = 1;
      return;
    }
  }
  std::istream& input = file == "-" ? std::cin : in;
  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  qz::couch::DocumentUploader up(pool, server, db, threads, batch);
  size_t lineNo = 0, bad = 0;
  for (std::string line; std::getline(input, line);) {
    ++lineNo;
    if (line.find_first_not_of(" \t\r") == std::string::npos)
      continue;
    qz::qzVariantMapImpl doc;
    if (!qz::json::Json2Variant::Convert(line, doc) || !up.add(std::move(doc))) {
      std::cerr << "line " << lineNo << ": not a JSON object\n";
      ++bad;
    }
  }
  std::string error;
  up.flush(&error);
  const auto failures = up.failures();
  for (const auto& [id, reason] : failures)
    std::cerr << id << ": " << reason << "\n";
  std::cout << "{\"uploaded\":" << up.uploaded() << ",\"failed\":" << failures.size() << ",\"invalid\":" << bad
            << "}\n";
  exitCode = failures.empty() && bad == 0 ? 0 : 1;
}

void RunConflicts(const std::string& dbUrl, bool resolve) {
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!SplitDbUrl(dbUrl, server, db, "conflicts"))
    return;
  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  qz::couch::ConflictSolver solver(pool, server, db);
  std::string error;
  std::vector<std::string> ids;
  if (!solver.findConflicts(ids, &error, nullptr)) {
    std::cerr << "httptools couch conflicts: " << error << "\n";
    exitCode = kExitHttpStatus;
    return;
  }
  for (const std::string& id : ids)
    std::cout << id << '\n';
  if (!resolve) {
    exitCode = 0;
    return;
  }
  size_t solved = 0;
  for (const std::string& id : ids) {
    bool wrote = false;
    if (!solver.solve(id, &error, &wrote)) {
      std::cerr << "httptools couch conflicts: " << error << "\n";
      exitCode = kExitHttpStatus;
      return;
    }
    solved += wrote ? 1 : 0;
  }
  std::cout << "solved " << solved << "\n";
  exitCode = 0;
}

} // namespace

void AddCouchToolCommands(CLI::App& couch) {
  auto changesArgs = std::make_shared<ChangesArgs>();
  CLI::App* changes = couch.add_subcommand("changes", "print a database's changes as JSON lines");
  changes->add_option("url", changesArgs->dbUrl, "database URL (http://host:port/db)")->required();
  changes->add_option("--since", changesArgs->since, "start after this seq (default 0, or now)");
  changes->add_flag("--include-docs", changesArgs->includeDocs, "include each changed document");
  changes->add_flag("--follow", changesArgs->follow, "keep following the feed until interrupted");
  changes->add_option("--heartbeat", changesArgs->heartbeatMs, "heartbeat in ms when following");
  changes->add_option("--selector", changesArgs->selector,
                      "only changes of documents matching this Mango selector (JSON); an edit that makes a document "
                      "stop matching is not sent");
  changes->add_option("--doc-ids", changesArgs->docIds, "only these documents, comma-separated")->delimiter(',');
  changes->add_option("--seq-interval", changesArgs->seqInterval,
                      "let the server compute a seq every N changes only (others print null)");
  changes->add_option("--checkpoint", changesArgs->checkpoint,
                      "resume from the seq stored in _local/NAME of the database and store it after each batch "
                      "(overrides --since once stored)");
  changes->callback([changesArgs] { RunChanges(*changesArgs); });

  auto getUrl = std::make_shared<std::string>();
  auto ids = std::make_shared<std::vector<std::string>>();
  auto getThreads = std::make_shared<unsigned>(4);
  CLI::App* get = couch.add_subcommand("get", "print documents by id as JSON lines");
  get->add_option("url", *getUrl, "database URL")->required();
  get->add_option("ids", *ids, "document ids")->required();
  get->add_option("--threads", *getThreads, "threads (default 4)")->check(CLI::Range(1, 64));
  get->callback([getUrl, ids, getThreads] { RunGet(*getUrl, *ids, *getThreads); });

  struct UploadArgs {
    std::string dbUrl, file = "-";
    unsigned threads = 4;
    size_t batch = 500;
  };
  auto up = std::make_shared<UploadArgs>();
  CLI::App* upload = couch.add_subcommand("upload", "upload JSON lines (one document each) with _bulk_docs");
  upload->add_option("url", up->dbUrl, "database URL")->required();
  upload->add_option("file", up->file, "file of JSON lines, - for standard input (default)");
  upload->add_option("--threads", up->threads, "threads (default 4)")->check(CLI::Range(1, 64));
  upload->add_option("--batch", up->batch, "documents per request (default 500)")->check(CLI::Range(1, 100000));
  upload->callback([up] { RunUpload(up->dbUrl, up->file, up->threads, up->batch); });

  auto conflictsUrl = std::make_shared<std::string>();
  auto resolve = std::make_shared<bool>(false);
  CLI::App* conflicts = couch.add_subcommand("conflicts", "list conflicted documents, or solve them");
  conflicts->add_option("url", *conflictsUrl, "database URL")->required();
  conflicts->add_flag("--resolve", *resolve, "keep each winning revision and delete the other leaves");
  conflicts->callback([conflictsUrl, resolve] { RunConflicts(*conflictsUrl, *resolve); });

  for (CLI::App* sub : {changes, get, upload, conflicts}) {
    sub->set_help_flag("-h,--help", "print this help and exit");
    AddConnectionOptions(sub, Conn());
  }
  AddCouchDataCommands(couch);
}

} // namespace httptools
