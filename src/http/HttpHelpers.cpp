#include <HttpTools/http/HttpHelpers.h>

#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/http/HttpMultiConnection.h>
#include <HttpTools/http/Transfer_p.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzStringUtils.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <memory>
#include <optional>
#include <typeinfo>

namespace qz::http::HttpHelpers {

namespace {

enum MethodCode : int32_t { MethodGet = 1, MethodPut = 2, MethodPost = 3, MethodDelete = 4, MethodHead = 5 };

// What a helper asks for; GenericCall turns it into a transfer request.
struct RequestContext {
  int32_t method = 0;
  const char* body = nullptr;
  size_t bodySize = 0;
  bool jsonBody = false;
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

// The answer into the caller's HttpResult targets: body, device, header map.
class ResultSink : public ResponseSink {
public:
  explicit ResultSink(HttpResult& r) : m_result(r) {}
  void onHeader(std::string_view line) override {
    if (!m_result.headers)
      return;
    std::string name, value;
    HttpMultiConnection::ParseHttpHeader(line.data(), static_cast<unsigned long>(line.size()), name, value);
    if (!name.empty())
      m_result.headers->emplace(std::move(name), std::move(value)); // keeps the first occurrence
  }
  bool onBody(const char* data, size_t size) override {
    m_received += size;
    if (m_result.body)
      m_result.body->append(data, size);
    if (m_result.outputDevice) {
      m_result.outputDevice->write(data, static_cast<unsigned long>(size));
      return !m_result.outputDevice->hasError();
    }
    return true;
  }
  TransferError failure() const override {
    TransferError e;
    e.kind = ErrorKind::LocalIo;
    e.context = "Output device " + deviceName(*m_result.outputDevice) + " failed after " + std::to_string(m_received) +
                " bytes";
    return e;
  }

private:
  HttpResult& m_result;
  uint64_t m_received = 0;
};

int refuseMethod(void*, void*, std::list<std::string>&) { return 2; }

bool fillRequest(const RequestContext& ctx, const std::list<std::string>* headers, RequestSpec& req) {
  bool callerContentType = false;
  req.headers.reserve((headers ? headers->size() : 0) + 1);
  if (headers) {
    req.headers.assign(headers->begin(), headers->end());
    for (const std::string& line : *headers)
      callerContentType = callerContentType || qzStringUtils::Contains(line, "Content-Type:");
  }
  if (ctx.jsonBody)
    req.headers.emplace_back(kJsonContentType);
  else if (!callerContentType)
    req.headers.emplace_back(kOctetContentType);
  const std::string_view body(ctx.body ? ctx.body : "", ctx.body ? ctx.bodySize : 0);
  switch (ctx.method) {
  case MethodGet:
    req.method = qz::http::Method::Get;
    if (!body.empty())
      req.setBodyView(body);
    return true;
  case MethodPut:
    req.method = qz::http::Method::Put;
    req.setBodyView(body);
    return true;
  case MethodPost:
    req.method = qz::http::Method::Post;
    req.setBodyView(body);
    return true;
  case MethodDelete:
    req.method = qz::http::Method::Delete;
    return true;
  case MethodHead:
    req.method = qz::http::Method::Head;
    return true;
  default:
    return false;
  }
}

// Shared tail of every helper: run the call (its body into `out` when given), log a failure
// nobody else will see.
bool run(HttpConnection& conn, const qz::Url& url, HttpResult* result, const ConnectionParameters* params,
         const std::list<std::string>* headers, const bool* cancel, RequestContext ctx, unsigned char expectedHttpCode,
         std::string* out = nullptr) {
  static const char* const names[] = {"", "GET", "PUT", "POST", "DELETE", "HEAD"};
  HttpResult own;
  HttpResult& r = result ? *result : own;
  std::string* callerBody = r.body;
  if (out)
    r.body = out;
  const bool ok = GenericCall(conn, url, r, params, headers, &ctx, expectedHttpCode, cancel);
  if (out) {
    r.body = callerBody;
    if (callerBody)
      *callerBody = *out;
  }
  if (ok || result || r.httpCode == 404 || CancelToken::IsSet(cancel))
    return ok;
  qzLogObject(qzLog::Error, "http") << "Http " << names[ctx.method] << " error " << conn.getLastErrorMsg();
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
  CopyLastError(HttpConnectionAccess::Of(conn), error);
  if (errorMessage)
    *errorMessage = error.message();
}

bool GenericCall(HttpConnection& conn, const qz::Url& url, HttpResult& result, const ConnectionParameters* params,
                 const std::list<std::string>* headers, void* requestContext, unsigned char expectedHttpCode,
                 const bool* cancel) {
  const auto* ctx = static_cast<const RequestContext*>(requestContext);
  result.clearResultAttributes();
  RequestSpec req;
  const bool known = fillRequest(*ctx, headers, req);
  if (expectedHttpCode > 0)
    req.successStatuses.push_back(expectedHttpCode);
  ResultSink sink(result);
  TransferOutcome outcome;
  std::optional<CancelToken> token;
  if (cancel)
    token = CancelToken::Watching(cancel);

  // Explicit parameters apply to this call only.
  std::optional<ConnectionParameters> kept;
  if (params) {
    kept = conn.getConnectionParameters();
    conn.setConnectionParameters(*params);
  }
  const unsigned parts = result.headers ? unsigned(transfer_impl::HeaderLines) : 0u;
  const bool ok = known ? transfer_impl::Perform(conn, url, req, sink, outcome, token ? &*token : nullptr, parts)
                        : conn.getHttpData(url, std::string(), expectedHttpCode, &refuseMethod, nullptr);
  if (kept)
    conn.setConnectionParameters(*kept);

  result.setResults(conn);
  result.receivedBytes = outcome.bytesDown;
  return ok;
}

bool HttpHead(HttpConnection& conn, const qz::Url& url, HttpResult* result, const ConnectionParameters* params,
              const std::list<std::string>* headers, const bool* cancel) {
  return run(conn, url, result, params, headers, cancel, {MethodHead}, 200);
}

bool HttpGet(HttpConnection& conn, const qz::Url& url, HttpResult* result, const ConnectionParameters* params,
             const std::list<std::string>* headers, const bool* cancel) {
  return run(conn, url, result, params, headers, cancel, {MethodGet}, 200);
}

bool HttpDelete(HttpConnection& conn, const qz::Url& url, HttpResult* result, const ConnectionParameters* params,
                const std::list<std::string>* headers, const bool* cancel) {
  return run(conn, url, result, params, headers, cancel, {MethodDelete}, 200);
}

bool HttpGetJson(HttpConnection& conn, const qz::Url& url, std::string& out, HttpResult* result,
                 const ConnectionParameters* params, const std::list<std::string>* headers, const bool* cancel,
                 const char* body, unsigned long bodySize, bool bodyIsJson) {
  return run(conn, url, result, params, headers, cancel, {MethodGet, body, bodySize, bodyIsJson}, 200, &out);
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
  return run(conn, url, result, params, headers, cancel, {MethodPut, body.data(), body.size()}, expectedHttpCode);
}

bool HttpPutJson(HttpConnection& conn, const qz::Url& url, const char* json, unsigned long size,
                 unsigned char expectedHttpCode, HttpResult* result, const ConnectionParameters* params,
                 const std::list<std::string>* headers, const bool* cancel) {
  return run(conn, url, result, params, headers, cancel, {MethodPut, json, size, true}, expectedHttpCode);
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
  return run(conn, url, result, params, headers, cancel, {MethodPost, data, size}, expectedHttpCode);
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
  return run(conn, url, result, params, headers, cancel, {MethodPost, json, size, true}, expectedHttpCode);
}

} // namespace qz::http::HttpHelpers
