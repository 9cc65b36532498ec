#include <HttpTools/http/RetryPolicy.h>

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <random>

namespace qz::http {

unsigned RetryPolicy::backoffMs(unsigned failures) const {
  thread_local std::mt19937 random{std::random_device{}()};
  const uint64_t cap = std::max(1u, maxBackoffMs);
  uint64_t step = std::max(1u, initialBackoffMs);
  for (unsigned i = 1; i < failures && step < cap; ++i)
    step *= 2;
  step = std::min(step, cap);
  const auto randomPart = uint64_t(double(step) * std::clamp(jitter, 0.0, 1.0));
  std::uniform_int_distribution<uint64_t> spread(0, randomPart);
  return unsigned(step - randomPart + spread(random));
}

int64_t RetryPolicy::nextDelayMs(const TransferError& error, const std::string& retryAfter, unsigned failures,
                                 int64_t elapsedMs) const {
  if (!error.transient() || failures >= attempts)
    return -1;
  int64_t delay = backoffMs(failures);
  if (honourRetryAfter && (error.httpStatus == 429 || error.httpStatus == 503))
    if (const int64_t asked = RetryAfterMs(retryAfter, std::time(nullptr)); asked >= 0)
      delay = std::min<int64_t>(asked, retryAfterCapMs);
  if (totalTimeMs > 0 && elapsedMs + delay > int64_t(totalTimeMs))
    return -1;
  return delay;
}

int64_t RetryPolicy::RetryAfterMs(const std::string& value, std::time_t now) {
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

} // namespace qz::http
