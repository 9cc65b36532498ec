#pragma once

/// @file
/// One request described as a value, its answer streamed to a sink, its outcome as values: the
/// layer every subsystem and the httptools program use. Unlike HttpHelpers it adds no header rule
/// of its own (no octet-stream default, no "Expect: 100-continue"): a request goes out as curl
/// would send it (a POST body without a content type is labelled a form, as curl -d does).
///
/// @code
/// qz::http::HttpConnection conn;
/// qz::http::TransferRequest req;
/// req.url = qz::Url("http://127.0.0.1:8080/");
/// qz::http::StringSink body;
/// qz::http::TransferOutcome outcome;
/// if (!qz::http::PerformTransfer(conn, req, body, outcome))
///   std::cerr << outcome.error.message();
/// @endcode

#include <HttpTools/http/CancelToken.h>
#include <HttpTools/http/RetryPolicy.h>
#include <HttpTools/http/TransferError.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/url/Url.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qz {
class qzIoDevice;
}

namespace qz::http {

class HttpConnection;
class HttpConnectionPool;

/// Request methods; RequestSpec::customMethod sends any other name.
enum class Method { Get, Head, Put, Post, Delete, Patch, Options };
HTTPTOOLS_API const char* MethodName(Method m); ///< "GET", ...

/// Where a request body comes from. A reader fills the buffer it is given and returns the byte
/// count (0 at the end); `rewind` (may be empty) starts it over when libcurl must send it again
/// (a redirect, an authentication round); without it such a request fails.
struct HTTPTOOLS_API RequestBody {
  /// Which of the sources below is used; None sends no body.
  enum class Kind { None, Bytes, View, Reader };
  Kind kind = Kind::None; ///< the source in use
  std::string bytes;      ///< Kind::Bytes
  std::string_view view;  ///< Kind::View: the caller keeps the bytes alive until the call returns
  std::function<size_t(char*, size_t)>
      read;                     ///< Kind::Reader: fills the buffer, returns the bytes written, 0 at the end
  std::function<bool()> rewind; ///< Kind::Reader: starts over; false when it cannot
  int64_t size = -1;            ///< a reader's length; -1: unknown (sent chunked)

  /// The body's length when known: the bytes, the view, or a reader's `size` (0 when unknown).
  size_t knownSize() const;
};

/// A request but its URL: what callers that keep the URL elsewhere hand to the engine.
struct HTTPTOOLS_API RequestSpec {
  Method method = Method::Get;       ///< the method sent (unless customMethod is set)
  std::vector<std::string> headers;  ///< whole lines "Name: value"
  RequestBody body;                  ///< a Post or Put without body sends Content-Length: 0
  std::string contentType;           ///< sent as Content-Type when not empty
  std::string customMethod;          ///< sent instead of the method's name when not empty
  std::vector<long> successStatuses; ///< empty: any status is an answer
  long timeoutMs = 0;                ///< whole transfer; 0: the connection parameters' totalTimeoutMs
  /// An open-ended answer that may go quiet (a followed feed): no low-speed abort and no total
  /// time-out but timeoutMs; idleTimeoutMs watches it instead.
  bool streaming = false;
  /// Fails the call (Timeout) once no byte arrived for this long; before the answer's first byte
  /// the wait is at least 10 s. 0: not watched.
  long idleTimeoutMs = 0;

  /// Set the body: owned bytes, a view the caller keeps alive, or a reader (see RequestBody).
  ///@{
  void setBody(std::string bytes);
  void setBodyView(std::string_view bytes);
  void setBodyReader(std::function<size_t(char*, size_t)> read, int64_t size = -1,
                     std::function<bool()> rewind = nullptr);
  bool hasBody() const { return body.kind != RequestBody::Kind::None; }
  ///@}
};

/// A whole request: what to send and the URL it goes to.
struct HTTPTOOLS_API TransferRequest : RequestSpec {
  qz::Url url; ///< http or https
};

/// Receives the answer while it arrives. A status line (every one: interim answers and redirects
/// too) goes to onStatus, every other header line (the final blank one included) to onHeader, raw
/// with its line end. onBody returning false stops the transfer; failure() then says why.
class HTTPTOOLS_API ResponseSink {
public:
  virtual ~ResponseSink();
  virtual void reset() {} ///< before an attempt is repeated
  /// Default: ignore the line.
  ///@{
  virtual void onStatus(long status, std::string_view statusLine);
  virtual void onHeader(std::string_view line);
  ///@}
  /// Receives the next piece of the body; false stops the transfer.
  virtual bool onBody(const char* data, size_t size) = 0;
  /// Why onBody refused; by default a LocalIo error "Response receiver refused the body".
  virtual TransferError failure() const;
};

/// Keeps the body in a string; a repeated attempt starts it over.
class HTTPTOOLS_API StringSink : public ResponseSink {
public:
  std::string body; ///< the body received so far
  void reset() override { body.clear(); }
  bool onBody(const char* data, size_t size) override;
};

/// Writes the body to a device; stops with a LocalIo error once the device reports one.
class HTTPTOOLS_API DeviceSink : public ResponseSink {
public:
  /// `device` must outlive the sink.
  explicit DeviceSink(qz::qzIoDevice& device) : m_device(device) {}
  bool onBody(const char* data, size_t size) override;
  TransferError failure() const override;

private:
  qz::qzIoDevice& m_device;
  uint64_t m_written = 0;
};

/// When each step of a transfer ended, in microseconds from its start.
struct TransferTimings {
  int64_t nameLookupUs = 0; ///< name resolved
  int64_t connectUs = 0;    ///< TCP connected
  int64_t tlsUs = 0;        ///< 0 without TLS
  int64_t firstByteUs = 0;  ///< first answer byte received
  int64_t totalUs = 0;      ///< transfer done
};

/// What a transfer ended with, success or not.
struct HTTPTOOLS_API TransferOutcome {
  TransferError error;                  ///< kind None on success
  long status = 0;                      ///< the final answer's status, 0 when none arrived
  std::string statusLine;               ///< as received, without its line end
  std::vector<std::string> headerLines; ///< the final answer's lines as received, without line ends
  std::string effectiveUrl;             ///< after redirects
  std::string contentType;              ///< the final answer's Content-Type
  TransferTimings timings;              ///< of the last attempt
  uint64_t bytesDown = 0;               ///< body bytes received (after decoding)
  uint64_t bytesUp = 0;                 ///< body bytes sent
  long redirectCount = 0;               ///< redirects followed
  unsigned attempts = 0;                ///< attempts made (more than 1 only with a RetryPolicy)

  bool ok() const { return error.ok(); } ///< true when the transfer succeeded
  /// The value of the first header field `name` (any case), trimmed; "" when absent.
  std::string header(std::string_view name) const;
};

/// One request over `connection`, with its parameters (time-outs, certificates, proxy, body limit)
/// and common header lines. True when an answer came whose status is accepted. The token, when
/// given, ends a waiting transfer within 100 ms of cancel().
HTTPTOOLS_API bool PerformTransfer(HttpConnection& connection, const TransferRequest& request, ResponseSink& sink,
                                   TransferOutcome& outcome, const CancelToken* cancel = nullptr);

/// The same over a connection borrowed from `pool` for each attempt, repeated as `retry` says; the
/// sink is reset before each repetition. The outcome is the last attempt's.
HTTPTOOLS_API bool PerformTransfer(HttpConnectionPool& pool, const TransferRequest& request, ResponseSink& sink,
                                   TransferOutcome& outcome, const RetryPolicy& retry,
                                   const CancelToken* cancel = nullptr);

} // namespace qz::http
