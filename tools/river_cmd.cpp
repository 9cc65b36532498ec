// httptools river: keeps an Elasticsearch alias in step with a CouchDB database.

#include "Commands.h"
#include "RiverMetrics.h"
#include "RiverTools.h"

#include <HttpTools/HttpTools.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <list>
#include <map>
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
  // Per side: header lines ("Name: value", a value "@FILE" read from FILE, or "@FILE" of whole
  // lines) and the CA file that checks its certificate.
  std::vector<std::string> sourceHeaders, targetHeaders;
  std::string sourceCacert, targetCacert;

  // Many rivers, administration, running as a service.
  std::string configFile;
  bool status = false, reset = false, remove = false, deleteIndex = false, logJson = false;
  unsigned maxDocsPerSecond = 0;
  std::string deadLetterFile, replayFile, selector, routingField, suffixField;
  std::string metrics; // HOST:PORT serving /metrics and /healthz
};

// The header lines of one side. Errors name the option and the file, never a value.
bool SideHeaderLines(const char* option, const std::vector<std::string>& given, std::vector<std::string>& lines,
                     std::string& error) {
  for (const std::string& item : given) {
    if (item.starts_with("@")) {
      if (!AppendHeaderFile(item, lines, error))
        return false;
      continue;
    }
    std::string text;
    const size_t colon = item.find(':');
    const size_t start = colon == std::string::npos ? colon : item.find_first_not_of(' ', colon + 1);
    if (colon == 0 || colon == std::string::npos) {
      error = std::string(option) + " wants \"Name: value\", \"Name: @FILE\" or \"@FILE\"";
      return false;
    }
    if (start != std::string::npos && item[start] == '@') {
      if (!ReadDataArgument(item.substr(start), text, error))
        return false;
      while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.pop_back();
      if (text.find_first_of("\r\n") != std::string::npos) {
        error = std::string(option) + ": " + item.substr(start + 1) + " holds more than one line";
        return false;
      }
      lines.push_back(item.substr(0, colon) + ": " + text);
      std::fill(text.begin(), text.end(), '\0');
    } else {
      lines.push_back(item);
    }
  }
  return true;
}

// The per-side options on the definition (target) and on the pool's connections to the source.
// The pool keys connections by host and port, so the source's own options need a host and port
// the target does not share.
bool ApplySideOptions(const RiverArgs& a, qz::river::RiverDefinition& def, std::vector<std::string>& sourceLines) {
  std::string error;
  if (!SideHeaderLines("--source-header", a.sourceHeaders, sourceLines, error) ||
      !SideHeaderLines("--target-header", a.targetHeaders, def.elastic.extraHeaders, error)) {
    std::cerr << "httptools river: " << error << "\n";
    return false;
  }
  def.elastic.caFile = a.targetCacert;
  if ((!sourceLines.empty() || !a.sourceCacert.empty()) && def.couch.host == def.elastic.host &&
      def.couch.port == def.elastic.port) {
    std::cerr << "httptools river: --source-header and --source-cacert need the source on another host or port than "
                 "the target\n";
    return false;
  }
  return true;
}

// Prepare() and, on a connection to the source, its own header lines and CA file.
std::function<void(qz::http::HttpConnection&, const std::string&, unsigned short)>
SidePreparer(const RiverArgs& a, const qz::river::RiverDefinition& def, const std::vector<std::string>& sourceLines) {
  return [&a, host = def.couch.host, port = def.couch.port, sourceLines](qz::http::HttpConnection& c,
                                                                         const std::string& h, unsigned short p) {
    Prepare(c);
    if (h != host || p != port)
      return;
    std::list<std::string> headers = c.getCommonHeaders();
    headers.insert(headers.end(), sourceLines.begin(), sourceLines.end());
    c.setCommonHeaders(headers);
    if (!a.sourceCacert.empty())
      c.editConnectionParameters().caFile = a.sourceCacert;
  };
}

std::string StatusLine(const qz::river::RiverStatus& s) {
  std::ostringstream line;
  line << "river " << s.name << " seq=" << (s.lastSeq.empty() ? "-" : s.lastSeq) << " indexed=" << s.indexed
       << " deleted=" << s.deleted << " skipped=" << s.skipped << " failed=" << s.failed << " lag=" << s.lagMs << "ms"
       << " retries=" << s.retries << " rejected=" << s.rejected << (s.caughtUp ? " caught-up" : "");
  if (!s.buildingIndex.empty())
    line << " building=" << s.buildingIndex;
  if (s.failures)
    line << " failing=" << s.failures;
  if (!s.error.empty())
    line << " (" << s.error << ")";
  return line.str();
}

std::string JsonString(const std::string& s) {
  std::string out;
  qz::json::Json2Variant::Convert(qz::qzVariant(s), out, false);
  return out;
}

std::string NowText() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  char text[96];
  std::tm utc{};
  gmtime_r(&t, &utc);
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, int(ms));
  return text;
}

// One JSON object per line: the status of a river, at info, warning when it is failing.
std::string StatusJson(const qz::river::RiverStatus& s) {
  std::ostringstream line;
  line << "{\"time\":\"" << NowText() << "\",\"level\":\"" << (s.error.empty() ? "info" : "warning")
       << "\",\"river\":" << JsonString(s.name) << ",\"seq\":" << JsonString(s.lastSeq) << ",\"indexed\":" << s.indexed
       << ",\"deleted\":" << s.deleted << ",\"skipped\":" << s.skipped << ",\"failed\":" << s.failed
       << ",\"retries\":" << s.retries << ",\"lag_ms\":" << s.lagMs
       << ",\"caught_up\":" << (s.caughtUp ? "true" : "false") << ",\"running\":" << (s.running ? "true" : "false")
       << ",\"waiting_for_lease\":" << (s.waitingForLease ? "true" : "false");
  if (!s.buildingIndex.empty())
    line << ",\"building\":" << JsonString(s.buildingIndex);
  if (!s.error.empty())
    line << ",\"error\":" << JsonString(s.error);
  line << "}";
  return line.str();
}

// --log-json: the library's lines at info and above as JSON objects on standard error.
void InstallJsonLogSink() {
  qz::qzLog::SetSink([](int type, const std::string& category, const std::string& text) {
    if (type == qz::qzLog::Debug && !verbose)
      return;
    const std::string line = "{\"time\":\"" + NowText() + "\",\"level\":" + JsonString(qz::qzLog::TypeName(type)) +
                             ",\"category\":" + JsonString(category) + ",\"message\":" + JsonString(text) + "}\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
  });
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

// `setup` prepares each pooled connection (default: the shared connection options).
void RunRivers(const std::vector<qz::river::RiverDefinition>& defs, unsigned workers, const RiverArgs& a,
               qz::http::HttpConnectionPool::ConnectionSetup setup = {});

// --config FILE: every river the file defines, on its worker threads.
void RunRiverConfig(const RiverArgs& a) {
  RiverConfig config;
  std::string error;
  if (!ReadRiverConfig(a.configFile, config, error)) {
    std::cerr << "httptools river: " << error << "\n";
    exitCode = kExitUsage;
    return;
  }
  std::vector<qz::river::RiverDefinition> defs;
  // The source's header lines by CouchDB server: the pool tells servers apart by host and port
  // only, so the rivers reading one server agree on them and no target shares its address.
  std::map<std::pair<std::string, unsigned short>, std::pair<std::string, std::vector<std::string>>> sources;
  const auto usage = [](const std::string& message) {
    std::cerr << "httptools river: " << message << "\n";
    exitCode = kExitUsage;
  };
  for (auto& entry : config.rivers) {
    std::vector<std::string> lines;
    if (!ApplyRiverExtras(entry, error))
      return usage(error);
    if (!SideHeaderLines("sourceHeaders", entry.sourceHeaders, lines, error))
      return usage(entry.definition.name + ": " + error);
    const auto& def = entry.definition;
    auto [known, added] = sources.try_emplace({def.couch.host, def.couch.port}, def.name, lines);
    if (!added && known->second.second != lines)
      return usage(def.name + ": sourceHeaders differ from those of " + known->second.first + " on the same server");
    if (a.maxDocsPerSecond)
      entry.definition.maxDocsPerSecond = a.maxDocsPerSecond;
    defs.push_back(entry.definition);
  }
  for (const auto& def : defs)
    if (auto s = sources.find({def.elastic.host, def.elastic.port}); s != sources.end() && !s->second.second.empty())
      return usage(s->second.first + ": sourceHeaders need the source on another host or port than the target of " +
                   def.name);
  if (!UseConnectionOptions("httptools river", a.conn)) {
    exitCode = kExitUsage;
    return;
  }
  if (a.verify || a.repair) {
    std::cerr << "httptools river: --verify takes one river, not --config\n";
    exitCode = kExitUsage;
    return;
  }
  RunRivers(defs, config.workers, a, [sources](qz::http::HttpConnection& c, const std::string& h, unsigned short p) {
    Prepare(c);
    auto s = sources.find({h, p});
    if (s == sources.end() || s->second.second.empty())
      return;
    std::list<std::string> headers = c.getCommonHeaders();
    headers.insert(headers.end(), s->second.second.begin(), s->second.second.end());
    c.setCommonHeaders(headers);
  });
}

// --replay FILE: exit 0 when every listed document went through.
void ReplayRiver(qz::http::HttpConnectionPool& pool, const qz::river::RiverDefinition& def, const std::string& file) {
  qz::river::RiverReplay replay;
  std::string error;
  if (!qz::river::ReplayDeadLetters(pool, def, file, replay, &error, InterruptFlag())) {
    std::cerr << "httptools river: " << error << "\n";
    exitCode = kExitFailure;
    return;
  }
  std::cout << "replayed ids=" << replay.ids << " written=" << replay.written << " refused=" << replay.refused << "\n";
  exitCode = replay.refused ? kExitFailure : kExitOk;
}

void RunRiver(const RiverArgs& a) {
  if (!a.configFile.empty() && !a.couchUrl.empty()) {
    std::cerr << "httptools river: give either --config FILE or the two URLs\n";
    exitCode = kExitUsage;
    return;
  }
  if (!a.configFile.empty())
    return RunRiverConfig(a);
  if (a.couchUrl.empty() || a.elasticUrl.empty()) {
    std::cerr << "httptools river: give a database URL and an alias URL, or --config FILE\n";
    exitCode = kExitUsage;
    return;
  }
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
  std::vector<std::string> sourceLines;
  if (!UseConnectionOptions("httptools river", a.conn) || !ApplySideOptions(a, def, sourceLines)) {
    exitCode = kExitUsage;
    return;
  }
  const auto prepare = SidePreparer(a, def, sourceLines);
  for (const qz::Url& server : {qz::Url(def.couch), qz::Url(def.elastic)})
    if (!a.follow && !a.status && !a.remove &&
        (exitCode = ProbeServer("httptools river", server, [&](qz::http::HttpConnection& c) {
           prepare(c, server.host, server.port);
           if (!def.elastic.caFile.empty() && server.host == def.elastic.host && server.port == def.elastic.port)
             c.editConnectionParameters().caFile = def.elastic.caFile;
         })) != kExitOk)
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
  def.maxDocsPerSecond = a.maxDocsPerSecond;
  if (!a.deadLetterFile.empty())
    def.deadLetter = qz::river::DeadLetterFile(a.deadLetterFile);
  def.selectorJson = a.selector;
  def.route = RouteByFields(a.routingField, a.suffixField);

  if (a.verify || a.repair || !a.replayFile.empty()) {
    qz::http::HttpConnectionPool pool;
    pool.setConnectionSetup(prepare);
    if (!a.replayFile.empty())
      return ReplayRiver(pool, def, a.replayFile);
    return VerifyRiver(pool, def, a.repair);
  }
  RunRivers({def}, 1, a, prepare);
}

// Whether a process holds the lease of one of `defs` (a run would wait for it).
bool HeldElsewhere(const std::vector<qz::river::RiverDefinition>& defs) {
  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  for (const auto& def : defs) {
    qz::river::RiverStoredState state;
    std::string error;
    if (qz::river::ReadRiverState(pool, def, state, &error) && state.leaseLive) {
      std::cout << "river " << def.name << ": " << state.owner << " follows it and fills the new index\n";
      return true;
    }
  }
  return false;
}

void RunRivers(const std::vector<qz::river::RiverDefinition>& defs, unsigned workers, const RiverArgs& a,
               qz::http::HttpConnectionPool::ConnectionSetup setup) {
  if (a.logJson)
    InstallJsonLogSink();
  if (a.status || a.remove || a.reset) {
    RunRiverAdmin(defs,
                  a.status  ? RiverAdminAction::Status
                  : a.reset ? RiverAdminAction::Reset
                            : RiverAdminAction::Remove,
                  a.deleteIndex);
    if (!a.reset || exitCode != kExitOk)
      return; // a reset goes on with a run that fills the new index and moves the alias
    if (!a.follow && HeldElsewhere(defs))
      return; // the process following the river fills it
  }
  qz::http::HttpConnectionPool pool;
  if (setup)
    pool.setConnectionSetup(std::move(setup));
  else
    Prepare(pool);
  qz::river::RiverManager rivers(pool, workers);
  std::string error;
  for (const auto& def : defs)
    if (!rivers.addRiver(def, &error)) {
      std::cerr << "httptools river: " << error << "\n";
      exitCode = 2;
      return;
    }
  rivers.shareWithOtherProcesses(defs.size() > 1);
  MetricsServer metrics([&rivers] { return rivers.status(); });
  if (!a.metrics.empty() && !metrics.start(a.metrics, error)) {
    std::cerr << "httptools river: " << error << "\n";
    exitCode = kExitUsage;
    return;
  }
  const bool* interrupted = InterruptFlag();
  auto print = [&] {
    for (const auto& s : rivers.status())
      std::cout << (a.logJson ? StatusJson(s) : StatusLine(s)) << std::endl;
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
  cmd->add_option("couch", a->couchUrl, "CouchDB database URL (http://host:port/db)");
  cmd->add_option("elastic", a->elasticUrl, "Elasticsearch alias URL (http://host:port/alias)");
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
  cmd->add_option("--dead-letter", a->deadLetterFile,
                  "Append documents Elasticsearch refuses for good to FILE (JSON lines) and go on");
  cmd->add_option("--replay", a->replayFile,
                  "Index the documents listed in a dead-letter FILE again, keep only those still refused")
      ->excludes(once)
      ->excludes(follow)
      ->excludes(verify);
  cmd->add_option("--selector", a->selector, "Mango selector (JSON): only matching documents are indexed");
  cmd->add_option("--routing-field", a->routingField, "Route each document by this field's value (a.b: nested)");
  cmd->add_option("--index-suffix-field", a->suffixField,
                  "Index each document in <index>-<this field's value>, behind the alias (a.b: nested)");
  AddConnectionOptions(cmd, a->conn, false);
  cmd->add_option("--source-header", a->sourceHeaders,
                  "Header line for CouchDB: \"Name: value\", \"Name: @FILE\" (value read from FILE) or @FILE of lines "
                  "(repeatable)")
      ->allow_extra_args(false);
  cmd->add_option("--target-header", a->targetHeaders, "Header line for Elasticsearch, as --source-header (repeatable)")
      ->allow_extra_args(false);
  cmd->add_option("--source-cacert", a->sourceCacert, "Verify CouchDB against the CA certificates in FILE (PEM)")
      ->check(CLI::ExistingFile);
  cmd->add_option("--target-cacert", a->targetCacert, "Verify Elasticsearch against the CA certificates in FILE (PEM)")
      ->check(CLI::ExistingFile);

  // Many rivers, administration, running as a service.
  cmd->add_option("--config", a->configFile, "JSON file of rivers to run (processes on one file share them)");
  auto* status = cmd->add_flag("--status", a->status, "Print the stored checkpoint, lease holder and indices")
                     ->excludes(follow)
                     ->excludes(verify);
  auto* reset = cmd->add_flag("--reset", a->reset, "Fill a new index from seq 0, then move the alias to it")
                    ->excludes(status)
                    ->excludes(verify);
  auto* remove = cmd->add_flag("--remove", a->remove, "Delete the river's stored state")
                     ->excludes(status)
                     ->excludes(reset)
                     ->excludes(follow)
                     ->excludes(verify);
  cmd->add_flag("--delete-index", a->deleteIndex, "With --remove: delete the indices behind the alias too")
      ->needs(remove);
  cmd->add_option("--max-docs-per-second", a->maxDocsPerSecond, "Read at most this many changes a second per river");
  cmd->add_flag("--log-json", a->logJson, "Status and log lines as one JSON object per line");
  cmd->add_option("--metrics", a->metrics, "Serve Prometheus metrics (/metrics) and /healthz on HOST:PORT");
  cmd->callback([a] { RunRiver(*a); });
}

} // namespace httptools
