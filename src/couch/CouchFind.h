#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/http/TransferError.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::couch {

/// A Mango query for FindDocuments.
struct HTTPTOOLS_API FindQuery {
  std::string selector = "{}";                    ///< a Mango selector, JSON text of an object
  std::vector<std::string> fields;                ///< only these fields (empty: whole documents)
  std::vector<std::pair<std::string, bool>> sort; ///< field, descending
  long limit = -1;                                ///< documents in all (negative: every match)
  size_t pageSize = 1000;                         ///< documents per request
  std::string useIndex;                           ///< "design" or "design/index" (empty: server's pick)
};

/// What FindDocuments read.
struct HTTPTOOLS_API FindStats {
  size_t documents = 0;             ///< documents handed to the callback
  size_t pages = 0;                 ///< requests made
  bool pagedBySkip = false;         ///< the server sent no bookmark
  std::string warning;              ///< the server's, e.g. that no index serves the query
  qz::http::TransferError transfer; ///< the failed request's error, if a request made the query fail
};

/// Runs a Mango query (_find) page by page and hands every document to onDoc, so that a result
/// of any size is read with a page in memory. Pages follow the server's bookmark (CouchDB 2+);
/// a server that sends none (pouchdb-server) is paged with skip instead, which costs it more for
/// deep pages and may skip or repeat a document written between two pages. onDoc returning false
/// stops (true is returned). False on a failed request, an error answer (a bad selector: 400, a
/// sort no index serves) or cancel.
HTTPTOOLS_API bool FindDocuments(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                                 const std::string& db, const FindQuery& query,
                                 const std::function<bool(qzVariant& doc)>& onDoc, FindStats* stats, std::string* error,
                                 const bool* cancel);

} // namespace qz::couch
