#pragma once

#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzIoDevice.h>
#include <HttpTools/platform/qzVariant.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>

namespace qz::http::HttpHelpers {

/// Outcome of a helper call. The pointers are optional and owned by the caller.
struct HTTPTOOLS_API HttpResult {
  std::string* body = nullptr;                           ///< response body is appended here
  qz::qzIoDevice* outputDevice = nullptr;                ///< every received block is also written here
  std::string* errorMessage = nullptr;                   ///< receives getLastErrorMsg() after the call
  std::map<std::string, std::string>* headers = nullptr; ///< lower-case name -> value, first one wins
  int32_t httpCode = 0;                                  ///< the answer's status; 0 when none arrived
  uint64_t receivedBytes = 0;                            ///< body bytes the last call received
  TransferError error; ///< the failure as values (HttpConnection::getLastError), kind None on success

  HttpResult() = default;
  /// Empties *body, *errorMessage and *headers, zeroes httpCode; keeps the device and byte count.
  void clearResultAttributes();
  /// Copies the status and the error of `conn`'s last call (and its message to *errorMessage).
  void setResults(const HttpConnection& conn);
};

/// Per-call transport settings (see HttpConnection::ConnectionParameters).
using ConnectionParameters = HttpConnection::ConnectionParameters;

/// @file
/// One-call requests over an HttpConnection. The common trailing arguments: `result` null uses a private record and
/// logs failures (a 404 or a cancelled call is never logged); `params` null uses the connection's own parameters (given
/// ones apply for this call only); `headers` are extra header lines; `cancel` aborts the transfer
/// once *cancel is true, within 50 ms even while no data arrives. Code setting the flag from
/// another thread must store it atomically too (std::atomic_ref<bool>).
///
/// @code
/// qz::http::HttpConnection conn;
/// std::string json;
/// if (!qz::http::HttpHelpers::HttpGetJson(conn, qz::Url("http://127.0.0.1:5984/_all_dbs"), json))
///   return; // the failure is already logged
/// @endcode

/// Runs one request described by `requestContext` (internal) and fills `result`.
HTTPTOOLS_API bool GenericCall(HttpConnection& conn, const qz::Url& url, HttpResult& result,
                               const ConnectionParameters* params, const std::list<std::string>* headers,
                               void* requestContext, unsigned char expectedHttpCode, const bool* cancel);

/// HEAD, GET and DELETE: true on status 200. GET's body goes to result->body and result->outputDevice.
///@{
HTTPTOOLS_API bool HttpHead(HttpConnection& conn, const qz::Url& url, HttpResult* result = nullptr,
                            const ConnectionParameters* params = nullptr,
                            const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr);
HTTPTOOLS_API bool HttpGet(HttpConnection& conn, const qz::Url& url, HttpResult* result = nullptr,
                           const ConnectionParameters* params = nullptr,
                           const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr);
HTTPTOOLS_API bool HttpDelete(HttpConnection& conn, const qz::Url& url, HttpResult* result = nullptr,
                              const ConnectionParameters* params = nullptr,
                              const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr);
///@}

/// GET whose response text lands in `out`; an optional body is sent with the method GET.
///@{
HTTPTOOLS_API bool HttpGetJson(HttpConnection& conn, const qz::Url& url, std::string& out, HttpResult* result = nullptr,
                               const ConnectionParameters* params = nullptr,
                               const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr,
                               const char* body = nullptr, unsigned long bodySize = 0, bool bodyIsJson = false);
HTTPTOOLS_API bool HttpGetJson(HttpConnection& conn, const qz::Url& url, std::string& out, HttpResult* result,
                               const ConnectionParameters* params, const std::list<std::string>* headers,
                               const bool* cancel, const std::string* body, bool bodyIsJson);
///@}

/// PUT of `body` (application/octet-stream) or of JSON text (application/json); true when the status is
/// `expectedHttpCode`, or any status when it is 0.
///@{
HTTPTOOLS_API bool HttpPut(HttpConnection& conn, const qz::Url& url, const std::string& body,
                           unsigned char expectedHttpCode, HttpResult* result = nullptr,
                           const ConnectionParameters* params = nullptr,
                           const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr);
HTTPTOOLS_API bool HttpPutJson(HttpConnection& conn, const qz::Url& url, const char* json, unsigned long size,
                               unsigned char expectedHttpCode, HttpResult* result = nullptr,
                               const ConnectionParameters* params = nullptr,
                               const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr);
///@}
/// Serialises `doc` (compact JSON) and PUTs it; false without a request when it cannot.
template <typename T>
bool HttpPutJson(HttpConnection& conn, const qz::Url& url, const T& doc, unsigned char expectedHttpCode,
                 HttpResult* result = nullptr, const ConnectionParameters* params = nullptr,
                 const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr);
/// The map written as a JSON object.
template <>
HTTPTOOLS_API bool HttpPutJson<qz::qzVariantMapImpl>(HttpConnection& conn, const qz::Url& url,
                                                     const qz::qzVariantMapImpl& doc, unsigned char expectedHttpCode,
                                                     HttpResult* result, const ConnectionParameters* params,
                                                     const std::list<std::string>* headers, const bool* cancel);

/// Data and size come first in this overload.
/// POST of a body or of JSON text; the status rule of HttpPut.
///@{
HTTPTOOLS_API bool HttpPost(const char* data, unsigned long size, HttpConnection& conn, const qz::Url& url,
                            unsigned char expectedHttpCode, HttpResult* result = nullptr,
                            const ConnectionParameters* params = nullptr,
                            const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr);
HTTPTOOLS_API bool HttpPost(HttpConnection& conn, const qz::Url& url, const std::string& body,
                            unsigned char expectedHttpCode, HttpResult* result = nullptr,
                            const ConnectionParameters* params = nullptr,
                            const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr);
HTTPTOOLS_API bool HttpPostJson(HttpConnection& conn, const qz::Url& url, const char* json, unsigned long size,
                                unsigned char expectedHttpCode, HttpResult* result = nullptr,
                                const ConnectionParameters* params = nullptr,
                                const std::list<std::string>* headers = nullptr, const bool* cancel = nullptr);
///@}

} // namespace qz::http::HttpHelpers
