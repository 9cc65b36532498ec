// httptools es: search, get and bulk against an Elasticsearch server.

#include "ElasticOptions.h"

#include <HttpTools/HttpTools.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

using httptools::ElasticAuth;
using qz::elasticsearch::ElasticConnectionParameters;

bool httptools::ElasticServerAndIndex(const std::string& given, ElasticConnectionParameters& server, std::string& index,
                                      const char* command, std::string* query) {
  std::string url = given, error;
  if (const size_t q = url.find('?'); q != std::string::npos && query) {
    *query = url.substr(q + 1);
    url.erase(q);
  }
  if (httptools::CheckCommandLineUrl(url, error) &&
      ElasticConnectionParameters::BuildFromIndexUrl(&server, &index, url) && !index.empty())
    return true;
  std::cerr << "httptools es " << command << ": '" << given << "' is not an index URL (http://host:port/index) "
            << error << "\n";
  httptools::exitCode = httptools::kExitBadUrl;
  return false;
}

void httptools::AddElasticAuth(CLI::App* cmd, ElasticAuth& a) {
  cmd->add_option("--api-key", a.apiKey,
                  "API key: ID:KEY, or the encoded form Elasticsearch returns; @FILE reads it from FILE");
  cmd->add_option("--bearer", a.bearer, "Bearer token (Authorization: Bearer); @FILE reads it from FILE");
  auto* cert = cmd->add_option("--cert", a.cert, "Client certificate for mutual TLS (PEM)")->check(CLI::ExistingFile);
  cmd->add_option("--key", a.key, "Its private key (PEM; default: in the certificate file)")
      ->check(CLI::ExistingFile)
      ->needs(cert);
}

// A secret given on the command line, or read from the file named after '@' (trailing line
// breaks dropped). False with a message naming the file only.
static bool secretArgument(const std::string& given, std::string& secret, std::string& error) {
  if (!httptools::ReadDataArgument(given, secret, error))
    return false;
  while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r'))
    secret.pop_back();
  return true;
}

// The credentials and TLS files on the server's parameters, which put them on every request:
// the API key wins over the bearer token, either over -u or the URL's user-info (-u wins over
// that, as with curl).
static bool applyAuth(const httptools::ConnectionOptions& conn, const ElasticAuth& auth,
                      ElasticConnectionParameters& server, std::string& error) {
  if (!conn.user.empty()) {
    const size_t colon = conn.user.find(':');
    server.setCredentialsOnHttpHeaders(conn.user.substr(0, colon),
                                       colon == std::string::npos ? "" : conn.user.substr(colon + 1));
  }
  std::string secret;
  if (!auth.apiKey.empty()) {
    if (!secretArgument(auth.apiKey, secret, error))
      return false;
    const size_t colon = secret.find(':');
    if (colon == std::string::npos)
      server.apiKey = secret;
    else
      server.setApiKey(secret.substr(0, colon), secret.substr(colon + 1));
  }
  if (!auth.bearer.empty() && !secretArgument(auth.bearer, server.bearerToken, error))
    return false;
  std::fill(secret.begin(), secret.end(), '\0');
  server.caFile = conn.caFile;
  server.clientCertFile = auth.cert;
  server.clientKeyFile = auth.key;
  auto& params = httptools::ConnectionSetup().parameters; // the probe's connection too
  params.clientCertFile = auth.cert;
  params.clientKeyFile = auth.key;
  return true;
}

// The connection options, then one request to the server: the pooled tools repeat failed
// requests, so an unreachable server is reported here at once.
bool httptools::ElasticReady(const char* command, const ConnectionOptions& conn, const ElasticAuth& auth,
                             ElasticConnectionParameters& server, bool probe) {
  const std::string name = std::string("httptools es ") + command;
  httptools::ConnectionOptions common = conn;
  common.user.clear(); // on the server's parameters, below, so that one Authorization is sent
  std::string error;
  if (!httptools::UseConnectionOptions(name, common) || !applyAuth(conn, auth, server, error)) {
    if (!error.empty())
      std::cerr << name << ": " << error << "\n";
    httptools::exitCode = httptools::kExitUsage;
    return false;
  }
  if (probe)
    httptools::exitCode = httptools::ProbeServer(name, server.toApiUrl({}, {}));
  return httptools::exitCode == httptools::kExitOk;
}

namespace {

// {"_id":...,"_source":...} on one line.
void printDoc(const std::string& id, qz::qzVariant& source) {
  qz::qzVariantMapImpl line{{"_id", id}, {"_source", std::move(source)}};
  std::string text;
  qz::json::Json2Variant::Convert(line, text, false);
  std::cout << text << '\n';
}

struct SearchOptions {
  std::string url, query;
  long size = -1, from = 0;
  unsigned page = 1000;
  httptools::ConnectionOptions conn;
  httptools::ElasticAuth auth;
};

// "size" and "from" of the query body (they page the whole result, not one request), and
// ?q=field:value of the URL as a query_string query.
bool searchBody(const SearchOptions& o, const std::string& urlQuery, std::string& body, long& size, long& from) {
  qz::qzVariantMapImpl query;
  if (!o.query.empty() && !qz::json::Json2Variant::Convert(o.query, query))
    return false;
  for (const char* name : {"size", "from"}) {
    if (auto it = query.find(name); it != query.end()) {
      (std::string(name) == "size" ? size : from) = long(it->second.toInt64());
      query.erase(it);
    }
  }
  std::string params = urlQuery;
  for (size_t at = 0; at < params.size();) {
    const size_t end = std::min(params.find('&', at), params.size());
    const std::string item = params.substr(at, end - at);
    at = end + 1;
    if (item.starts_with("q=") && !query.count("query")) {
      std::string text = qz::Url::UrlDecodeToUtf8String(item.substr(2));
      std::replace(text.begin(), text.end(), '+', ' ');
      query["query"] = qz::qzVariantMapImpl{{"query_string", qz::qzVariantMapImpl{{"query", text}}}};
    } else if (item.starts_with("size=")) {
      size = std::atol(item.c_str() + 5);
    } else if (item.starts_with("from=")) {
      from = std::atol(item.c_str() + 5);
    }
  }
  body.clear();
  return query.empty() || qz::json::Json2Variant::Convert(query, body, false);
}

void runSearch(const SearchOptions& o) {
  ElasticConnectionParameters server;
  std::string index, urlQuery, body;
  if (!httptools::ElasticServerAndIndex(o.url, server, index, "search", &urlQuery))
    return;
  long size = o.size, from = o.from;
  if (!searchBody(o, urlQuery, body, size, from)) {
    std::cerr << "httptools es search: --query is not a JSON object\n";
    httptools::exitCode = httptools::kExitUsage;
    return;
  }
  if (!httptools::ElasticReady("search", o.conn, o.auth, server, false))
    return;
  qz::http::HttpConnection connection;
  httptools::Prepare(connection);
  long seen = 0, printed = 0;
  std::string error;
  const unsigned page = size >= 0 && size + from < long(o.page) ? unsigned(std::max(1L, size + from)) : o.page;
  const bool ok = size == 0 || qz::elasticsearch::FetchSearchResults(
                                   connection, server, index, body,
                                   [&](qz::elasticsearch::SearchHit& hit) {
                                     if (seen++ >= from) {
                                       printDoc(hit.id, hit.source);
                                       ++printed;
                                     }
                                     return bool(std::cout) && (size < 0 || printed < size);
                                   },
                                   page, &error, nullptr);
  std::cout.flush();
  if (!std::cout) {
    httptools::exitCode = httptools::kExitWrite;
  } else if (!ok && !(size >= 0 && printed >= size)) {
    std::cerr << "httptools es search: " << error << "\n";
    const int rc = httptools::ExitCodeOfTransferError(connection.getLastError());
    httptools::exitCode = rc == httptools::kExitOk || rc == httptools::kExitFailure ? httptools::kExitHttpStatus : rc;
  }
}

struct GetOptions {
  std::string url;
  std::vector<std::string> ids;
  unsigned threads = 2;
  httptools::ConnectionOptions conn;
  httptools::ElasticAuth auth;
};

void runGet(const GetOptions& o) {
  ElasticConnectionParameters server;
  std::string index;
  if (!httptools::ElasticServerAndIndex(o.url, server, index, "get") ||
      !httptools::ElasticReady("get", o.conn, o.auth, server, true))
    return;
  qz::http::HttpConnectionPool pool;
  httptools::Prepare(pool);
  qz::elasticsearch::DocumentGetter getter(pool, server, index, o.threads);
  std::map<std::string, qz::qzVariant> found;
  std::vector<std::string> missing;
  std::string error;
  if (!getter.get(
          o.ids, [&](const std::string& id, qz::qzVariant& source) { found[id] = std::move(source); }, &missing, &error,
          nullptr)) {
    std::cerr << "httptools es get: " << error << "\n";
    httptools::exitCode = httptools::kExitHttpStatus;
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
  bool gzip = false;
  bool create = false; // op create: a data stream takes nothing else
  httptools::ConnectionOptions conn;
  httptools::ElasticAuth auth;
};

void runBulk(const BulkOptions& o) {
  ElasticConnectionParameters server;
  std::string index;
  if (!httptools::ElasticServerAndIndex(o.url, server, index, "bulk"))
    return;
  std::ifstream file;
  if (o.file != "-") {
    file.open(o.file);
    if (!file) {
      std::cerr << "httptools es bulk: cannot read " << o.file << "\n";
      httptools::exitCode = httptools::kExitFailure;
      return;
    }
  }
  if (!httptools::ElasticReady("bulk", o.conn, o.auth, server, true))
    return;
  httptools::BulkLines(o.file == "-" ? std::cin : file, "bulk", "indexed", "a JSON object with an \"_id\"", server,
                       o.threads, o.batch, o.gzip, [&](const std::string& line, qz::elasticsearch::BulkItem& item) {
                         qz::qzVariantMapImpl doc;
                         auto id = doc.end();
                         if (qz::json::Json2Variant::Convert(line, doc))
                           id = doc.find("_id");
                         if (id == doc.end() || id->second.isMap() || id->second.isList() ||
                             id->second.toString().empty())
                           return false;
                         item.id = id->second.toString();
                         doc.erase(id);
                         item.op = o.create ? qz::elasticsearch::BulkOp::Create : qz::elasticsearch::BulkOp::Index;
                         item.index = index;
                         return qz::json::Json2Variant::Convert(doc, item.json, false);
                       });
}

} // namespace

void httptools::AddElasticCommands(CLI::App& app) {
  CLI::App* es = app.add_subcommand("es", "Elasticsearch: search, get, bulk-index, export and import documents");
  es->require_subcommand(1);

  auto search = std::make_shared<SearchOptions>();
  CLI::App* s = es->add_subcommand("search", "every hit of a query as JSON lines with _id and _source");
  s->add_option("URL", search->url, "server and index: http://host:9200/index")->required();
  s->add_option("--query", search->query,
                "search body: a JSON object with \"query\" and optional \"sort\", \"size\", \"from\" (also ?q=, "
                "?size=, ?from= in the URL)");
  s->add_option("--size", search->size, "at most N hits (default: all)");
  s->add_option("--from", search->from, "skip the first N hits");
  s->add_option("--page", search->page, "hits per request (default 1000)");
  httptools::AddConnectionOptions(s, search->conn);
  httptools::AddElasticAuth(s, search->auth);
  s->callback([search] { runSearch(*search); });

  auto get = std::make_shared<GetOptions>();
  CLI::App* g = es->add_subcommand("get", "documents by id as JSON lines; ids not found on stderr (exit 1)");
  g->add_option("URL", get->url, "server and index: http://host:9200/index")->required();
  g->add_option("ID", get->ids, "document ids")->required();
  g->add_option("--threads", get->threads, "parallel _mget requests (default 2)");
  httptools::AddConnectionOptions(g, get->conn);
  httptools::AddElasticAuth(g, get->auth);
  g->callback([get] { runGet(*get); });

  auto bulk = std::make_shared<BulkOptions>();
  CLI::App* b = es->add_subcommand(
      "bulk", "indexes JSON lines, each with its \"_id\"; prints a summary, failures on stderr (exit 22, bad lines 1)");
  b->add_option("URL", bulk->url, "server and index: http://host:9200/index")->required();
  b->add_option("FILE", bulk->file, "JSON lines (default: standard input, -)");
  b->add_option("--threads", bulk->threads, "parallel _bulk requests (default 2)");
  b->add_option("--batch", bulk->batch, "documents per _bulk request (default 1000)");
  httptools::AddConnectionOptions(b, bulk->conn);
  httptools::AddElasticAuth(b, bulk->auth);
  b->add_flag("--gzip", bulk->gzip, "Send the _bulk bodies gzip-compressed (Content-Encoding: gzip)");
  b->add_flag("--create", bulk->create, "Op create instead of index: an existing id fails; the op a data stream takes");
  b->callback([bulk] { runBulk(*bulk); });

  httptools::AddElasticDataCommands(*es);
}
