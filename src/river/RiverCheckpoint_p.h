#pragma once

#include <HttpTools/river/RiverSupport_p.h>

#include <cstdint>
#include <string>

namespace qz::river::detail {

// The persisted part of a river: who holds it, where it writes and how far it got. `seq` is the
// live index's checkpoint; while an index is filled for a new mapping, `buildSeq` is its own.
struct RiverState {
  std::string owner;
  int64_t expires = 0; // ms since the epoch
  std::string index, seq = "0";
  std::string building, buildSeq = "0";
  std::string marker;     // the token of the source database's marker document ("" while unknown)
  bool recreated = false; // `building` is filled because the database was created again

  const std::string& target() const { return building.empty() ? index : building; }
  std::string& targetSeq() { return building.empty() ? seq : buildSeq; }
  const std::string& targetSeq() const { return building.empty() ? seq : buildSeq; }
};

// Where a river is kept: one document, named after the river, in the state index.
struct StateLocation {
  qz::elasticsearch::ElasticConnectionParameters elastic;
  std::string stateIndex, river, alias, database;
};

// Reads and writes the river's document. Every write names the version last read or written
// (if_seq_no / if_primary_term), or creates the document when none was seen, so that a process
// never overwrites what another one wrote in between.
class CheckpointStore {
public:
  CheckpointStore(http::HttpConnectionPool& pool, StateLocation where) : m_pool(pool), m_where(std::move(where)) {}

  // Done with `found` telling whether the document exists, or Failed.
  RiverOutcome read(RiverState& out, bool& found, const bool* cancel);
  // Done, Idle when another process wrote (or created) the document since, or Failed.
  RiverOutcome write(const RiverState& state, const bool* cancel);
  // Whether a version was seen; without one the next write creates the document.
  bool knowsVersion() const { return m_seqNo >= 0; }

  // The state index with its mapping, as no cluster has to create indices on first write.
  RiverOutcome createIndex(const bool* cancel);

private:
  // After a write whose answer was lost: Done when the stored document is `state`, else `failure`.
  RiverOutcome readBack(const RiverState& state, RiverOutcome failure, const bool* cancel);

  http::HttpConnectionPool& m_pool;
  StateLocation m_where;
  bool m_indexCreated = false;
  int64_t m_seqNo = -1, m_primaryTerm = -1; // -1: not seen (the next write creates it)
};

} // namespace qz::river::detail
