// What the es commands share: the index URL, Elasticsearch's authentication options, and the
// connection set-up before the first request (es_cmd.cpp).
#pragma once

#include "Commands.h"

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>

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

void AddElasticDataCommands(CLI::App& es); // es export, es import (es_data_cmd.cpp)

} // namespace httptools
