#include <HttpTools/http/HttpHelpers.h>

#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/http/HttpMultiConnection.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzStringUtils.h>

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qz::http::HttpHelpers {

namespace {

enum Method : int32_t { MethodGet = 1, MethodPut = 2, MethodPost = 3, MethodDelete = 4, MethodHead = 5 };

// One request's state, on the caller's stack for the duration of the call.
struct RequestContext {
  std::map<std::string, std::string>* headersMap = nullptr;
  const std::list<std::string>* extraHeaders = nullptr;
  const char* body = nullptr;
  unsigned long bodySize = 0;
  unsigned long readOffset = 0;
  uint64_t receivedBytes = 0;
  std::string* bodyTarget = nullptr;
  qz::qzIoDevice* outputDevice = nullptr;
  int32_t method = 0;
  bool jsonBody = false;
  const bool* cancel = nullptr;
  HttpConnection::HttpConnectionPrivate* connection = nullptr; // its memo of the handle's request options

  bool cancelled() const { return cancel && *cancel; }
};

const char* const kJsonContentType = "Content-Type:application/json";
const char* const kOctetContentType = "Content-Type:application/octet-stream";

size_t writeCallback(char* data, size_t size, size_t count, void* userData) {
  const size_t n = size * count;
  auto* c = static_cast<RequestContext*>(userData);
  if (!c)
    return n;
  c->receivedBytes += n;
  if (c->bodyTarget)
    c->bodyTarget->append(data, n);
  if (c->outputDevice)
    c->outputDevice->write(data, n);
  return c->cancelled() ? 0 : n;
}

size_t readCallback(char* buffer, size_t size, size_t count, void* userData) {
  auto* c = static_cast<RequestContext*>(userData);
  if (!c)
    return 0;
  const size_t remaining = c->bodySize - std::min<size_t>(c->readOffset, c->bodySize);
  const size_t n = std::min(size * count, remaining);
  if (n)
    std::memcpy(buffer, c->body + c->readOffset, n);
  c->readOffset += static_cast<unsigned long>(n);
  return c->cancelled() ? CURL_READFUNC_ABORT : n;
}

// libcurl asks to rewind the body when it must send it again (redirect, authentication).
int seekCallback(void* userData, curl_off_t offset, int origin) {
  auto* c = static_cast<RequestContext*>(userData);
  if (!c || offset != 0 || origin != SEEK_SET)
    return CURL_SEEKFUNC_CANTSEEK;
  c->readOffset = 0;
  return CURL_SEEKFUNC_OK;
}

int progressCallback(void* userData, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  auto* c = static_cast<RequestContext*>(userData);
  return c && c->cancelled() ? 1 : 0;
}

size_t headerCallback(char* line, size_t size, size_t count, void* userData) {
  const size_t n = size * count;
  auto* c = static_cast<RequestContext*>(userData);
  if (!c || !c->headersMap)
    return n;
  std::string name, value;
  HttpMultiConnection::ParseHttpHeader(line, static_cast<unsigned long>(n), name, value);
  if (!name.empty())
    c->headersMap->emplace(std::move(name), std::move(value)); // keeps the first occurrence
  return n;
}

int setupCallback(void* curl, void* userData, std::list<std::string>& extraHeaders) {
  CURL* h = static_cast<CURL*>(curl);
  auto* c = static_cast<RequestContext*>(userData);
  bool callerContentType = false;
  if (c->extraHeaders) {
    for (const std::string& line : *c->extraHeaders) {
      extraHeaders.push_back(line);
      callerContentType = callerContentType || qzStringUtils::Contains(line, "Content-Type:");
    }
  }
  if (c->jsonBody)
    extraHeaders.push_back(kJsonContentType);
  else if (!callerContentType)
    extraHeaders.push_back(kOctetContentType);

  // The request options below depend only on this; when the handle already holds them (same
  // context, method and body size, nobody else's callback since) they are not set again.
  HttpConnection::HttpConnectionPrivate::RequestSetup wanted;
  wanted.context = c;
  wanted.method = c->method;
  wanted.bodySize = c->bodySize;
  wanted.hasBody = c->body != nullptr;
  wanted.headerCapture = c->headersMap != nullptr;
  if (c->connection && c->connection->requestSetupKnown && c->connection->requestSetup == wanted)
    return 0;
  if (c->connection)
    c->connection->requestSetupKnown = false;

  int rc = 0;
  rc |= curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, writeCallback);
  rc |= curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, progressCallback);
  rc |= curl_easy_setopt(h, CURLOPT_PROGRESSDATA, c);

  // Undo what an earlier call on this handle may have left.
  rc |= curl_easy_setopt(h, CURLOPT_NOPROGRESS, 1L);
  rc |= curl_easy_setopt(h, CURLOPT_NOBODY, 0L);
  rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
  rc |= curl_easy_setopt(h, CURLOPT_POST, 0L);
  rc |= curl_easy_setopt(h, CURLOPT_UPLOAD, 0L);
  rc |= curl_easy_setopt(h, CURLOPT_READFUNCTION, static_cast<curl_read_callback>(nullptr));
  rc |= curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, 0L);
  rc |= curl_easy_setopt(h, CURLOPT_HEADERDATA, static_cast<void*>(nullptr));
  rc |= curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, static_cast<curl_write_callback>(nullptr));
  rc |= curl_easy_setopt(h, CURLOPT_SEEKDATA, c);
  rc |= curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, seekCallback);

  if (c->headersMap) {
    rc |= curl_easy_setopt(h, CURLOPT_HEADERDATA, c);
    rc |= curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, headerCallback);
  }

  switch (c->method) {
  case MethodGet:
    if (c->body && c->bodySize > 0) {
      rc |= curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
      rc |= curl_easy_setopt(h, CURLOPT_READFUNCTION, readCallback);
      rc |= curl_easy_setopt(h, CURLOPT_INFILESIZE, long(c->bodySize));
      rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "GET");
    }
    break;
  case MethodPut:
    rc |= curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
    rc |= curl_easy_setopt(h, CURLOPT_READFUNCTION, readCallback);
    rc |= curl_easy_setopt(h, CURLOPT_INFILESIZE, long(c->bodySize));
    break;
  case MethodPost:
    rc |= curl_easy_setopt(h, CURLOPT_POST, 1L);
    rc |= curl_easy_setopt(h, CURLOPT_READFUNCTION, readCallback);
    rc |= curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, long(c->bodySize));
    break;
  case MethodDelete:
    rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "DELETE");
    break;
  case MethodHead:
    rc |= curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
    rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "HEAD");
    break;
  default:
    return 2;
  }
  if (rc == 0 && c->connection) {
    c->connection->requestSetup = wanted;
    c->connection->requestSetupKnown = true;
  }
  return rc;
}

// Shared tail of every helper: run the call, log a failure nobody else will see.
bool run(HttpConnection& conn, const qz::Url& url, HttpResult* result, const ConnectionParameters* params,
         const std::list<std::string>* headers, const bool* cancel, RequestContext& ctx, unsigned char expectedHttpCode,
         const char* failureText) {
  HttpResult own;
  HttpResult& r = result ? *result : own;
  if (GenericCall(conn, url, r, params, headers, &ctx, expectedHttpCode, cancel))
    return true;
  if (result || r.httpCode == 404 || (cancel && *cancel))
    return false;
  qzLogObject(qzLog::Error, "http") << failureText << conn.getLastErrorMsg();
  return false;
}

} // namespace

} // namespace qz::http::HttpHelpers

namespace qz::http {

bool IsLibrarySetupCallback(HttpConnection::SetupCallback setup) { return setup == HttpHelpers::setupCallback; }

} // namespace qz::http

namespace qz::http::HttpHelpers {

void HttpResult::clearResultAttributes() {
  if (body)
    body->clear();
  if (errorMessage)
    errorMessage->clear();
  httpCode = 0;
  if (headers)
    headers->clear();
}

void HttpResult::setResults(const HttpConnection& conn) {
  httpCode = int32_t(conn.getLastHttpReturnCode());
  if (errorMessage)
    *errorMessage = conn.getLastErrorMsg();
}

bool GenericCall(HttpConnection& conn, const qz::Url& url, HttpResult& result, const ConnectionParameters* params,
                 const std::list<std::string>* headers, void* requestContext, unsigned char expectedHttpCode,
                 const bool* cancel) {
  auto* ctx = static_cast<RequestContext*>(requestContext);
  result.clearResultAttributes();
  ctx->headersMap = result.headers;
  ctx->bodyTarget = result.body;
  ctx->outputDevice = result.outputDevice;
  ctx->extraHeaders = headers;
  ctx->cancel = cancel;
  ctx->receivedBytes = 0;
  ctx->connection = HttpConnectionAccess::of(conn);

  // The call may change the connection's parameters (explicit ones, the resolution fallback):
  // none of that outlives it. Without explicit parameters the fallback's policy is the only
  // field a call can change, so only that one is kept.
  bool ok = false;
  if (params) {
    const ConnectionParameters kept = conn.getConnectionParameters();
    conn.setConnectionParameters(*params);
    ok = conn.getHttpData(url, std::string(), expectedHttpCode, setupCallback, ctx);
    conn.setConnectionParameters(kept);
  } else {
    const HostNameResolutionPolicy keptPolicy = conn.getConnectionParameters().hostNameResolutionPolicy;
    ok = conn.getHttpData(url, std::string(), expectedHttpCode, setupCallback, ctx);
    conn.editConnectionParameters().hostNameResolutionPolicy = keptPolicy;
  }

  result.setResults(conn);
  result.receivedBytes = ctx->receivedBytes;
  return ok;
}

bool HttpHead(HttpConnection& conn, const qz::Url& url, HttpResult* result, const ConnectionParameters* params,
              const std::list<std::string>* headers, const bool* cancel) {
  RequestContext ctx;
  ctx.method = MethodHead;
  return run(conn, url, result, params, headers, cancel, ctx, 200, "Http HEAD error ");
}

bool HttpGet(HttpConnection& conn, const qz::Url& url, HttpResult* result, const ConnectionParameters* params,
             const std::list<std::string>* headers, const bool* cancel) {
  RequestContext ctx;
  ctx.method = MethodGet;
  return run(conn, url, result, params, headers, cancel, ctx, 200, "Http GET error ");
}

bool HttpDelete(HttpConnection& conn, const qz::Url& url, HttpResult* result, const ConnectionParameters* params,
                const std::list<std::string>* headers, const bool* cancel) {
  RequestContext ctx;
  ctx.method = MethodDelete;
  return run(conn, url, result, params, headers, cancel, ctx, 200, "Http DELETE error ");
}

bool HttpGetJson(HttpConnection& conn, const qz::Url& url, std::string& out, HttpResult* result,
                 const ConnectionParameters* params, const std::list<std::string>* headers, const bool* cancel,
                 const char* body, unsigned long bodySize, bool bodyIsJson) {
  RequestContext ctx;
  ctx.method = MethodGet;
  ctx.body = body;
  ctx.bodySize = body ? bodySize : 0;
  ctx.jsonBody = bodyIsJson;
  HttpResult own;
  HttpResult& r = result ? *result : own;
  std::string* callerBody = r.body;
  r.body = &out;
  bool ok = GenericCall(conn, url, r, params, headers, &ctx, 200, cancel);
  r.body = callerBody;
  if (callerBody)
    *callerBody = out;
  if (ok)
    return true;
  if (result || r.httpCode == 404 || (cancel && *cancel))
    return false;
  qzLogObject(qzLog::Error, "http") << "Http GET error " << conn.getLastErrorMsg();
  return false;
}

bool HttpGetJson(HttpConnection& conn, const qz::Url& url, std::string& out, HttpResult* result,
                 const ConnectionParameters* params, const std::list<std::string>* headers, const bool* cancel,
                 const std::string* body, bool bodyIsJson) {
  return HttpGetJson(conn, url, out, result, params, headers, cancel, body ? body->data() : nullptr,
                     body ? static_cast<unsigned long>(body->size()) : 0, bodyIsJson);
}

bool HttpPut(HttpConnection& conn, const qz::Url& url, const std::string& body, unsigned char expectedHttpCode,
             HttpResult* result, const ConnectionParameters* params, const std::list<std::string>* headers,
             const bool* cancel) {
  RequestContext ctx;
  ctx.method = MethodPut;
  ctx.body = body.data();
  ctx.bodySize = static_cast<unsigned long>(body.size());
  return run(conn, url, result, params, headers, cancel, ctx, expectedHttpCode, "Http PUT error ");
}

bool HttpPutJson(HttpConnection& conn, const qz::Url& url, const char* json, unsigned long size,
                 unsigned char expectedHttpCode, HttpResult* result, const ConnectionParameters* params,
                 const std::list<std::string>* headers, const bool* cancel) {
  RequestContext ctx;
  ctx.method = MethodPut;
  ctx.body = json;
  ctx.bodySize = json ? size : 0;
  ctx.jsonBody = true;
  return run(conn, url, result, params, headers, cancel, ctx, expectedHttpCode, "Http PUT error ");
}

template <>
bool HttpPutJson<qz::qzVariantMapImpl>(HttpConnection& conn, const qz::Url& url, const qz::qzVariantMapImpl& doc,
                                       unsigned char expectedHttpCode, HttpResult* result,
                                       const ConnectionParameters* params, const std::list<std::string>* headers,
                                       const bool* cancel) {
  std::string text;
  if (!qz::json::Json2Variant::Convert(doc, text, false))
    return false;
  return HttpPutJson(conn, url, text.data(), static_cast<unsigned long>(text.size()), expectedHttpCode, result, params,
                     headers, cancel);
}

bool HttpPost(const char* data, unsigned long size, HttpConnection& conn, const qz::Url& url,
              unsigned char expectedHttpCode, HttpResult* result, const ConnectionParameters* params,
              const std::list<std::string>* headers, const bool* cancel) {
  RequestContext ctx;
  ctx.method = MethodPost;
  ctx.body = data;
  ctx.bodySize = data ? size : 0;
  return run(conn, url, result, params, headers, cancel, ctx, expectedHttpCode, "Http POST error ");
}

bool HttpPost(HttpConnection& conn, const qz::Url& url, const std::string& body, unsigned char expectedHttpCode,
              HttpResult* result, const ConnectionParameters* params, const std::list<std::string>* headers,
              const bool* cancel) {
  return HttpPost(body.data(), static_cast<unsigned long>(body.size()), conn, url, expectedHttpCode, result, params,
                  headers, cancel);
}

bool HttpPostJson(HttpConnection& conn, const qz::Url& url, const char* json, unsigned long size,
                  unsigned char expectedHttpCode, HttpResult* result, const ConnectionParameters* params,
                  const std::list<std::string>* headers, const bool* cancel) {
  RequestContext ctx;
  ctx.method = MethodPost;
  ctx.body = json;
  ctx.bodySize = json ? size : 0;
  ctx.jsonBody = true;
  return run(conn, url, result, params, headers, cancel, ctx, expectedHttpCode, "Http POST error ");
}

} // namespace qz::http::HttpHelpers
