#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/http/TransferError.h>
#include <HttpTools/platform/Export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::couch {

/// How BackupDatabase reads the database.
struct HTTPTOOLS_API BackupOptions {
  std::string since = "0"; ///< resume after this checkpoint (one handed to onBatchWritten)
  size_t batchSize = 500;  ///< changes per _bulk_get (and checkpoint); the feed is read four batches a page
  unsigned threads = 4;    ///< _bulk_get requests in flight
  /// Attachments inline, base64 in "data"; without, documents are written without _attachments
  /// (a stub cannot be restored).
  bool attachments = false;
};

/// What BackupDatabase wrote.
struct HTTPTOOLS_API BackupStats {
  size_t documents = 0;             ///< ids of the feed
  size_t revisions = 0;             ///< lines written: one per leaf revision
  std::string lastSeq;              ///< checkpoint of the last batch written
  qz::http::TransferError transfer; ///< the failed request's error, if a request made the backup fail
};

/// Writes a database to `out` as JSON lines, one per leaf revision of every document: winners,
/// conflicts and deleted leaves, each with its _revisions history, design documents too, _local
/// documents not (they are not in the change feed). The ids and leaf revisions come from the
/// change feed (style=all_docs) page by page, the revisions from _bulk_get?revs=true on `threads`
/// threads; batches are written in feed order and `out` is flushed after each, then
/// onBatchWritten gets the checkpoint a later backup resumes from (options.since) and the bytes
/// written so far. Memory holds a
/// few batches. A leaf that disappeared meanwhile is skipped: its document's later change brings
/// it. False on a failed request (after retries), an unexpected answer, a write error or cancel.
///
///   qz::couch::BackupDatabase(pool, server, "orders", {}, file, [&](const std::string& seq, uint64_t) { log << seq <<
///   '\n'; },
///                             &stats, &error, nullptr);
HTTPTOOLS_API bool
BackupDatabase(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
               const BackupOptions& options, std::ostream& out,
               const std::function<void(const std::string& checkpoint, uint64_t written)>& onBatchWritten,
               BackupStats* stats, std::string* error, const bool* cancel);

/// What RestoreDatabase read and stored.
struct HTTPTOOLS_API RestoreStats {
  size_t lines = 0;   ///< revisions read
  size_t stored = 0;  ///< revisions the server took
  size_t invalid = 0; ///< lines that are not a JSON object with an _id (skipped, counted)
  std::vector<std::pair<std::string, std::string>> failures; ///< id, reason
};

/// Writes the lines of a backup into `db` with _bulk_docs and new_edits=false: every revision
/// keeps its id, revision and history, so winners and conflicts come out as they were. Writing a
/// revision the database already has changes nothing, so restoring a file twice (or a backup
/// resumed after a crash, with its last batch twice) is harmless. Blank lines are skipped. True
/// when every line was stored.
HTTPTOOLS_API bool RestoreDatabase(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                                   const std::string& db, std::istream& in, unsigned threads, size_t batchDocs,
                                   RestoreStats* stats, std::string* error, const bool* cancel);

} // namespace qz::couch
