#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/http/CancelToken.h>
#include <HttpTools/http/Transfer.h>
#include <HttpTools/platform/qzVariant.h>

#include <string>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::couch::detail {

// Outcome of one request to CouchDB.
struct Reply {
  long code = 0; // 0: no HTTP answer (transport failure or cancel)
  std::string body;
  http::TransferError error; // the transport's failure when code is 0

  // "error: reason" from CouchDB's error body, else the status or the transport's message.
  std::string reason() const;
  // The failure as values: the transport's, or an answer with another status than 200.
  http::TransferError failure() const;
};

// The one CouchDB service call: `method` to `url` with Accept: application/json, `body` (may be
// null) sent as JSON, through connections borrowed from `pool`, repeated on transient failures
// and answers (up to `attempts` in all, Retry-After honoured up to 5 s). True when a
// non-transient answer came back, whatever its status.
bool RequestWithRetry(qz::http::HttpConnectionPool& pool, const qz::Url& url, http::Method method,
                      const std::string* body, Reply& out, const bool* cancel, unsigned attempts = 6);

// The policy of RequestWithRetry for `attempts` attempts.
http::RetryPolicy CouchRetryPolicy(unsigned attempts);

} // namespace qz::couch::detail
