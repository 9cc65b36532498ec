#include <HttpTools/river/RiverSupport_p.h>

#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/RetryPolicy.h>
#include <HttpTools/platform/qzJson.h>

#include <algorithm>
#include <chrono>

namespace qz::river::detail {

void StopSignal::stop() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping.store(true);
  }
  m_wake.notify_all();
}

bool StopSignal::stopped(const bool* cancel) const {
  return m_stopping.load() ||
         (cancel && std::atomic_ref<bool>(const_cast<bool&>(*cancel)).load(std::memory_order_relaxed));
}

bool StopSignal::pause(unsigned ms, const bool* cancel) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!stopped(cancel) && std::chrono::steady_clock::now() < until)
    m_wake.wait_until(lock, std::min(until, std::chrono::steady_clock::now() + std::chrono::milliseconds(50)));
  return !stopped(cancel);
}

unsigned StopSignal::BackoffMs(unsigned failures) { return http::RetryPolicy().backoffMs(failures + 1); }

qz::elasticsearch::ElasticResponse CallElastic(http::HttpConnectionPool& pool, const char* method,
                                               const qz::elasticsearch::ElasticConnectionParameters& url,
                                               const std::string* body, const bool* cancel, const char* contentType) {
  qz::elasticsearch::ElasticResponse out;
  http::HttpConnectionLocker conn(pool, url);
  qz::elasticsearch::ElasticCall(*conn, method, url, body, contentType, out, nullptr, cancel);
  return out;
}

bool TransientStatus(long status) {
  return status == 0 || status == 429 || status == 502 || status == 503 || status == 504;
}

RiverOutcome ElasticFailure(const std::string& what, const qz::elasticsearch::ElasticResponse& response) {
  const std::string why = response.status == 0 ? "Elasticsearch unreachable: " + response.transportError
                                               : qz::elasticsearch::ErrorText(response);
  return RiverOutcome::Failure(Side::Elastic, !TransientStatus(response.status), what + ": " + why);
}

std::string ElasticErrorType(const qz::elasticsearch::ElasticResponse& response) {
  qzVariantMapImpl answer;
  if (!qz::json::Json2Variant::Convert(response.body, answer) || !answer["error"].isMap())
    return {};
  return answer["error"].asMap()["type"].toString();
}

std::string JsonText(const qzVariant& value) {
  std::string s;
  qz::json::Json2Variant::Convert(value, s, false);
  return s;
}

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int64_t SteadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

} // namespace qz::river::detail
