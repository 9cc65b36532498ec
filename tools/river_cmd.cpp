// httptools river: keeps an Elasticsearch alias in step with a CouchDB database.

#include "Commands.h"
#include "RiverMetrics.h"

#include <HttpTools/HttpTools.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

namespace httptools {

namespace {

struct RiverArgs {
  std::string couchUrl, elasticUrl, mappingFile, name;
  bool once = false, follow = false, verify = false, repair = false;
  size_t batchDocs = 1000;
  unsigned intervalMs = 1000, leaseMs = 30000, statusMs = 1000;
  double retryMaxTime = 120; // seconds
  ConnectionOptions conn;
  std::string metrics; // HOST:PORT serving /metrics and /healthz
};

std::string StatusLine(const qz::river::RiverStatus& s) {
  std::ostringstream line;
  line << "river " << s.name << " seq=" << (s.lastSeq.empty() ? "-" : s.lastSeq) << " indexed=" << s.indexed
       << " deleted=" << s.deleted << " skipped=" << s.skipped << " failed=" << s.failed << " lag=" << s.lagMs << "ms"
       << " retries=" << s.retries << (s.caughtUp ? " caught-up" : "");
  if (!s.buildingIndex.empty())
    line << " building=" << s.buildingIndex;
  if (s.failures)
    line << " failing=" << s.failures;
  if (!s.error.empty())
    line << " (" << s.error << ")";
  return line.str();
}

void PrintDrift(const char* when, const qz::river::RiverDrift& d) {
  std::cout << when << "documents=" << d.documents << " missing=" << d.missing << " stale=" << d.stale
            << " extra=" << d.extra;
  if (d.repaired)
    std::cout << " repaired=" << d.repaired;
  std::cout << "\n";
  for (const auto& [name, ids] : {std::pair{"missing", &d.missingIds}, {"stale", &d.staleIds}, {"extra", &d.extraIds}})
    if (!ids->empty()) {
      std::cout << name << ":";
      for (const auto& id : *ids)
        std::cout << " " << id;
      std::cout << "\n";
    }
}

// --verify [--repair]: exit 0 when the two sides are equal at the end.
void VerifyRiver(qz::http::HttpConnectionPool& pool, const qz::river::RiverDefinition& def, bool repair) {
  qz::river::RiverDrift drift;
  std::string error;
  if (!qz::river::VerifyRiver(pool, def, repair, drift, &error, InterruptFlag())) {
    std::cerr << "httptools river: " << error << "\n";
    exitCode = kExitFailure;
    return;
  }
  PrintDrift("", drift);
  if (repair && !drift.none()) {
    if (!qz::river::VerifyRiver(pool, def, false, drift, &error, InterruptFlag())) {
      std::cerr << "httptools river: " << error << "\n";
      exitCode = kExitFailure;
      return;
    }
    PrintDrift("after repair: ", drift);
  }
  exitCode = drift.none() ? kExitOk : kExitFailure;
}

void RunRiver(const RiverArgs& a) {
  qz::river::RiverDefinition def;
  std::string couchUrl = a.couchUrl, elasticUrl = a.elasticUrl, urlError;
  if (!CheckCommandLineUrl(couchUrl, urlError) || !CheckCommandLineUrl(elasticUrl, urlError)) {
    std::cerr << "httptools river: " << urlError << "\n";
    exitCode = kExitBadUrl;
    return;
  }
  if (!qz::couch::CouchConnectionParameters::BuildFromDbUrl(&def.couch, &def.database, couchUrl) ||
      def.database.empty()) {
    std::cerr << "httptools river: '" << a.couchUrl << "' is not a database URL (http://host:port/db)\n";
    exitCode = kExitBadUrl;
    return;
  }
  if (!qz::elasticsearch::ElasticConnectionParameters::BuildFromIndexUrl(&def.elastic, &def.index, elasticUrl) ||
      def.index.empty()) {
    std::cerr << "httptools river: '" << a.elasticUrl << "' is not an index URL (http://host:port/alias)\n";
    exitCode = kExitBadUrl;
    return;
  }
  if (!UseConnectionOptions("httptools river", a.conn)) {
    exitCode = kExitUsage;
    return;
  }
  for (const qz::Url& server : {qz::Url(def.couch), qz::Url(def.elastic)})
    if (!a.follow && (exitCode = ProbeServer("httptools river", server)) != kExitOk)
      return; // a one-shot run fails at once when a side cannot be reached
  def.mappingJson = "{}";
  if (!a.mappingFile.empty()) {
    std::ifstream in(a.mappingFile);
    std::stringstream text;
    text << in.rdbuf();
    if (!in) {
      std::cerr << "httptools river: cannot read " << a.mappingFile << "\n";
      exitCode = 1;
      return;
    }
    def.mappingJson = text.str();
  }
  def.name = a.name.empty() ? def.database + "-to-" + def.index : a.name;
  def.batchDocs = a.batchDocs;
  def.flushIntervalMs = a.intervalMs;
  def.leaseMs = a.leaseMs;
  def.retryMaxMs = unsigned(a.retryMaxTime * 1000);

  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  if (a.verify || a.repair)
    return VerifyRiver(pool, def, a.repair);
  qz::river::RiverManager rivers(pool, 1);
  std::string error;
  if (!rivers.addRiver(def, &error)) {
    std::cerr << "httptools river: " << error << "\n";
    exitCode = 2;
    return;
  }
  MetricsServer metrics([&rivers] { return rivers.status(); });
  if (!a.metrics.empty() && !metrics.start(a.metrics, error)) {
    std::cerr << "httptools river: " << error << "\n";
    exitCode = kExitUsage;
    return;
  }
  const bool* interrupted = InterruptFlag();
  auto print = [&] {
    for (const auto& s : rivers.status())
      std::cout << StatusLine(s) << std::endl;
  };

  if (!a.follow) {
    std::atomic<bool> done{false};
    bool ok = false;
    std::thread worker([&] {
      ok = rivers.runOnce(&error, interrupted);
      done = true;
    });
    auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(a.statusMs);
    while (!done.load()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      if (std::chrono::steady_clock::now() >= next) {
        print();
        next += std::chrono::milliseconds(a.statusMs);
      }
    }
    worker.join();
    print();
    if (!ok)
      std::cerr << "httptools river: " << error << "\n";
    exitCode = ok ? 0 : 1;
    return;
  }

  rivers.start();
  while (!Interrupted()) {
    for (unsigned waited = 0; waited < a.statusMs && !Interrupted(); waited += 20)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    print();
  }
  rivers.stop();
  print();
  exitCode = 0;
}

} // namespace

void AddRiverCommand(CLI::App& app) {
  auto a = std::make_shared<RiverArgs>();
  auto* cmd = app.add_subcommand("river", "Keep an Elasticsearch alias in step with a CouchDB database");
  cmd->add_option("couch", a->couchUrl, "CouchDB database URL (http://host:port/db)")->required();
  cmd->add_option("elastic", a->elasticUrl, "Elasticsearch alias URL (http://host:port/alias)")->required();
  cmd->add_option("--mapping", a->mappingFile, "File holding the wanted mapping (JSON); default dynamic");
  auto* once = cmd->add_flag("--once", a->once, "Catch up, then exit (the default)");
  auto* follow = cmd->add_flag("--follow", a->follow, "Keep following the database until interrupted")->excludes(once);
  auto* verify = cmd->add_flag("--verify", a->verify, "Compare the database with the index, print the drift")
                     ->excludes(once)
                     ->excludes(follow);
  cmd->add_flag("--repair", a->repair, "With --verify: index or delete exactly the documents that drifted")
      ->needs(verify);
  cmd->add_option("--name", a->name, "River name (default: DB-to-ALIAS)");
  cmd->add_option("--batch", a->batchDocs, "Documents per bulk request")->check(CLI::PositiveNumber);
  cmd->add_option("--interval-ms", a->intervalMs, "Following several rivers: feed poll interval once caught up");
  cmd->add_option("--lease-ms", a->leaseMs, "Lease duration; another process may take over after it");
  cmd->add_option("--retry-max-time", a->retryMaxTime,
                  "Once: seconds of failures in a row retried before giving up (default 120)")
      ->check(CLI::NonNegativeNumber);
  cmd->add_option("--status-ms", a->statusMs, "Interval between status lines")->check(CLI::PositiveNumber);
  AddConnectionOptions(cmd, a->conn, false);
  cmd->add_option("--metrics", a->metrics, "Serve Prometheus metrics (/metrics) and /healthz on HOST:PORT");
  cmd->callback([a] { RunRiver(*a); });
}

} // namespace httptools
