#pragma once

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/platform/Export.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::couch {

/// Keeps a change-feed consumer's checkpoint in the database it reads, in the document
/// `_local/NAME` as {"seq": "..."}, the way replicators do: local documents are neither replicated
/// nor in the change feed, so keeping the checkpoint makes no change for the consumer to see.
///
/// @code
/// qz::couch::FeedCheckpoint checkpoint(pool, server, "orders", "indexer");
/// qz::couch::ChangesFeedListener feed(pool, server, "orders", options);
/// checkpoint.follow(feed, [](std::vector<qz::couch::Change>& batch) { return index(batch); }, &error);
/// @endcode
class HTTPTOOLS_API FeedCheckpoint {
public:
  /// The checkpoint `name` of database `db`; `pool` must outlive it.
  FeedCheckpoint(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                 const std::string& name);
  ~FeedCheckpoint();
  FeedCheckpoint(const FeedCheckpoint&) = delete;
  FeedCheckpoint& operator=(const FeedCheckpoint&) = delete;

  /// The stored seq, or `fallback` when none is stored yet. False when it cannot be read.
  bool load(std::string& seq, std::string* error = nullptr, const std::string& fallback = "0",
            const bool* cancel = nullptr);
  /// Stores `seq` over the revision last read or written; when another writer moved it meanwhile
  /// (409) the document is read again and written once more.
  bool save(const std::string& seq, std::string* error = nullptr, const bool* cancel = nullptr);

  /// Runs `feed` from the stored checkpoint (or its own since when none is stored) with batch delivery and stores the
  /// checkpoint of each batch once onBatch returned true (and the feed's last_seq when it catches up). As
  /// ChangesFeedListener::runBatches, and false also when the checkpoint cannot be stored.
  bool follow(ChangesFeedListener& feed, const std::function<bool(std::vector<Change>& batch)>& onBatch,
              std::string* error = nullptr, const bool* cancel = nullptr);

  class Private;

private:
  std::unique_ptr<Private> d;
};

} // namespace qz::couch
