#include <HttpTools/couch/CouchRequest_p.h>

#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzJson_p.h>

namespace qz::couch::detail {

std::string Reply::reason() const {
  qzVariantMapImpl answer;
  if (code != 0 && json::Json2Variant::Convert(body, answer) && answer.count("error"))
    return json::ErrorReasonOf(answer);
  if (code != 0)
    return "HTTP " + std::to_string(code);
  return error.ok() ? std::string("no answer") : error.message();
}

http::TransferError Reply::failure() const {
  if (code == 0 || code == 200)
    return error;
  http::TransferError out;
  out.kind = http::ErrorKind::HttpStatus;
  out.httpStatus = code;
  out.reason = reason();
  return out;
}

http::RetryPolicy CouchRetryPolicy(unsigned attempts) {
  return http::RetryPolicy{
      .attempts = attempts, .initialBackoffMs = 100, .maxBackoffMs = 5000, .retryAfterCapMs = 5000};
}

bool RequestWithRetry(http::HttpConnectionPool& pool, const qz::Url& url, http::Method method, const std::string* body,
                      Reply& out, const bool* cancel, unsigned attempts) {
  std::string room = std::move(out.body); // a caller's earlier answer: its memory takes this one
  room.clear();
  out = Reply();
  http::TransferRequest request;
  request.method = method;
  request.url = url;
  request.headers = {"Accept: application/json"};
  if (body) {
    request.setBodyView(*body);
    request.contentType = "application/json";
  }
  http::StringSink sink;
  sink.body = std::move(room);
  http::TransferOutcome outcome;
  const http::CancelToken token = http::CancelToken::Watching(cancel);
  const bool answered = http::PerformTransfer(pool, request, sink, outcome, CouchRetryPolicy(attempts), &token);
  out.body = std::move(sink.body);
  out.code = answered ? outcome.status : 0;
  out.error = outcome.error;
  if (!answered)
    return false;
  http::TransferError status{.kind = http::ErrorKind::HttpStatus, .httpStatus = out.code};
  return !status.transient();
}

} // namespace qz::couch::detail
