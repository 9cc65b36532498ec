#pragma once

#include <HttpTools/river/RiverCheckpoint_p.h>

#include <string>

namespace qz::river::detail {

// The right to run a river, held by one process at a time: the owner and an expiry time in the
// river's state document, renewed with every checkpoint. A lease not renewed in time may be taken
// over; a holder whose write meets another process's version has lost it.
class RiverLease {
public:
  RiverLease(CheckpointStore& store, std::string owner, unsigned leaseMs)
      : m_store(store), m_owner(std::move(owner)), m_leaseMs(leaseMs) {}

  // Takes the lease when it is free, expired or ours, and loads the state kept with it. Done
  // when held; Idle when another process holds it (holder() names it) or took it first.
  RiverOutcome acquire(RiverState& state, const bool* cancel);
  // Writes `state` as the checkpoint and extends the lease. Idle when the lease was lost.
  RiverOutcome renew(RiverState& state, const bool* cancel);
  // Gives the lease back (best effort: an expired lease frees itself anyway).
  void release(RiverState& state);

  bool held() const { return m_held; }
  // When the lease another process holds expires, as last read (ms since the epoch; 0: unknown).
  int64_t holderExpiresMs() const { return m_holderExpires; }
  const std::string& holder() const { return m_holder; }
  const std::string& owner() const { return m_owner; }
  // A third of the lease time has passed since the last renewal.
  bool renewDue() const;

private:
  CheckpointStore& m_store;
  std::string m_owner, m_holder;
  unsigned m_leaseMs;
  bool m_held = false;
  int64_t m_renewedMs = 0;
  int64_t m_holderExpires = 0;
};

} // namespace qz::river::detail

namespace qz::river::detail {

// The processes that run one set of rivers, each a heartbeat in one document of the state index
// (written with if_seq_no / if_primary_term like the checkpoints). A process whose heartbeat is
// older than the lease time is gone; the live ones, sorted by name, split the rivers evenly.
class ProcessRegistry {
public:
  ProcessRegistry(CheckpointStore& store, http::HttpConnectionPool& pool, StateLocation where, std::string owner,
                  unsigned leaseMs)
      : m_store(store), m_pool(pool), m_where(std::move(where)), m_owner(std::move(owner)), m_leaseMs(leaseMs) {}

  // Renews this process's heartbeat (or, leaving, removes it) and drops expired ones; Done with
  // processes() and rank() updated, or Failed.
  RiverOutcome beat(bool leaving, const bool* cancel);
  unsigned processes() const { return m_processes; }
  unsigned rank() const { return m_rank; }
  // The rivers out of `rivers` that the process of `rank` among `processes` holds: ⌊N/P⌋, one
  // more for the first N mod P.
  static unsigned Share(unsigned rivers, unsigned processes, unsigned rank);

private:
  CheckpointStore& m_store; // creates the state index
  http::HttpConnectionPool& m_pool;
  StateLocation m_where; // `river` names the document
  std::string m_owner;
  unsigned m_leaseMs;
  unsigned m_processes = 1, m_rank = 0;
};

// Paces documents to at most `perSecond` (0: no limit), allowing a burst of a tenth of a second.
class Throttle {
public:
  explicit Throttle(unsigned perSecond) : m_perSecond(perSecond) {}
  // Waits for the next document's turn; false when stopped meanwhile.
  bool take(StopSignal& stop, const bool* cancel);

private:
  unsigned m_perSecond;
  double m_nextMs = 0; // steady clock
};

} // namespace qz::river::detail
