#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/platform/qzVariant.h>

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::couch::detail {

// One row of _all_docs?include_docs=true by keys: the document, or why there is none.
struct FetchedRow {
  std::string id;
  qzVariant doc;     // null when missing, deleted or in error
  std::string error; // the row's error other than not_found ("" when none)
  std::string rev;   // the winning revision, also of a deleted document
  bool deleted = false;
};

// Reads ids[begin, end) in one request. Every id asked gets a row, in the order asked; an id the
// answer left out gets the error "not answered".
bool FetchDocuments(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                    const std::vector<std::string>& ids, size_t begin, size_t end, std::vector<FetchedRow>& rows,
                    std::string& error, const bool* cancel);

// Whether the winning revision `stored` is what writing `sent` made: one generation above the
// revision `sent` replaced (or the first one), and the same fields (_rev and the server's meta
// fields aside), attachments by name, type, length and digest, stubs by name; for a deletion, a
// deleted winner. A write whose answer was lost and whose retry got 409 is then done, not failed.
bool HoldsWhatWasSent(const FetchedRow& stored, const qzVariantMapImpl& sent);

// The ids of `sent` (id to the document written) whose winning revision holds what was sent.
bool AlreadyStored(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                   const std::map<std::string, qzVariantMapImpl>& sent, std::set<std::string>& stored,
                   std::string& error, const bool* cancel);

// A random (version 4) UUID as 32 hex digits, the form of CouchDB's own ids.
std::string NewDocumentId();

} // namespace qz::couch::detail
