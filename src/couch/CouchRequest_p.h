#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/platform/qzVariant.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::couch::detail {

// Outcome of one request to CouchDB.
struct Reply {
  long code = 0; // 0: no HTTP answer (transport failure or cancel)
  std::string body;
  std::string transportError;
  std::string retryAfter; // the answer's Retry-After header, if any

  // Connection lost, 408, 429 or 5xx: worth repeating.
  bool transient() const { return code == 0 || code == 408 || code == 429 || code >= 500; }
  // "error: reason" from CouchDB's error body, else the status or the transport's message.
  std::string reason() const;
};

// One request with Accept: application/json through a connection borrowed from `pool`; `body`
// (may be null) is sent as JSON. True when an HTTP answer came back, whatever its status.
bool Request(qz::http::HttpConnectionPool& pool, const qz::Url& url, const char* method, const std::string* body,
             Reply& out, const bool* cancel);

// Request repeated while the answer is transient, after backoff delays (up to `attempts` in all);
// a 429 or 503 with Retry-After waits what it asks instead, up to kRetryAfterCapMs. True when a
// non-transient answer came back.
constexpr int64_t kRetryAfterCapMs = 5000;
bool RequestWithRetry(qz::http::HttpConnectionPool& pool, const qz::Url& url, const char* method,
                      const std::string* body, Reply& out, const bool* cancel, unsigned attempts = 6);

// Delay before the `failures`-th retry in a row: half the capped exponential step plus a random
// part up to the other half, so that many clients do not come back in step.
unsigned BackoffMs(unsigned failures, unsigned initialMs, unsigned maxMs);

// Sleeps `ms`, returning early (false) when *cancel or *stop becomes true (either may be null).
bool SleepUnlessCancelled(unsigned ms, const bool* cancel, const std::atomic<bool>* stop = nullptr);

// Another thread may set the flag: it is read atomically (writers use std::atomic_ref<bool>).
inline bool IsCancelled(const bool* cancel) {
  return cancel && std::atomic_ref<bool>(const_cast<bool&>(*cancel)).load(std::memory_order_relaxed);
}

// The wait a Retry-After header value asks for, in ms: delta-seconds, or an HTTP date counted
// from `now` (0 once it is past). -1 when the value is neither.
int64_t RetryAfterMs(const std::string& value, std::time_t now);

std::string ToJson(const qzVariantMapImpl& doc);
std::string JsonString(const std::string& s); // quoted and escaped

} // namespace qz::couch::detail
