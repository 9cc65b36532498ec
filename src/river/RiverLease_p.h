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
};

} // namespace qz::river::detail
