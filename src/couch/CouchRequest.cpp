#include <HttpTools/couch/CouchRequest_p.h>

#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/HttpHelpers.h>
#include <HttpTools/platform/qzJson.h>

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <map>
#include <random>
#include <thread>

namespace qz::couch::detail {

std::string Reply::reason() const {
  qzVariantMapImpl answer;
  if (code != 0 && json::Json2Variant::Convert(body, answer)) {
    auto error = answer.find("error");
    auto why = answer.find("reason");
    if (error != answer.end())
      return error->second.toString() + (why != answer.end() ? ": " + why->second.toString() : std::string());
  }
  if (code != 0)
    return "HTTP " + std::to_string(code);
  return transportError.empty() ? std::string("no answer") : transportError;
}

bool Request(http::HttpConnectionPool& pool, const qz::Url& url, const char* method, const std::string* body,
             Reply& out, const bool* cancel) {
  static const std::list<std::string> headers = {"Accept: application/json"};
  out = Reply();
  http::HttpConnectionLocker conn(pool, url);
  std::map<std::string, std::string> answerHeaders;
  http::HttpHelpers::HttpResult result;
  result.body = &out.body;
  result.headers = &answerHeaders;
  const std::string m(method);
  if (m == "GET")
    http::HttpHelpers::HttpGetJson(*conn, url, out.body, &result, nullptr, &headers, cancel);
  else if (m == "POST")
    http::HttpHelpers::HttpPostJson(*conn, url, body ? body->data() : "", body ? body->size() : 0, 0, &result, nullptr,
                                    &headers, cancel);
  else if (m == "PUT")
    http::HttpHelpers::HttpPutJson(*conn, url, body ? body->data() : "", body ? body->size() : 0, 0, &result, nullptr,
                                   &headers, cancel);
  else
    http::HttpHelpers::HttpDelete(*conn, url, &result, nullptr, &headers, cancel);
  out.code = result.httpCode;
  if (auto retry = answerHeaders.find("retry-after"); retry != answerHeaders.end())
    out.retryAfter = retry->second;
  if (out.code == 0)
    out.transportError = conn->getLastErrorMsg();
  return out.code != 0;
}

bool RequestWithRetry(http::HttpConnectionPool& pool, const qz::Url& url, const char* method, const std::string* body,
                      Reply& out, const bool* cancel, unsigned attempts) {
  for (unsigned attempt = 1;; ++attempt) {
    Request(pool, url, method, body, out, cancel);
    if (!out.transient())
      return true;
    unsigned delay = BackoffMs(attempt, 100, unsigned(kRetryAfterCapMs));
    if (out.code == 429 || out.code == 503)
      if (const int64_t asked = RetryAfterMs(out.retryAfter, std::time(nullptr)); asked >= 0)
        delay = unsigned(std::min(asked, kRetryAfterCapMs));
    if (attempt >= attempts || IsCancelled(cancel) || !SleepUnlessCancelled(delay, cancel))
      return false;
  }
}

unsigned BackoffMs(unsigned failures, unsigned initialMs, unsigned maxMs) {
  thread_local std::mt19937 random{std::random_device{}()};
  uint64_t step = std::max(1u, initialMs);
  for (unsigned i = 1; i < failures && step < maxMs; ++i)
    step *= 2;
  step = std::min<uint64_t>(step, std::max(1u, maxMs));
  std::uniform_int_distribution<uint64_t> jitter(0, step / 2);
  return unsigned(step - step / 2 + jitter(random));
}

bool SleepUnlessCancelled(unsigned ms, const bool* cancel, const std::atomic<bool>* stop) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    if (IsCancelled(cancel) || (stop && stop->load()))
      return false;
    const auto now = std::chrono::steady_clock::now();
    if (now >= end)
      return true;
    std::this_thread::sleep_for(
        std::min<std::chrono::steady_clock::duration>(end - now, std::chrono::milliseconds(20)));
  }
}

int64_t RetryAfterMs(const std::string& value, std::time_t now) {
  const size_t begin = value.find_first_not_of(" \t");
  const size_t end = value.find_last_not_of(" \t\r\n");
  if (begin == std::string::npos)
    return -1;
  const std::string text = value.substr(begin, end + 1 - begin);
  if (std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); })) {
    // Any number of digits: a day's worth is already more than any caller waits.
    const size_t significant = std::min(text.find_first_not_of('0'), text.size());
    if (text.size() - significant > 9)
      return int64_t(999999999) * 1000;
    return std::stoll(text) * 1000;
  }
  const std::time_t date = curl_getdate(text.c_str(), nullptr);
  if (date == -1)
    return -1;
  return date > now ? int64_t(date - now) * 1000 : 0;
}

std::string ToJson(const qzVariantMapImpl& doc) {
  std::string text;
  json::Json2Variant::Convert(doc, text, false);
  return text;
}

std::string JsonString(const std::string& s) {
  std::string text;
  json::Json2Variant::Convert(qzVariant(s), text, false);
  return text;
}

} // namespace qz::couch::detail
