#pragma once

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/elasticsearch/ElasticRequest_p.h>
#include <HttpTools/platform/qzVariant.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::river::detail {

// The field of each indexed document that holds the CouchDB revision it was made from.
inline constexpr const char* kRevField = "httptools_rev";

// The server a failure came from.
enum class Side : uint8_t { Couch, Elastic };

// What came of a part's work: done; nothing done (stopped, cancelled, the lease lost or held
// elsewhere, the state written by another process); or failed on one side, for now (transient:
// worth trying again) or for good.
struct RiverOutcome {
  enum class Kind : uint8_t { Done, Idle, Failed };
  Kind kind = Kind::Done;
  Side side = Side::Elastic;
  bool permanent = false;
  std::string message;

  static RiverOutcome Done() { return {}; }
  static RiverOutcome Idle(std::string why = {}) { return {Kind::Idle, Side::Elastic, false, std::move(why)}; }
  static RiverOutcome Failure(Side side, bool permanent, std::string message) {
    return {Kind::Failed, side, permanent, std::move(message)};
  }
  bool ok() const { return kind == Kind::Done; }
  bool idle() const { return kind == Kind::Idle; }
  bool failed() const { return kind == Kind::Failed; }
};

// The manager's stop flag beside a caller's cancel flag (set from another thread through
// std::atomic_ref<bool>), with waits that either of them ends.
class StopSignal {
public:
  void stop();
  void reset() { m_stopping.store(false); }
  bool stopped(const bool* cancel) const;
  // The flag stop() sets, for waits that poll one (the manager turns a cancel into a stop).
  const std::atomic<bool>* flag() const { return &m_stopping; }
  // Sleeps up to `ms`; false when stopped meanwhile. stop() wakes it at once, the cancel flag
  // (not signalled) within 50 ms.
  bool pause(unsigned ms, const bool* cancel);
  // The pause before the `failures`-th retry in a row: RetryPolicy's default backoff (100 ms
  // doubling up to 5 s, half of it random), one step further.
  static unsigned BackoffMs(unsigned failures);

private:
  std::atomic<bool> m_stopping{false};
  std::mutex m_mutex;
  std::condition_variable m_wake;
};

// One Elasticsearch request through the pool; any status is an answer (0: none arrived).
qz::elasticsearch::ElasticResponse CallElastic(http::HttpConnectionPool& pool, const char* method,
                                               const qz::elasticsearch::ElasticConnectionParameters& url,
                                               const std::string* body, const bool* cancel,
                                               const char* contentType = "application/json");
// No answer, 429, 502, 503 and 504 go away by trying again; other statuses do not.
bool TransientStatus(long status);
// A failure of `what` from its answer, transient or permanent by the status.
RiverOutcome ElasticFailure(const std::string& what, const qz::elasticsearch::ElasticResponse& response);
// The `error.type` of an error answer ("" when it has none).
std::string ElasticErrorType(const qz::elasticsearch::ElasticResponse& response);

std::string JsonText(const qzVariant& value);
int64_t NowMs();    // wall clock: lease expiry times are compared across processes
int64_t SteadyMs(); // monotonic: durations within this process

} // namespace qz::river::detail
