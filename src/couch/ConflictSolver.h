#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::couch {

/// Solves conflicted documents: reads every leaf revision (open_revs=all), lets a resolver choose
/// the body to keep, writes it on the current winning revision and, once it is stored, deletes
/// every other leaf. A document another writer changed meanwhile keeps all its leaves and is
/// reported. Running it twice changes nothing the second time.
/// Another thread that sets a cancel flag must store it atomically:
/// std::atomic_ref<bool>(flag).store(true).
class HTTPTOOLS_API ConflictSolver {
public:
  /// Chooses the body to keep; see setResolver.
  using Resolver =
      std::function<bool(const std::string& id, const std::vector<qzVariantMapImpl>& leaves, qzVariantMapImpl& winner)>;

  /// Works on `db` of `server` through `pool`, which must outlive the solver.
  ConflictSolver(qz::http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db);
  ~ConflictSolver();
  ConflictSolver(const ConflictSolver&) = delete;
  ConflictSolver& operator=(const ConflictSolver&) = delete;

  /// Given every live leaf of a conflicted document (each with its _id and _rev), fill `winner`
  /// (on entry: CouchDB's winning revision) with the body to keep and return true; false leaves
  /// the document as it is. Default: keep CouchDB's winning revision.
  void setResolver(Resolver resolver);

  /// One document; true when it has no conflict left or the resolver declined. `solved` (may be
  /// null) is set when a write was made.
  bool solve(const std::string& docId, std::string* error, bool* solved = nullptr);
  /// Every conflicted document of the database; one that fails (the first error is reported) does
  /// not stop the others. A resolver that throws is an error for its document.
  bool solveAll(size_t* solved, std::string* error, const bool* cancel);
  /// Ids of the conflicted documents.
  bool findConflicts(std::vector<std::string>& ids, std::string* error, const bool* cancel);

  class Private;

private:
  std::unique_ptr<Private> d;
};

} // namespace qz::couch
