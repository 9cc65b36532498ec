#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <functional>
#include <string>
#include <vector>

namespace qz::http {
class HttpConnection;
}

namespace qz::couch {

// Query parameters of a view fetch. Keys are JSON text ("\"a\"", "[2024,3]", "null").
struct HTTPTOOLS_API ViewQueryOptions {
  std::string startKey;          // empty: none
  std::string endKey;            // empty: none
  std::vector<std::string> keys; // non-empty: POST {"keys":[...]} with these values
  bool includeDocs = false;
  bool reduce = true; // false sends reduce=false
  bool descending = false;
  bool inclusiveEnd = true;
  unsigned long skip = 0;
  long limit = -1;                             // negative: none
  CouchConnectionParameters::Query extraQuery; // anything else, e.g. {"conflicts", "true"}
  unsigned timeOutRetryMs = 0;                 // as in the other FetchCouchDbView
};

struct HTTPTOOLS_API ViewRow {
  std::string id; // empty for reduced rows
  qzVariant key;
  qzVariant value;
  qzVariant doc;     // with includeDocs
  std::string error; // e.g. "not_found" for a key of _all_docs that names no document
};

// Another thread that sets a cancel flag must store it atomically: std::atomic_ref<bool>(flag).store(true).
// Runs one view query (empty names: _all_docs) and hands every row to `onRow` while the response
// arrives. False on a transport or HTTP error, a malformed row, a row refused by `onRow`, or a
// cancel; `error` (may be null) says which.
//
//   qz::couch::ViewQueryOptions q;
//   q.startKey = "\"2024-01\"";
//   q.includeDocs = true;
//   qz::couch::FetchCouchDbView(conn, server, "orders", "app", "by_date", q,
//                               [](qz::couch::ViewRow& r) { return use(r.doc), true; });
HTTPTOOLS_API bool FetchCouchDbView(qz::http::HttpConnection& connection, const CouchConnectionParameters& server,
                                    const std::string& dbName, const std::string& designDocName,
                                    const std::string& viewName, const ViewQueryOptions& options,
                                    const std::function<bool(ViewRow& row)>& onRow, std::string* error = nullptr,
                                    const bool* cancelFlag = nullptr);

// The URL of such a query (reachable by tests).
HTTPTOOLS_API qz::Url BuildViewQueryUrl(const CouchConnectionParameters& server, const std::string& dbName,
                                        const std::string& designDocName, const std::string& viewName,
                                        const ViewQueryOptions& options);

} // namespace qz::couch
