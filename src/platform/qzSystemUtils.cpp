#include <HttpTools/platform/qzSystemUtils.h>

#include <HttpTools/platform/qzSystemUtils_p.h>

#include <openssl/rand.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>

namespace qz {

namespace {
std::atomic<impl::ClockHook> gMonoHook{nullptr};
std::atomic<impl::ClockHook> gEpochHook{nullptr};
} // namespace

int64_t qzSystemUtils::GetTimeBaseMs() {
  if (auto h = gMonoHook.load(std::memory_order_acquire))
    return h();
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

int64_t qzSystemUtils::GetTimeBaseSec() { return GetTimeBaseMs() / 1000; }

int64_t qzSystemUtils::GetSecElapsedSinceEpoch() {
  if (auto h = gEpochHook.load(std::memory_order_acquire))
    return h();
  using namespace std::chrono;
  return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

bool qzSystemUtils::Rand(char* buf, size_t len) {
  while (len > 0) {
    int n = len > INT_MAX ? INT_MAX : int(len);
    if (RAND_bytes(reinterpret_cast<unsigned char*>(buf), n) != 1) {
      std::memset(buf, 0, len);
      return false;
    }
    buf += n;
    len -= size_t(n);
  }
  return true;
}

void impl::SetTimeBaseMsHook(ClockHook hook) { gMonoHook.store(hook, std::memory_order_release); }
void impl::SetEpochSecHook(ClockHook hook) { gEpochHook.store(hook, std::memory_order_release); }

} // namespace qz
