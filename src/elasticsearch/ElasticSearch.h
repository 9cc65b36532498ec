#pragma once

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <functional>
#include <string>
#include <vector>

namespace qz::http {
class HttpConnection;
class HttpConnectionPool;
} // namespace qz::http

namespace qz::elasticsearch {

/// One hit of a search: where it lives, its score (0 when the answer gives none, as for sorted
/// searches), its source and its sort values. The variants may be moved out by the callback.
struct HTTPTOOLS_API SearchHit {
  /// The index holding the hit and the document's id.
  ///@{
  std::string index, id;
  ///@}
  double score = 0;    ///< 0 when the answer gives none
  qzVariant source;    ///< _source, null when the query excluded it
  qzVariant sort;      ///< the hit's sort values, null for an unsorted search
  std::string routing; ///< _routing, "" when the document has none
};

/// Streams every hit of `queryJson` (a JSON object with "query" and optional "sort", "_source"...;
/// empty means match_all) from `index` to `onHit`, `pageSize` hits per request (0: 1000). Pages are
/// read with a point in time and search_after; a server without point in time is read with a
/// scroll instead. Hits are cut from each answer while it arrives, so memory stays at one hit plus
/// one network chunk whatever the page size. The point in time or scroll is closed at the end,
/// also after an error, a cancel or a stop.
/// Returns true when every hit was delivered. False with `error` set on a bad query, an error
/// answer, a cut or malformed answer, a cancel (`*cancel` set: "cancelled") or when `onHit`
/// returned false ("stopped by the hit function").
/// Another thread that sets a cancel flag must store it atomically:
/// std::atomic_ref<bool>(flag).store(true).
///
/// @code
/// qz::elasticsearch::FetchSearchResults(conn, server, "orders", R"({"query":{"term":{"status":"paid"}}})",
///     [](qz::elasticsearch::SearchHit& hit) { std::cout << hit.id << '\n'; return true; },
///     1000, &error, nullptr);
/// @endcode
HTTPTOOLS_API bool FetchSearchResults(qz::http::HttpConnection& connection, const ElasticConnectionParameters& server,
                                      const std::string& index, const std::string& queryJson,
                                      const std::function<bool(SearchHit&)>& onHit, unsigned pageSize,
                                      std::string* error, const bool* cancel);

/// What a search takes beyond its query.
struct HTTPTOOLS_API SearchOptions {
  unsigned pageSize = 0; ///< hits per request; 0: 1000
  /// Accept answers that timed out or lost shards; otherwise such an answer ends the search with
  /// an error naming the failed shards and their reasons, before any hit of that page is given.
  bool allowPartialResults = false;
  std::vector<std::string> sourceIncludes; ///< _source fields kept (wildcards allowed); empty: all
  std::vector<std::string> sourceExcludes; ///< _source fields left out
};

/// FetchSearchResults with options; the call above is this one with `pageSize` alone set. The
/// source filters replace any "_source" of the query when one of them is given.
HTTPTOOLS_API bool FetchSearchResults(qz::http::HttpConnection& connection, const ElasticConnectionParameters& server,
                                      const std::string& index, const std::string& queryJson,
                                      const std::function<bool(SearchHit&)>& onHit, const SearchOptions& options,
                                      std::string* error, const bool* cancel);

/// FetchSearchResults split into `slices` slices ("slice": {"id", "max"}) of one point in time, or
/// on a server without point in time one scroll per slice, read in parallel: one thread and one
/// connection of `pool` per slice, each slice paging with its own search_after. Use it for exports.
/// `onHit` is called from the slice threads at the same time: the calls of one slice come one after
/// the other, in its order; calls of different slices overlap, so shared state needs a lock.
/// `slice` is the hit's slice, 0 to slices - 1. With `slices` 0 or 1 this is the plain scan; more
/// than 1024 is refused. The first failure in any slice (error answer, partial answer, `onHit`
/// returning false) ends every slice and is the `error` returned; a cancel ends them all within
/// about 100 ms.
///
/// @code
/// std::mutex mutex;
/// qz::elasticsearch::FetchSlicedSearchResults(pool, server, "orders", "",
///     [&](qz::elasticsearch::SearchHit& hit, unsigned) {
///       std::lock_guard<std::mutex> lock(mutex);
///       std::cout << hit.id << '\n';
///       return true;
///     }, 4, {}, &error, nullptr);
/// @endcode
HTTPTOOLS_API bool FetchSlicedSearchResults(qz::http::HttpConnectionPool& pool,
                                            const ElasticConnectionParameters& server, const std::string& index,
                                            const std::string& queryJson,
                                            const std::function<bool(SearchHit& hit, unsigned slice)>& onHit,
                                            unsigned slices, const SearchOptions& options, std::string* error,
                                            const bool* cancel);

} // namespace qz::elasticsearch
