#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::couch {

/// Reads documents by id: _all_docs?include_docs=true with the ids as keys, in batches spread over
/// `threads` threads, every request through `pool`.
/// Another thread that sets a cancel flag must store it atomically:
/// std::atomic_ref<bool>(flag).store(true).
///
/// @code
/// qz::couch::DocumentGetter getter(pool, server, "orders", 4);
/// std::vector<std::string> missing;
/// getter.get(ids, [](const std::string& id, qzVariant& doc) { use(id, doc); }, &missing, &error, nullptr);
/// @endcode
class HTTPTOOLS_API DocumentGetter {
public:
  /// Reads `db` of `server` through `pool` (which must outlive the getter) with `threads` parallel requests.
  DocumentGetter(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                 unsigned threads);
  ~DocumentGetter();
  DocumentGetter(const DocumentGetter&) = delete;
  DocumentGetter& operator=(const DocumentGetter&) = delete;

  void setBatchSize(size_t ids); ///< ids per request (default 200)

  /// onDoc runs on the worker threads, one call at a time. Ids that do not exist or whose document
  /// is deleted go to `missing` (in the order given), not to onDoc; they are not an error. False
  /// on a failed request (after retries of 429, 5xx and lost connections), a cancel, or an id the
  /// server answered with an error or left out of its answer (named in `error`).
  bool get(const std::vector<std::string>& ids, const std::function<void(const std::string& id, qzVariant& doc)>& onDoc,
           std::vector<std::string>* missing, std::string* error, const bool* cancel);

  class Private;

private:
  std::unique_ptr<Private> d;
};

/// Edits documents in place: reads them in batches, lets `change` edit each one, writes the edited
/// ones back with _bulk_docs on the _rev read. A document another writer changed meanwhile (409)
/// is read again and changed again; one whose new revision is this write (applied by an attempt
/// whose answer was lost) is not changed twice.
class HTTPTOOLS_API DocumentUpdater {
public:
  /// Works on `db` of `server` through `pool` (which must outlive the updater) with `threads` worker threads.
  DocumentUpdater(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                  unsigned threads);
  ~DocumentUpdater();
  DocumentUpdater(const DocumentUpdater&) = delete;
  DocumentUpdater& operator=(const DocumentUpdater&) = delete;

  void setBatchSize(size_t ids);          ///< default 100
  void setMaxConflictRetries(unsigned n); ///< rounds of re-reading after 409 (default 20)

  /// change() runs on the worker threads, one call at a time; it returns true to write the
  /// document. Missing and deleted ids are skipped. False when a write failed for another reason
  /// than a conflict, conflicts persisted past the retries, a request failed, or on cancel;
  /// `written` counts the documents written.
  bool update(const std::vector<std::string>& ids, const std::function<bool(qzVariantMapImpl& doc)>& change,
              size_t* written, std::string* error, const bool* cancel);

  class Private;

private:
  std::unique_ptr<Private> d;
};

/// Uploads documents with _bulk_docs in batches of `batchDocs` documents or `batchBytes` bytes,
/// whichever fills first, on `threads` background threads. A request answered 429 or 5xx, or cut
/// off, is sent again after a backoff delay (or the Retry-After of a 429 or 503, up to 5 s);
/// per-document errors (409 conflict, 403 forbidden) are kept with the document's id. Retries
/// never store a document twice: one without _id gets a random UUID when added, and a 409 whose
/// stored winning revision already holds what was sent (an attempt whose answer was lost, or the
/// same upload run again) counts as stored.
///
/// @code
/// qz::couch::DocumentUploader up(pool, server, "orders", 4);
/// for (auto& doc : docs)
///   up.add(std::move(doc));
/// if (!up.flush(&error)) report(up.failures());
/// @endcode
class HTTPTOOLS_API DocumentUploader {
public:
  /// Writes to `db` of `server` through `pool` (which must outlive the uploader) with `threads` parallel requests; a
  /// batch is sent once it holds `batchDocs` documents or `batchBytes` bytes of JSON.
  DocumentUploader(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                   unsigned threads, size_t batchDocs = 500, size_t batchBytes = 4 << 20);
  ~DocumentUploader(); ///< flushes
  DocumentUploader(const DocumentUploader&) = delete;
  DocumentUploader& operator=(const DocumentUploader&) = delete;

  /// Writes revisions as given (_rev kept, no new revision made), as replication does. Set before add().
  void setNewEdits(bool newEdits);

  /// Queues a document; a full batch is handed to the threads (waiting while they are all busy
  /// and a few batches queue). False for a document that cannot be written as JSON.
  bool add(qzVariantMapImpl doc);
  /// Same with the document as JSON text of an object (not checked).
  bool addJson(std::string json, const std::string& id = {});
  /// Sends what is queued and waits for every batch. True when every document was stored.
  bool flush(std::string* error);

  size_t uploaded() const;                                           ///< documents the server stored so far
  std::vector<std::pair<std::string, std::string>> failures() const; ///< id, reason

  class Private;

private:
  std::unique_ptr<Private> d;
};

} // namespace qz::couch
