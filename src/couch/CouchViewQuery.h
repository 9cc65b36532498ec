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

/// Query parameters of a view fetch. Keys are JSON text ("\"a\"", "[2024,3]", "null").
struct HTTPTOOLS_API ViewQueryOptions {
  std::string startKey;                        ///< empty: none
  std::string endKey;                          ///< empty: none
  std::vector<std::string> keys;               ///< non-empty: POST {"keys":[...]} with these values
  bool includeDocs = false;                    ///< include_docs=true: rows carry their document
  bool reduce = true;                          ///< false sends reduce=false
  bool descending = false;                     ///< descending=true: rows in reverse key order
  bool inclusiveEnd = true;                    ///< false sends inclusive_end=false
  unsigned long skip = 0;                      ///< rows skipped first
  long limit = -1;                             ///< negative: none
  CouchConnectionParameters::Query extraQuery; ///< anything else, e.g. {"conflicts", "true"}
  unsigned timeOutRetryMs = 0;                 ///< as in the other FetchCouchDbView
};

/// One row of a view's answer.
struct HTTPTOOLS_API ViewRow {
  std::string id;    ///< empty for reduced rows
  qzVariant key;     ///< the row's key
  qzVariant value;   ///< the row's value
  qzVariant doc;     ///< with includeDocs
  std::string error; ///< e.g. "not_found" for a key of _all_docs that names no document
};

/// Runs one view query (empty names: _all_docs) and hands every row to `onRow` while the response
/// arrives. False on a transport or HTTP error, a malformed row, a row refused by `onRow`, or a
/// cancel; `error` (may be null) says which.
/// Another thread that sets a cancel flag must store it atomically:
/// std::atomic_ref<bool>(flag).store(true).
///
/// @code
/// qz::couch::ViewQueryOptions q;
/// q.startKey = "\"2024-01\"";
/// q.includeDocs = true;
/// qz::couch::FetchCouchDbView(conn, server, "orders", "app", "by_date", q,
///                             [](qz::couch::ViewRow& r) { return use(r.doc), true; });
/// @endcode
HTTPTOOLS_API bool FetchCouchDbView(qz::http::HttpConnection& connection, const CouchConnectionParameters& server,
                                    const std::string& dbName, const std::string& designDocName,
                                    const std::string& viewName, const ViewQueryOptions& options,
                                    const std::function<bool(ViewRow& row)>& onRow, std::string* error = nullptr,
                                    const bool* cancelFlag = nullptr);

/// The URL of such a query (reachable by tests).
HTTPTOOLS_API qz::Url BuildViewQueryUrl(const CouchConnectionParameters& server, const std::string& dbName,
                                        const std::string& designDocName, const std::string& viewName,
                                        const ViewQueryOptions& options);

} // namespace qz::couch
