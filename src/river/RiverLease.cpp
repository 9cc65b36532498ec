#include <HttpTools/river/RiverLease_p.h>

namespace qz::river::detail {

RiverOutcome RiverLease::acquire(RiverState& state, const bool* cancel) {
  RiverState current;
  bool found = false;
  if (auto read = m_store.read(current, found, cancel); !read.ok())
    return read;
  if (found && !current.owner.empty() && current.owner != m_owner && current.expires > NowMs()) {
    m_holder = current.owner;
    return RiverOutcome::Idle("waiting for the lease held by " + current.owner);
  }
  state = found ? current : RiverState();
  auto taken = renew(state, cancel);
  if (taken.idle())
    m_holder.clear(); // taken by another process meanwhile: the next read names it
  return taken;
}

RiverOutcome RiverLease::renew(RiverState& state, const bool* cancel) {
  state.owner = m_owner;
  state.expires = NowMs() + int64_t(m_leaseMs);
  auto written = m_store.write(state, cancel);
  m_held = written.ok() || (written.failed() && m_held);
  if (written.ok()) {
    m_holder = m_owner;
    m_renewedMs = SteadyMs();
  } else if (written.idle()) {
    written.message = "the lease was taken over by another process";
  }
  return written;
}

void RiverLease::release(RiverState& state) {
  if (!m_held)
    return;
  m_held = false;
  state.owner.clear();
  state.expires = 0;
  m_store.write(state, nullptr);
}

bool RiverLease::renewDue() const { return SteadyMs() - m_renewedMs > int64_t(m_leaseMs) / 3; }

} // namespace qz::river::detail
