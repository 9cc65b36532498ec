// The request side of the transfer layer: the only code that sets per-request libcurl options.

#include <HttpTools/http/Transfer_p.h>

#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <exception>

namespace qz::http::transfer_impl {

namespace {

// One call's state, on the caller's stack; libcurl's callbacks get it as their data.
struct Context {
  Context(const RequestSpec& r, ResponseSink& s, TransferOutcome& o, const CancelToken* t)
      : request(r), sink(s), out(o), token(t) {}
  const RequestSpec& request;
  ResponseSink& sink;
  TransferOutcome& out;
  const CancelToken* token;
  uint64_t maxBodyBytes = 0;
  long defaultTimeoutMs = 0;
  size_t readOffset = 0;
  int64_t lastDataMs = 0;
  bool gotData = false;
  bool details = true;
  bool headers = true;
  enum class Stop { None, Cancelled, Sink, Limit, Exception, Idle } stop = Stop::None;
  std::string stopText;
  ErrorKind stopKind = ErrorKind::None;
  HttpConnection::HttpConnectionPrivate* conn = nullptr;

  bool cancelled() const { return token && token->isCancelled(); }
  void arrived() {
    if (request.idleTimeoutMs > 0)
      lastDataMs = qzSystemUtils::GetTimeBaseMs();
    gotData = true;
  }
  void caught(const char* where) {
    stop = Stop::Exception;
    stopKind = ErrorKind::LocalIo;
    try {
      throw;
    } catch (const std::exception& e) {
      stopText = std::string("Exception while ") + where + ": " + e.what();
    } catch (...) {
      stopText = std::string("Exception while ") + where;
    }
  }
};

std::string_view withoutLineEnd(std::string_view line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
    line.remove_suffix(1);
  return line;
}

size_t onBody(char* data, size_t size, size_t count, void* userData) {
  auto* c = static_cast<Context*>(userData);
  const size_t n = size * count;
  c->arrived();
  try {
    c->out.bytesDown += n;
    if (c->maxBodyBytes && c->out.bytesDown > c->maxBodyBytes) {
      c->stop = Context::Stop::Limit;
      return 0;
    }
    if (!c->sink.onBody(data, n)) {
      const TransferError why = c->sink.failure();
      c->stop = Context::Stop::Sink;
      c->stopKind = why.kind;
      c->stopText = why.context;
      return 0;
    }
  } catch (...) {
    c->caught("receiving the body");
    return 0;
  }
  if (c->cancelled()) {
    c->stop = Context::Stop::Cancelled;
    return 0;
  }
  return n;
}

size_t onHeader(char* data, size_t size, size_t count, void* userData) {
  auto* c = static_cast<Context*>(userData);
  const size_t n = size * count;
  c->arrived();
  try {
    const std::string_view line(data, n);
    if (line.starts_with("HTTP/")) {
      // Every answer starts over: interim ones (100 Continue) and redirects come first.
      long status = 0;
      size_t at = line.find(' ');
      while (at != std::string_view::npos && ++at < line.size() && line[at] >= '0' && line[at] <= '9')
        status = status * 10 + (line[at] - '0');
      if (c->details) {
        c->out.statusLine.assign(withoutLineEnd(line));
        c->out.headerLines.clear();
      }
      c->sink.onStatus(status, line);
    } else {
      if (const std::string_view text = withoutLineEnd(line); c->details && !text.empty())
        c->out.headerLines.emplace_back(text);
      c->sink.onHeader(line);
    }
  } catch (...) {
    c->caught("reading the response headers");
    return 0;
  }
  return n;
}

size_t onRead(char* buffer, size_t size, size_t count, void* userData) {
  auto* c = static_cast<Context*>(userData);
  if (c->cancelled()) {
    c->stop = Context::Stop::Cancelled;
    return CURL_READFUNC_ABORT;
  }
  const RequestBody& body = c->request.body;
  if (body.kind == RequestBody::Kind::Reader) {
    try {
      return body.read ? body.read(buffer, size * count) : 0;
    } catch (...) {
      c->caught("reading the request body");
      return CURL_READFUNC_ABORT;
    }
  }
  const std::string_view bytes = body.kind == RequestBody::Kind::Bytes ? std::string_view(body.bytes) : body.view;
  const size_t n = std::min(size * count, bytes.size() - std::min(c->readOffset, bytes.size()));
  if (n)
    std::memcpy(buffer, bytes.data() + c->readOffset, n);
  c->readOffset += n;
  return n;
}

// libcurl rewinds the body when it must send it again (redirect, authentication).
int onSeek(void* userData, curl_off_t offset, int origin) {
  auto* c = static_cast<Context*>(userData);
  const RequestBody& body = c->request.body;
  if (origin != SEEK_SET || offset < 0)
    return CURL_SEEKFUNC_CANTSEEK;
  if (body.kind == RequestBody::Kind::Reader) {
    try {
      return offset == 0 && body.rewind && body.rewind() ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_CANTSEEK;
    } catch (...) {
      return CURL_SEEKFUNC_FAIL;
    }
  }
  if (size_t(offset) > body.knownSize())
    return CURL_SEEKFUNC_CANTSEEK;
  c->readOffset = size_t(offset);
  return CURL_SEEKFUNC_OK;
}

// The idle watch, looked at while the transfer waits.
bool idleTooLong(void* userData) {
  auto* c = static_cast<Context*>(userData);
  const long limit = c->gotData ? c->request.idleTimeoutMs : std::max(c->request.idleTimeoutMs, 10000L);
  if (qzSystemUtils::GetTimeBaseMs() - c->lastDataMs <= limit)
    return false;
  c->stop = Context::Stop::Idle;
  return true;
}

// Options a call installs beyond the connection's differ by this value: the connection resets
// its handle when it changes, so nothing of an earlier request's kind survives.
unsigned long shapeOf(const RequestSpec& r, bool headers) {
  return (headers ? 0x1800u : 0x1000u) | unsigned(r.method) | (unsigned(r.body.kind) << 4) |
         (r.customMethod.empty() ? 0u : 0x100u) |
         (r.body.kind == RequestBody::Kind::Reader && r.body.size < 0 ? 0x200u : 0u) | (r.streaming ? 0x400u : 0u);
}

int install(void* curl, void* userData, std::list<std::string>& headers) {
  CURL* h = static_cast<CURL*>(curl);
  auto* c = static_cast<Context*>(userData);
  const RequestSpec& r = c->request;
  if (!r.contentType.empty()) // r.headers go out through the connection's hooks, not copied here
    headers.push_back("Content-Type: " + r.contentType);
  const bool sendsBody = r.hasBody() || r.method == Method::Post || r.method == Method::Put;
  if (sendsBody)
    headers.emplace_back("Expect:"); // the body goes at once, not after a wait for 100 Continue

  // The same shape on a handle not reset since: the callbacks and the progress switch are still set.
  auto& state = c->conn->state;
  const bool fresh = !state.transferOptions;
  const long timeoutMs = r.timeoutMs > 0 || r.streaming ? r.timeoutMs : c->defaultTimeoutMs;
  int rc = 0;
  if (fresh) {
    rc |= curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &onBody);
    rc |= curl_easy_setopt(h, CURLOPT_NOPROGRESS, 1L); // cancellation: data callbacks and the token's wake-up
    if (c->details || c->headers)
      rc |= curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &onHeader);
  }
  if (c->details || c->headers)
    rc |= curl_easy_setopt(h, CURLOPT_HEADERDATA, c);
  if (fresh || state.transferTimeoutMs != timeoutMs)
    rc |= curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeoutMs);
  if (r.streaming) { // the shape tells, so the connection's values return with the next other request
    rc |= curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 0L);
    rc |= curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, 0L);
  }
  const curl_off_t size = r.body.kind == RequestBody::Kind::Reader && r.body.size < 0 ? -1 : r.body.knownSize();
  if (sendsBody) {
    rc |= curl_easy_setopt(h, CURLOPT_READFUNCTION, &onRead);
    rc |= curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, &onSeek);
    rc |= curl_easy_setopt(h, CURLOPT_SEEKDATA, c);
  }
  if (r.method == Method::Head) {
    rc |= curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
    rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "HEAD");
  } else if (r.method == Method::Post) {
    rc |= curl_easy_setopt(h, CURLOPT_POST, 1L);
    rc |= curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, size);
  } else if (sendsBody) {
    rc |= curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
    rc |= curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, size);
    if (r.method != Method::Put)
      rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, MethodName(r.method));
  } else if (r.method != Method::Get) {
    rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, MethodName(r.method));
  }
  if (!r.customMethod.empty())
    rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, r.customMethod.c_str());
  state.transferOptions = rc == 0;
  state.transferTimeoutMs = timeoutMs;
  return rc;
}

// Runs right after the transfer, while the handle still exists.
void collect(CURL* h, void* userData) {
  TransferOutcome& out = static_cast<Context*>(userData)->out;
  out.status = static_cast<Context*>(userData)->conn->lastHttpReturnCode; // read by the connection just before
  if (!static_cast<Context*>(userData)->details)
    return;
  char* text = nullptr;
  if (curl_easy_getinfo(h, CURLINFO_EFFECTIVE_URL, &text) == CURLE_OK && text)
    out.effectiveUrl = text;
  text = nullptr;
  if (curl_easy_getinfo(h, CURLINFO_CONTENT_TYPE, &text) == CURLE_OK && text)
    out.contentType = text;
  auto time = [h](CURLINFO what) {
    curl_off_t us = 0;
    curl_easy_getinfo(h, what, &us);
    return int64_t(us);
  };
  out.timings.nameLookupUs = time(CURLINFO_NAMELOOKUP_TIME_T);
  out.timings.connectUs = time(CURLINFO_CONNECT_TIME_T);
  out.timings.tlsUs = time(CURLINFO_APPCONNECT_TIME_T);
  out.timings.firstByteUs = time(CURLINFO_STARTTRANSFER_TIME_T);
  out.timings.totalUs = time(CURLINFO_TOTAL_TIME_T);
  curl_off_t up = 0;
  curl_easy_getinfo(h, CURLINFO_SIZE_UPLOAD_T, &up);
  out.bytesUp = uint64_t(up);
  curl_easy_getinfo(h, CURLINFO_REDIRECT_COUNT, &out.redirectCount);
}

} // namespace

bool Perform(HttpConnection& connection, const qz::Url& url, const RequestSpec& request, ResponseSink& sink,
             TransferOutcome& outcome, const CancelToken* cancel, unsigned parts) {
  outcome = TransferOutcome();
  HttpConnection::HttpConnectionPrivate& d = HttpConnectionAccess::Of(connection);
  Context c(request, sink, outcome, cancel);
  c.maxBodyBytes = d.parameters.maxBodyBytes;
  c.defaultTimeoutMs = std::max(0L, d.parameters.totalTimeoutMs);
  const auto& wanted = request.successStatuses;

  // The resolution fallback of getHttpData lasts for the designed calls only.
  const HostNameResolutionPolicy keptPolicy = d.parameters.hostNameResolutionPolicy;
  c.conn = &d;
  c.details = parts & Details;
  c.headers = parts & HeaderLines;
  if (request.idleTimeoutMs > 0)
    c.lastDataMs = qzSystemUtils::GetTimeBaseMs();
  d.hooks = {cancel, request.idleTimeoutMs > 0 ? &idleTooLong : nullptr, &collect, &c, &request.headers};
  bool ok = false;
  try {
    ok = connection.getHttpData(url, std::string(), wanted.size() == 1 ? wanted.front() : 0, &install, &c,
                                shapeOf(request, c.details || c.headers));
  } catch (...) {
    d.hooks = {};
    d.parameters.hostNameResolutionPolicy = keptPolicy;
    throw;
  }
  d.hooks = {};
  d.parameters.hostNameResolutionPolicy = keptPolicy;

  if (!ok) {
    switch (c.stop) {
    case Context::Stop::Cancelled:
      d.lastErrorKind = ErrorKind::Cancelled;
      break;
    case Context::Stop::Idle:
      d.lastErrorKind = ErrorKind::Timeout;
      connection.addErrorDetail("No data for " + std::to_string(request.idleTimeoutMs) + " ms");
      break;
    case Context::Stop::Limit:
      d.lastErrorKind = ErrorKind::BodyTooLarge;
      connection.addErrorDetail(BodyLimitMessage(static_cast<long long>(c.maxBodyBytes)));
      break;
    case Context::Stop::Sink:
    case Context::Stop::Exception:
      d.lastErrorKind = c.stopKind;
      if (!c.stopText.empty())
        connection.addErrorDetail(c.stopText);
      break;
    case Context::Stop::None:
      if (c.cancelled() && d.lastCurlCode != CURLE_OK)
        d.lastErrorKind = ErrorKind::Cancelled;
      break;
    }
  } else if (wanted.size() > 1 && std::find(wanted.begin(), wanted.end(), outcome.status) == wanted.end()) {
    std::string expected;
    for (long s : wanted)
      expected += (expected.empty() ? "" : " or ") + std::to_string(s);
    d.fail(ErrorKind::HttpStatus, "bad html response code, got " + std::to_string(outcome.status) + ", expect " +
                                      expected + " " + url.toDisplayableUrl());
    ok = false;
  }
  if (outcome.status == 0)
    outcome.status = connection.getLastHttpReturnCode();
  if (!ok)
    outcome.error = connection.getLastError();
  return ok;
}

} // namespace qz::http::transfer_impl
