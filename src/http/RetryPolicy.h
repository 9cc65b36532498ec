#pragma once

#include <HttpTools/http/CancelToken.h>
#include <HttpTools/http/TransferError.h>
#include <HttpTools/platform/Export.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace qz::http {

/// When and how long to wait before a failed request is tried again. Only transient failures
/// (TransferError::transient) are repeated, after a capped exponential backoff with jitter, or
/// after what a 429 or 503 answer's Retry-After asks, capped. Waits end early when the token is
/// cancelled.
struct HTTPTOOLS_API RetryPolicy {
  unsigned attempts = 6;           ///< attempts in all; 1 = no repetition
  unsigned initialBackoffMs = 100; ///< the first wait before jitter
  unsigned maxBackoffMs = 5000;    ///< the step stops doubling here
  double jitter = 0.5;             ///< the random share of a wait, 0 to 1: 0.5 waits 50 % to 100 % of a step
  bool honourRetryAfter = true;    ///< wait what a 429 or 503 answer's Retry-After asks (up to retryAfterCapMs)
  unsigned retryAfterCapMs = 5000; ///< the longest Retry-After wait accepted
  unsigned totalTimeMs = 0;        ///< no new attempt would start past this, counted from the first; 0 = no bound

  /// A single attempt.
  static RetryPolicy None() { return RetryPolicy{.attempts = 1}; }

  /// The wait before attempt `failures` + 1 after `failures` failures in a row.
  unsigned backoffMs(unsigned failures) const;
  /// The wait after `error`, given the answer's Retry-After value ("" when none); -1 when the
  /// error is not to be repeated, after `failures` failed attempts, `elapsedMs` since the first.
  int64_t nextDelayMs(const TransferError& error, const std::string& retryAfter, unsigned failures,
                      int64_t elapsedMs) const;

  /// A Retry-After value in ms: delta-seconds, or an HTTP date counted from `now` (0 when past);
  /// -1 when it is neither.
  static int64_t RetryAfterMs(const std::string& value, std::time_t now);
};

} // namespace qz::http
