// httptools es export | import: an index to JSON lines and back, with its mappings and settings.

#include "ElasticOptions.h"

#include <HttpTools/HttpTools.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <unistd.h>

namespace {

using qz::elasticsearch::ElasticConnectionParameters;

// Settings Elasticsearch makes itself and refuses on index creation.
const char* const kOwnSettings[] = {"uuid", "creation_date", "provided_name", "version", "history_uuid"};

// One request of the mapping file's round trip, with the server's credentials and headers.
bool IndexCall(const std::string& method, const ElasticConnectionParameters& url, const std::string& body,
               std::string& answer, int& status) {
  qz::http::HttpConnection connection;
  httptools::Prepare(connection);
  const auto lines = url.headerLines();
  const std::list<std::string> headers(lines.begin(), lines.end());
  qz::Url bare(url); // the credentials go in the header above only
  bare.clearCredentials();
  qz::http::HttpHelpers::HttpResult result;
  std::string message;
  result.errorMessage = &message;
  answer.clear();
  if (method == "GET")
    qz::http::HttpHelpers::HttpGetJson(connection, bare, answer, &result, nullptr, &headers);
  else {
    result.body = &answer; // the error's text
    qz::http::HttpHelpers::HttpPutJson(connection, bare, body.data(), body.size(), 0, &result, nullptr, &headers);
  }
  status = result.httpCode;
  if (status == 0)
    answer = message;
  else if (answer.empty())
    answer = "HTTP status " + std::to_string(status);
  return status == 200;
}

struct ExportArgs {
  std::string url, mapping;
  unsigned slices = 2, page = 1000;
  httptools::ConnectionOptions conn;
  httptools::ElasticAuth auth;
};

// {"mappings", "settings"} of `index` into `path`, ready to create an index from.
bool SaveMapping(const ElasticConnectionParameters& server, const std::string& index, const std::string& path) {
  std::string answer;
  int status = 0;
  qz::qzVariantMapImpl all;
  if (!IndexCall("GET", server.toIndexUrl(index, {}), "", answer, status) ||
      !qz::json::Json2Variant::Convert(answer, all) || all.size() != 1 || !all.begin()->second.isMap()) {
    std::cerr << "httptools es export: cannot read the mappings of " << index << ": " << answer.substr(0, 300) << "\n";
    httptools::exitCode = status ? httptools::kExitHttpStatus : httptools::kExitConnect;
    return false;
  }
  const auto& info = all.begin()->second.toMap(); // keyed by the index's own name when `index` is an alias
  auto member = [](const qz::qzVariantMapImpl& map, const char* name) {
    auto it = map.find(name);
    return it != map.end() && it->second.isMap() ? it->second.toMap() : qz::qzVariantMapImpl();
  };
  qz::qzVariantMapImpl settings = member(info, "settings");
  if (settings.count("index")) {
    qz::qzVariantMapImpl own = member(settings, "index");
    for (const char* name : kOwnSettings)
      own.erase(name);
    settings["index"] = own;
  }
  const qz::qzVariantMapImpl saved{{"mappings", member(info, "mappings")}, {"settings", settings}};
  std::string text;
  qz::json::Json2Variant::Convert(saved, text, false);
  std::ofstream out(path);
  if (!(out << text << '\n') || !(out.close(), out)) {
    std::cerr << "httptools es export: cannot write " << path << "\n";
    httptools::exitCode = httptools::kExitWrite;
    return false;
  }
  return true;
}

// Lines of the slices gathered per slice and written in blocks, so that memory stays at a block
// per slice whatever the index's size. On a terminal, a progress line on standard error.
class LineWriter {
public:
  explicit LineWriter(unsigned slices) : m_blocks(slices), m_scratch(slices), m_progress(isatty(2)) {}

  // Called from slice `slice`'s thread; false once standard output failed.
  bool add(unsigned slice, const qz::qzVariantMapImpl& line) {
    if (m_failed)
      return false;
    std::string& text = m_scratch[slice];
    qz::json::Json2Variant::Convert(line, text, false);
    std::string& block = m_blocks[slice];
    block += text;
    block += '\n';
    return block.size() < kBlock || write(block);
  }
  bool finish() {
    for (auto& block : m_blocks)
      if (!write(block))
        return false;
    if (m_progress && m_shown)
      std::fprintf(stderr, "\rexported %zu document(s)\n", m_written);
    return !m_failed && std::fflush(stdout) == 0 && !std::ferror(stdout);
  }

private:
  static constexpr size_t kBlock = 256 * 1024;

  bool write(std::string& block) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const size_t lines = size_t(std::count(block.begin(), block.end(), '\n'));
    const bool ok = std::fwrite(block.data(), 1, block.size(), stdout) == block.size();
    block.clear();
    m_written += lines;
    if (!ok)
      m_failed = true;
    const auto now = std::chrono::steady_clock::now();
    if (m_progress && now - m_lastShown >= std::chrono::seconds(1)) {
      std::fprintf(stderr, "\rexported %zu document(s)", m_written);
      m_lastShown = now;
      m_shown = true;
    }
    return ok;
  }

  std::vector<std::string> m_blocks, m_scratch;
  bool m_progress;
  std::mutex m_mutex; // guards stdout and what follows
  size_t m_written = 0;
  std::chrono::steady_clock::time_point m_lastShown = std::chrono::steady_clock::now();
  bool m_shown = false;
  std::atomic<bool> m_failed{false};
};

void RunExport(const ExportArgs& a) {
  ElasticConnectionParameters server;
  std::string index;
  if (!httptools::ElasticServerAndIndex(a.url, server, index, "export") ||
      !httptools::ElasticReady("export", a.conn, a.auth, server, true))
    return;
  if (!a.mapping.empty() && !SaveMapping(server, index, a.mapping))
    return;
  qz::http::HttpConnectionPool pool;
  httptools::Prepare(pool);
  const unsigned slices = std::max(1u, a.slices);
  LineWriter writer(slices);
  qz::elasticsearch::SearchOptions options;
  options.pageSize = a.page;
  std::string error;
  const bool ok = qz::elasticsearch::FetchSlicedSearchResults(
      pool, server, index, "",
      [&](qz::elasticsearch::SearchHit& hit, unsigned slice) {
        qz::qzVariantMapImpl line{{"_id", hit.id}, {"_source", std::move(hit.source)}};
        if (!hit.routing.empty())
          line["_routing"] = hit.routing;
        return writer.add(slice, line);
      },
      slices, options, &error, httptools::InterruptFlag());
  if (!writer.finish()) {
    std::cerr << "httptools es export: cannot write the output\n";
    httptools::exitCode = httptools::kExitWrite;
  } else if (!ok) {
    std::cerr << "httptools es export: " << error << "\n";
    httptools::exitCode = httptools::kExitHttpStatus;
  }
}

struct ImportArgs {
  std::string url, mapping;
  unsigned threads = 2;
  size_t batch = 1000;
  bool gzip = false;
  httptools::ConnectionOptions conn;
  httptools::ElasticAuth auth;
};

// One exported line as a bulk item; false when it is not {"_id", "_source"[, "_routing"]}.
bool ImportItem(const std::string& line, const std::string& index, qz::elasticsearch::BulkItem& item) {
  qz::qzVariantMapImpl doc;
  if (!qz::json::Json2Variant::Convert(line, doc))
    return false;
  auto id = doc.find("_id"), source = doc.find("_source"), routing = doc.find("_routing");
  if (id == doc.end() || !id->second.isString() || id->second.toString().empty() || source == doc.end() ||
      !source->second.isMap() || (routing != doc.end() && !routing->second.isString()))
    return false;
  item.index = index;
  item.id = id->second.toString();
  item.routing = routing == doc.end() ? "" : routing->second.toString();
  return qz::json::Json2Variant::Convert(source->second.toMap(), item.json, false);
}

void RunImport(const ImportArgs& a) {
  ElasticConnectionParameters server;
  std::string index, body;
  if (!httptools::ElasticServerAndIndex(a.url, server, index, "import"))
    return;
  if (!a.mapping.empty() && !httptools::ReadFile(a.mapping, body)) {
    std::cerr << "httptools es import: cannot read " << a.mapping << "\n";
    httptools::exitCode = httptools::kExitFailure;
    return;
  }
  if (!httptools::ElasticReady("import", a.conn, a.auth, server, true))
    return;
  if (!a.mapping.empty()) {
    std::string answer;
    int status = 0;
    if (!IndexCall("PUT", server.toIndexUrl(index, {}), body, answer, status)) {
      std::cerr << "httptools es import: cannot create " << index << ": " << answer.substr(0, 300) << "\n";
      httptools::exitCode = status ? httptools::kExitHttpStatus : httptools::kExitConnect;
      return;
    }
  }
  httptools::BulkLines(
      std::cin, "import", "imported", "a JSON object with \"_id\" and \"_source\"", server, a.threads, a.batch, a.gzip,
      [&](const std::string& line, qz::elasticsearch::BulkItem& item) { return ImportItem(line, index, item); });
}

} // namespace

void httptools::BulkLines(std::istream& in, const char* command, const char* done, const char* expected,
                          const ElasticConnectionParameters& server, unsigned threads, size_t batch, bool gzip,
                          const std::function<bool(const std::string&, qz::elasticsearch::BulkItem&)>& toItem) {
  qz::http::HttpConnectionPool pool;
  httptools::Prepare(pool);
  size_t badLines = 0;
  qz::elasticsearch::BulkStats stats;
  {
    qz::elasticsearch::BulkIndexer indexer(pool, server, threads, batch);
    if (gzip) {
      qz::elasticsearch::BulkRequestOptions options;
      options.gzipLevel = 6;
      indexer.setRequestOptions(options);
    }
    indexer.onItemFailure([command](const std::string&, const std::string& id, int status, const std::string& reason) {
      std::cerr << "httptools es " << command << ": " << id << ": " << status << " " << reason << "\n";
    });
    std::string line;
    qz::elasticsearch::BulkItem item;
    for (size_t n = 1; std::getline(in, line) && !httptools::Interrupted(); ++n) {
      if (line.find_first_not_of(" \t\r") == std::string::npos)
        continue;
      item = {};
      if (!toItem(line, item)) {
        std::cerr << "httptools es " << command << ": line " << n << " is not " << expected << "\n";
        ++badLines;
        continue;
      }
      indexer.add(item);
    }
    std::string error;
    indexer.flush(&error);
    stats = indexer.stats();
  }
  std::cout << done << " " << stats.indexed << ", failed " << stats.failed + badLines << ", retried " << stats.retried
            << "\n";
  if (stats.failed)
    httptools::exitCode = httptools::kExitHttpStatus;
  else if (badLines || httptools::Interrupted())
    httptools::exitCode = httptools::kExitFailure;
}

void httptools::AddElasticDataCommands(CLI::App& es) {
  auto exp = std::make_shared<ExportArgs>();
  CLI::App* e = es.add_subcommand("export", "every document of an index as JSON lines with _id, _source, _routing");
  e->add_option("URL", exp->url, "server and index: http://host:9200/index")->required();
  e->add_option("--slices", exp->slices, "parallel slices of the scan (default 2)");
  e->add_option("--page", exp->page, "hits per request and slice (default 1000)");
  e->add_option("--mapping", exp->mapping, "Also save the index's mappings and settings to FILE");
  AddConnectionOptions(e, exp->conn);
  AddElasticAuth(e, exp->auth);
  e->callback([exp] { RunExport(*exp); });

  auto imp = std::make_shared<ImportArgs>();
  CLI::App* i = es.add_subcommand(
      "import",
      "bulk-indexes the JSON lines of es export from standard input; failures on stderr (exit 22, bad lines 1)");
  i->add_option("URL", imp->url, "server and index: http://host:9200/index")->required();
  i->add_option("--mapping", imp->mapping, "Create the index first from FILE (saved by es export --mapping)");
  i->add_option("--threads", imp->threads, "parallel _bulk requests (default 2)");
  i->add_option("--batch", imp->batch, "documents per _bulk request (default 1000)");
  i->add_flag("--gzip", imp->gzip, "Send the _bulk bodies gzip-compressed (Content-Encoding: gzip)");
  AddConnectionOptions(i, imp->conn);
  AddElasticAuth(i, imp->auth);
  i->callback([imp] { RunImport(*imp); });
}
