// What the es commands share: the index URL, Elasticsearch's authentication options, and the
// connection set-up before the first request (es_cmd.cpp).
#pragma once

#include "Commands.h"

#include <HttpTools/elasticsearch/BulkIndexer.h>
#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>

#include <functional>
#include <istream>
#include <string>

namespace httptools {

// Elasticsearch's own authentication and TLS options, beside the common connection options.
struct ElasticAuth {
  std::string apiKey, bearer, cert, key;
};
void AddElasticAuth(CLI::App* cmd, ElasticAuth& a);

// Splits URL/index (a query string goes to `query`); false (and a message, exit 3) when it is not one.
bool ElasticServerAndIndex(const std::string& given, qz::elasticsearch::ElasticConnectionParameters& server,
                           std::string& index, const char* command, std::string* query = nullptr);

// The connection options and credentials on `server`, then, with `probe`, one request to the
// server so that an unreachable one is reported at once. False with `exitCode` set.
bool ElasticReady(const char* command, const ConnectionOptions& conn, const ElasticAuth& auth,
                  qz::elasticsearch::ElasticConnectionParameters& server, bool probe);

// es bulk and es import: `toItem` makes each non-blank line of `in` an item (false: a bad line,
// named on stderr by its number as not being `expected`). Prints "<done> N, failed N, retried N";
// exit 22 when the server refused an item, else 1 when a line was bad or the run interrupted.
void BulkLines(std::istream& in, const char* command, const char* done, const char* expected,
               const qz::elasticsearch::ElasticConnectionParameters& server, unsigned threads, size_t batch, bool gzip,
               const std::function<bool(const std::string&, qz::elasticsearch::BulkItem&)>& toItem);

void AddElasticDataCommands(CLI::App& es); // es export, es import (es_data_cmd.cpp)

} // namespace httptools
