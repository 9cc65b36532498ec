#pragma once

// Shared by the HTTP suite: the library is initialised for the whole run, and a fake clock can
// replace the monotonic time base.

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <atomic>
#include <cstdint>

namespace httptest {

// Monotonic time seen by the library while a FakeClock lives.
class FakeClock {
public:
  explicit FakeClock(int64_t startMs = 1000000) {
    now() = startMs;
    qz::qzSystemUtils::SetTimeBaseMsHook([] { return now().load(); });
  }
  ~FakeClock() { qz::qzSystemUtils::SetTimeBaseMsHook(nullptr); }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;
  void advance(int64_t ms) { now() += ms; }

  static std::atomic<int64_t>& now() {
    static std::atomic<int64_t> value{0};
    return value;
  }
};

} // namespace httptest
