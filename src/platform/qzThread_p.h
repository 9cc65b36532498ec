#pragma once

#include <functional>

namespace qz::impl {

// Runs work(0) .. work(n - 1) at the same time: work(0) on the calling thread, the others on new
// threads. Returns once every call has returned. A share whose thread cannot be started runs on
// the calling thread after work(0).
void RunOnThreads(unsigned n, const std::function<void(unsigned)>& work);

} // namespace qz::impl
