#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/river/RiverCheckpoint_p.h>

#include <cstdint>
#include <string>

namespace qz::river::detail {

/// A non-negative integer seq (PouchDB, CouchDB 1.x), or -1 (CouchDB 2+ seqs are opaque strings).
int64_t IntegerSeq(const std::string& seq);

// Tells a source database deleted and created again since the checkpoint. CouchDB shows no
// reliable sign of it (seqs are opaque, instance_start_time is "0"), so the river keeps a marker
// document `_local/httptools-river-<name>` in the database holding a token that the state
// repeats: a database without the marker, or with another token, is not the one the checkpoint
// was taken from. Where the marker cannot be written, an integer update_seq below the
// checkpoint's is the only sign left; a recreated database that has already gone past the
// checkpoint goes unnoticed then.
class SourceWatch {
public:
  SourceWatch(http::HttpConnectionPool& pool, qz::couch::CouchConnectionParameters couch, std::string database,
              const std::string& river);

  // Done with `recreated` telling; writes the marker (and records its token in `state`) when
  // the river has none yet. Failed (on CouchDB's side) when the marker cannot be read.
  RiverOutcome check(RiverState& state, bool& recreated, const bool* cancel);
  // A new marker for the database as it is now; its token goes into `state`.
  RiverOutcome mark(RiverState& state, const bool* cancel);

private:
  RiverOutcome seqBelowCheckpoint(const RiverState& state, bool& below, const bool* cancel);

  http::HttpConnectionPool& m_pool;
  const qz::couch::CouchConnectionParameters m_couch;
  const std::string m_database, m_markerId;
  bool m_unwritable = false; // the server refused the marker: only the seq can tell
};

} // namespace qz::river::detail
