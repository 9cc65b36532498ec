#pragma once

#include <cstdint>

namespace qz::impl {

// Test hooks: replace the monotonic clock (milliseconds) or the wall clock (seconds) that
// qzSystemUtils reads. A null hook restores the system clock.
using ClockHook = int64_t (*)();
void SetTimeBaseMsHook(ClockHook hook);
void SetEpochSecHook(ClockHook hook);

} // namespace qz::impl
