// httptools es: search, get and bulk against an Elasticsearch server.

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using qz::elasticsearch::ElasticConnectionParameters;

// Splits URL/index; false (and a message) when it is not one.
bool serverAndIndex(const std::string& url, ElasticConnectionParameters& server, std::string& index,
                    const char* command) {
  if (ElasticConnectionParameters::BuildFromIndexUrl(&server, &index, url) && !index.empty())
    return true;
  std::cerr << "httptools es " << command << ": '" << url << "' is not an index URL (http://host:port/index)\n";
  httptools::exitCode = 2;
  return false;
}

// {"_id":...,"_source":...} on one line.
void printDoc(const std::string& id, qz::qzVariant& source) {
  qz::qzVariantMapImpl line{{"_id", id}, {"_source", std::move(source)}};
  std::string text;
  qz::json::Json2Variant::Convert(line, text, false);
  std::cout << text << '\n';
}

struct SearchOptions {
  std::string url, query;
  unsigned size = 0;
  unsigned page = 1000;
};

void runSearch(const SearchOptions& o) {
  ElasticConnectionParameters server;
  std::string index;
  if (!serverAndIndex(o.url, server, index, "search"))
    return;
  qz::http::HttpConnection connection;
  size_t printed = 0;
  std::string error;
  const unsigned page = o.size && o.size < o.page ? o.size : o.page;
  const bool ok = qz::elasticsearch::FetchSearchResults(
      connection, server, index, o.query,
      [&](qz::elasticsearch::SearchHit& hit) {
        printDoc(hit.id, hit.source);
        return !o.size || ++printed < o.size;
      },
      page, &error, nullptr);
  if (!ok && !(o.size && printed >= o.size)) {
    std::cerr << "httptools es search: " << error << "\n";
    httptools::exitCode = 1;
  }
}

struct GetOptions {
  std::string url;
  std::vector<std::string> ids;
  unsigned threads = 2;
};

void runGet(const GetOptions& o) {
  ElasticConnectionParameters server;
  std::string index;
  if (!serverAndIndex(o.url, server, index, "get"))
    return;
  qz::http::HttpConnectionPool pool;
  qz::elasticsearch::DocumentGetter getter(pool, server, index, o.threads);
  std::map<std::string, qz::qzVariant> found;
  std::vector<std::string> missing;
  std::string error;
  if (!getter.get(
          o.ids, [&](const std::string& id, qz::qzVariant& source) { found[id] = std::move(source); }, &missing, &error,
          nullptr)) {
    std::cerr << "httptools es get: " << error << "\n";
    httptools::exitCode = 1;
    return;
  }
  for (const auto& id : o.ids)
    if (auto it = found.find(id); it != found.end())
      printDoc(id, it->second);
  for (const auto& id : missing)
    std::cerr << "httptools es get: " << id << " not found\n";
  if (!missing.empty())
    httptools::exitCode = 1;
}

struct BulkOptions {
  std::string url, file = "-";
  unsigned threads = 2;
  size_t batch = 1000;
};

void runBulk(const BulkOptions& o) {
  ElasticConnectionParameters server;
  std::string index;
  if (!serverAndIndex(o.url, server, index, "bulk"))
    return;
  std::ifstream file;
  if (o.file != "-") {
    file.open(o.file);
    if (!file) {
      std::cerr << "httptools es bulk: cannot read " << o.file << "\n";
      httptools::exitCode = 1;
      return;
    }
  }
  std::istream& in = o.file == "-" ? std::cin : file;
  qz::http::HttpConnectionPool pool;
  size_t badLines = 0;
  qz::elasticsearch::BulkStats stats;
  {
    qz::elasticsearch::BulkIndexer indexer(pool, server, o.threads, o.batch);
    indexer.onItemFailure([](const std::string&, const std::string& id, int status, const std::string& reason) {
      std::cerr << "httptools es bulk: " << id << ": " << status << " " << reason << "\n";
    });
    std::string line;
    for (size_t n = 1; std::getline(in, line); ++n) {
      if (line.find_first_not_of(" \t\r") == std::string::npos)
        continue;
      qz::qzVariantMapImpl doc;
      auto id = doc.end();
      if (qz::json::Json2Variant::Convert(line, doc))
        id = doc.find("_id");
      if (id == doc.end() || id->second.isMap() || id->second.isList() || id->second.toString().empty()) {
        std::cerr << "httptools es bulk: line " << n << " is not a JSON object with an \"_id\"\n";
        ++badLines;
        continue;
      }
      const std::string docId = id->second.toString();
      doc.erase(id);
      indexer.index(index, docId, doc);
    }
    std::string error;
    indexer.flush(&error);
    stats = indexer.stats();
  }
  std::cout << "indexed " << stats.indexed << ", failed " << stats.failed + badLines << ", retried " << stats.retried
            << "\n";
  if (stats.failed + badLines)
    httptools::exitCode = 1;
}

} // namespace

void httptools::AddElasticCommands(CLI::App& app) {
  CLI::App* es = app.add_subcommand("es", "Elasticsearch: search, get and bulk-index documents");
  es->require_subcommand(1);

  auto search = std::make_shared<SearchOptions>();
  CLI::App* s = es->add_subcommand("search", "every hit of a query as JSON lines with _id and _source");
  s->add_option("URL", search->url, "server and index: http://host:9200/index")->required();
  s->add_option("--query", search->query, "search body: a JSON object with \"query\" and optional \"sort\"");
  s->add_option("--size", search->size, "at most N hits (default: all)");
  s->add_option("--page", search->page, "hits per request (default 1000)");
  s->callback([search] { runSearch(*search); });

  auto get = std::make_shared<GetOptions>();
  CLI::App* g = es->add_subcommand("get", "documents by id as JSON lines; ids not found on stderr (exit 1)");
  g->add_option("URL", get->url, "server and index: http://host:9200/index")->required();
  g->add_option("ID", get->ids, "document ids")->required();
  g->add_option("--threads", get->threads, "parallel _mget requests (default 2)");
  g->callback([get] { runGet(*get); });

  auto bulk = std::make_shared<BulkOptions>();
  CLI::App* b = es->add_subcommand(
      "bulk", "indexes JSON lines, each with its \"_id\"; prints a summary, failures on stderr (exit 1)");
  b->add_option("URL", bulk->url, "server and index: http://host:9200/index")->required();
  b->add_option("FILE", bulk->file, "JSON lines (default: standard input, -)");
  b->add_option("--threads", bulk->threads, "parallel _bulk requests (default 2)");
  b->add_option("--batch", bulk->batch, "documents per _bulk request (default 1000)");
  b->callback([bulk] { runBulk(*bulk); });
}
