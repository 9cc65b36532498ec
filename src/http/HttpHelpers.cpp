#include <HttpTools/http/HttpHelpers.h>

#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/http/HttpMultiConnection.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzStringUtils.h>

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <memory>
#include <typeinfo>

namespace qz::http::HttpHelpers {

namespace {

enum Method : int32_t { MethodGet = 1, MethodPut = 2, MethodPost = 3, MethodDelete = 4, MethodHead = 5 };

// One request's state, on the caller's stack for the duration of the call.
struct RequestContext {
  std::map<std::string, std::string>* headersMap = nullptr;
  const std::list<std::string>* extraHeaders = nullptr;
  BodyReader body;
  uint64_t receivedBytes = 0;
  std::string* bodyTarget = nullptr;
  qz::qzIoDevice* outputDevice = nullptr;
  int32_t method = 0;
  bool jsonBody = false;
  const bool* cancel = nullptr;
  uint64_t maxBodyBytes = 0; // 0: no limit
  std::string failure;       // why a callback stopped the transfer

  bool cancelled() const { return cancel && *cancel; }
  // The set of options setupCallback installs: the connection resets its handle when it changes.
  unsigned long shape() const {
    return unsigned(method) | (body.data ? 0x10u : 0u) | (body.size ? 0x20u : 0u) | (headersMap ? 0x40u : 0u);
  }
};

const char* const kJsonContentType = "Content-Type:application/json";
const char* const kOctetContentType = "Content-Type:application/octet-stream";

std::string deviceName(const qz::qzIoDevice& device) {
  const char* mangled = typeid(device).name();
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> readable(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                       &std::free);
  return status == 0 && readable ? readable.get() : mangled;
}

void failWithException(RequestContext* c, const char* where) {
  try {
    throw;
  } catch (const std::exception& e) {
    c->failure = std::string("Exception while ") + where + ": " + e.what();
  } catch (...) {
    c->failure = std::string("Exception while ") + where;
  }
}

// Any count other than n aborts the transfer; libcurl's own frames never see an exception.
size_t writeCallback(char* data, size_t size, size_t count, void* userData) {
  const size_t n = size * count;
  auto* c = static_cast<RequestContext*>(userData);
  try {
    c->receivedBytes += n;
    if (c->maxBodyBytes && c->receivedBytes > c->maxBodyBytes) {
      c->failure = BodyLimitMessage(static_cast<long long>(c->maxBodyBytes));
      return 0;
    }
    if (c->bodyTarget)
      c->bodyTarget->append(data, n);
    if (c->outputDevice) {
      c->outputDevice->write(data, static_cast<unsigned long>(n));
      if (c->outputDevice->hasError()) {
        c->failure = "Output device " + deviceName(*c->outputDevice) + " failed after " +
                     std::to_string(c->receivedBytes) + " bytes";
        return 0;
      }
    }
  } catch (...) {
    failWithException(c, "receiving the body");
    return 0;
  }
  return c->cancelled() ? 0 : n;
}

int progressCallback(void* userData, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<RequestContext*>(userData)->cancelled() ? 1 : 0;
}

size_t headerCallback(char* line, size_t size, size_t count, void* userData) {
  const size_t n = size * count;
  auto* c = static_cast<RequestContext*>(userData);
  try {
    std::string name, value;
    HttpMultiConnection::ParseHttpHeader(line, static_cast<unsigned long>(n), name, value);
    if (!name.empty())
      c->headersMap->emplace(std::move(name), std::move(value)); // keeps the first occurrence
  } catch (...) {
    failWithException(c, "reading the response headers");
    return 0;
  }
  return n;
}

// Installs the options of the context's shape on a handle that holds nothing else of an
// earlier request (the connection resets it when the shape changes).
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

  int rc = 0;
  rc |= curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, writeCallback);
  rc |= curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, progressCallback);
  rc |= curl_easy_setopt(h, CURLOPT_NOPROGRESS, 1L); // cancellation works through the data callbacks
  if (c->headersMap) {
    rc |= curl_easy_setopt(h, CURLOPT_HEADERDATA, c);
    rc |= curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, headerCallback);
  }
  const curl_off_t size = curl_off_t(c->body.size);
  switch (c->method) {
  case MethodGet:
    if (c->body.data && c->body.size > 0) {
      rc |= curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
      rc |= c->body.install(h);
      rc |= curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, size);
      rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "GET");
    }
    break;
  case MethodPut:
    rc |= curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
    rc |= c->body.install(h);
    rc |= curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, size);
    break;
  case MethodPost:
    rc |= curl_easy_setopt(h, CURLOPT_POST, 1L);
    rc |= c->body.install(h);
    rc |= curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, size);
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
  ctx->body.cancel = cancel;
  ctx->body.offset = 0;
  ctx->receivedBytes = 0;
  ctx->failure.clear();
  ctx->maxBodyBytes = (params ? *params : conn.getConnectionParameters()).maxBodyBytes;

  // The call may change the connection's parameters (explicit ones, the resolution fallback):
  // none of that outlives it. Without explicit parameters the fallback's policy is the only
  // field a call can change, so only that one is kept.
  bool ok = false;
  if (params) {
    const ConnectionParameters kept = conn.getConnectionParameters();
    conn.setConnectionParameters(*params);
    ok = conn.getHttpData(url, std::string(), expectedHttpCode, setupCallback, ctx, ctx->shape());
    conn.setConnectionParameters(kept);
  } else {
    const HostNameResolutionPolicy keptPolicy = conn.getConnectionParameters().hostNameResolutionPolicy;
    ok = conn.getHttpData(url, std::string(), expectedHttpCode, setupCallback, ctx, ctx->shape());
    conn.editConnectionParameters().hostNameResolutionPolicy = keptPolicy;
  }

  if (!ok && !ctx->failure.empty())
    conn.addErrorDetail(ctx->failure);
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
  ctx.body.data = body;
  ctx.body.size = body ? bodySize : 0;
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
  ctx.body.data = body.data();
  ctx.body.size = static_cast<unsigned long>(body.size());
  return run(conn, url, result, params, headers, cancel, ctx, expectedHttpCode, "Http PUT error ");
}

bool HttpPutJson(HttpConnection& conn, const qz::Url& url, const char* json, unsigned long size,
                 unsigned char expectedHttpCode, HttpResult* result, const ConnectionParameters* params,
                 const std::list<std::string>* headers, const bool* cancel) {
  RequestContext ctx;
  ctx.method = MethodPut;
  ctx.body.data = json;
  ctx.body.size = json ? size : 0;
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
  ctx.body.data = data;
  ctx.body.size = data ? size : 0;
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
  ctx.body.data = json;
  ctx.body.size = json ? size : 0;
  ctx.jsonBody = true;
  return run(conn, url, result, params, headers, cancel, ctx, expectedHttpCode, "Http POST error ");
}

} // namespace qz::http::HttpHelpers
