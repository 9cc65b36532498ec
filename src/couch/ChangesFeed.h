#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::couch {

/// One entry of a database's change feed.
struct HTTPTOOLS_API Change {
  std::string seq;               ///< opaque: CouchDB 2+ sends strings, older servers and PouchDB numbers
  std::string id;                ///< the document's id
  std::vector<std::string> revs; ///< the changed leaf revisions (the winner unless allLeafRevs)
  bool deleted = false;          ///< the document was deleted
  qzVariant doc;                 ///< null unless ChangesOptions::includeDocs
};

/// How a ChangesFeedListener reads the feed.
struct HTTPTOOLS_API ChangesOptions {
  std::string since = "0";         ///< "now" starts at the current end of the feed
  bool includeDocs = false;        ///< include_docs=true: each change carries its document
  bool continuous = false;         ///< follow the feed until stopped; otherwise read until caught up
  bool longpoll = false;           ///< not continuous: when caught up, wait for the next change(s) and end
  unsigned heartbeatMs = 10000;    ///< heartbeat asked of the server on continuous and longpoll feeds
  std::vector<std::string> docIds; ///< only these documents (filter _doc_ids)
  std::string filter;              ///< "design/name"
  /// filter=_selector: only changes of documents whose winning revision matches this Mango
  /// selector (JSON text). CouchDB never sends the edit that makes a document stop matching, so
  /// a follower that keeps a copy never hears that it should drop it; MatchesSelector
  /// (MangoSelector.h) is the same match on the client side, e.g. for an unfiltered feed.
  /// docIds wins over a selector, a selector over filter.
  std::string selector;
  /// seq_interval: the server computes a row's seq only every N rows (cheaper on a cluster); the
  /// others come as null, with an empty Change::seq. Only last_seq is a checkpoint then.
  unsigned seqInterval = 0;
  unsigned batchLimit = 0;  ///< normal feed: changes per request (0: all at once)
  bool allLeafRevs = false; ///< style=all_docs: every leaf revision, not just the winner
  /// Transient failures (connection lost, 5xx, 429, heartbeat silence) reconnect after a delay
  /// drawn at random between half and all of min(backoffMaxMs, backoffInitialMs * 2^(n-1)) for
  /// the n-th failure in a row. A 429 or 503 answer's Retry-After (seconds or an HTTP date)
  /// replaces that delay, capped at backoffMaxMs. More than maxRetries failures in a row end the
  /// run (0: never give up).
  ///@{
  unsigned backoffInitialMs = 250;
  unsigned backoffMaxMs = 30000;
  unsigned maxRetries = 10;
  ///@}
};

/// Reads a database's change feed and hands each change to a callback, reconnecting from the last
/// checkpoint after a transient failure. Delivery is at least once: after a reconnect the server
/// may send changes again that were handed over before the failure; the checkpoint lastSeq()
/// advances only after onChange returned true.
///
/// @code
/// qz::couch::ChangesOptions o;
/// o.continuous = true;
/// qz::couch::ChangesFeedListener feed(pool, server, "orders", o);
/// feed.start([](const qz::couch::Change& c) { std::cout << c.id << '\n'; return true; });
/// ...
/// feed.stop(); // feed.lastSeq() resumes it later
/// @endcode
class HTTPTOOLS_API ChangesFeedListener {
public:
  /// Reads `db` of `server` through `pool`, which must outlive the listener. Nothing is sent before run() or start().
  ChangesFeedListener(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                      const std::string& db, ChangesOptions options);
  ~ChangesFeedListener(); ///< stops and joins
  ChangesFeedListener(const ChangesFeedListener&) = delete;
  ChangesFeedListener& operator=(const ChangesFeedListener&) = delete;

  /// On the caller's thread: reads changes until caught up (normal feed), or until stopped or
  /// cancelled (continuous). onChange returning false stops. True when it ended without error
  /// (caught up, stopped, cancelled or refused by onChange); false with the reason otherwise
  /// (400/401/403/404 with the server's words, malformed feed, retries used up). A quiet feed
  /// looks at *cancel every 50 ms; another thread sets it through std::atomic_ref<bool>.
  bool run(const std::function<bool(const Change&)>& onChange, std::string* error = nullptr,
           const bool* cancel = nullptr);
  /// Batch delivery, for callers that write in bulk: onBatch gets the changes of one answer
  /// (normal and longpoll feeds: one request, batchLimit of them at most; continuous feeds: what
  /// arrived in one read, up to 1000) and the checkpoint that holds once they are processed (the
  /// answer's last_seq, or the last non-null seq of the batch; empty when none). The checkpoint
  /// moves after onBatch returned true; false stops, as in run().
  bool runBatches(const std::function<bool(std::vector<Change>& batch, const std::string& checkpoint)>& onBatch,
                  std::string* error = nullptr, const bool* cancel = nullptr);
  /// The same on a thread of its own; false when one is already running.
  bool start(std::function<bool(const Change&)> onChange);
  /// Ends run() or the thread at once, even on a quiet feed or during a reconnect delay (the
  /// transfer is woken, not polled), and joins the thread.
  void stop();
  bool isRunning() const; ///< true while the listener's own thread runs
  /// Outcome of the last run on the listener's own thread.
  bool lastRunOk() const;
  std::string lastError() const; ///< why the last run on the listener's own thread failed; empty after success

  /// Seq of the last change handed over (or the feed's last_seq once caught up): the checkpoint to
  /// resume from. Starts at options.since.
  std::string lastSeq() const;
  /// Moves the checkpoint (before run() or start()).
  void setSince(const std::string& seq);
  /// Changes handed over, and reconnections made, since construction.
  ///@{
  uint64_t changeCount() const;
  uint64_t reconnectCount() const;
  ///@}
  /// Changes the server holds beyond those handed over, as its last answer counted them (CouchDB
  /// sends `pending` on normal and longpoll feeds, which batchLimit pages); -1 until an answer
  /// tells. Any thread.
  int64_t pending() const;

  class Private;

private:
  std::unique_ptr<Private> d;
};

} // namespace qz::couch
