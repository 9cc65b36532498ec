#pragma once

#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/url/Url.h>

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace qz::http {

/// Many requests in flight at once over one libcurl multi handle, run on the thread that calls
/// perform(). Each finished request gets exactly one onFinished call, on that thread.
///
/// @code
/// qz::http::HttpMultiConnection multi(16);
/// for (const qz::Url& u : urls)
///   multi.addRequest({.url = u, .onFinished = [](auto& r) { use(r.body); }});
/// multi.perform();
/// @endcode
///
/// At most maxInFlight transfers run; the others wait in the engine's own queue, and their
/// time-outs start only when their transfer starts. Easy handles and the connections behind them
/// are kept between requests and between perform() calls. Parameters, policies, proxy choice,
/// certificate rules and failure texts are those of HttpConnection, with one difference: when a
/// name fails under a policy that prefers one address family, that request tries again with any
/// family, and the parameters stay as they were set. Cookies are kept in memory for the engine's
/// lifetime (keepCookies), shared by all its requests. A finished request's body and headers are
/// its callback's to move out; what is left of them is wiped after the callback (a large body
/// released), and the Response is reused for a later request.
class HTTPTOOLS_API HttpMultiConnection {
public:
  /// What a finished request hands to its callback.
  struct Response {
    uint64_t id = 0;      ///< addRequest's id
    bool success = false; ///< transfer completed and, when expectedHttpCode > 0, the status matched
    long httpCode = 0;    ///< the final status; 0 when no answer arrived
    std::string body;     ///< the body as received
    std::map<std::string, std::string> headers; ///< lower-case names, first occurrence wins
    std::string errorMessage;                   ///< composed as HttpConnection::getLastErrorMsg composes it
    bool timedOut = false;                      ///< failed on a time-out
    bool cancelled = false;                     ///< cancelled by cancelRequest, cancelPerform or the perform() flag
    TransferError error; ///< the failure as values (kind, libcurl code, status); errorMessage says it
  };
  /// One request and its callback.
  struct Request {
    int method = 1;                            ///< the helpers' codes: 1 GET, 2 PUT, 3 POST, 4 DELETE, 5 HEAD
    qz::Url url;                               ///< http or https
    std::list<std::string> headers;            ///< whole header lines
    std::string body;                          ///< sent by PUT and POST
    long expectedHttpCode = 200;               ///< 0 accepts any status
    std::function<void(Response&)> onFinished; ///< called once on the perform() thread; may be empty
    long timeoutMs = 0; ///< whole transfer, counted from its start; 0 = the parameters' totalTimeoutMs
  };

  /// At most `maxInFlight` transfers at once (0 counts as 1).
  explicit HttpMultiConnection(unsigned maxInFlight = 16);
  ~HttpMultiConnection(); ///< requests never performed get no callback
  HttpMultiConnection(const HttpMultiConnection&) = delete;
  HttpMultiConnection& operator=(const HttpMultiConnection&) = delete;

  /// Applied to every request; change them while perform() is not running.
  HttpConnection::ConnectionParameters& editConnectionParameters();
  /// Connections to one host (scheme, host, port); 0 = only maxInFlight limits them. Without
  /// multiplexing this also bounds the transfers to that host, queued here, not in libcurl.
  void setMaxConnectionsPerHost(unsigned n);
  /// On: HTTP/2 over TLS (ALPN), several requests to one https origin share a connection.
  /// Off (default): HTTP/1.1, one request at a time per connection. Plain http stays HTTP/1.1.
  void setMultiplexing(bool on);

  /// Both safe from any thread; they wake a running perform(). addRequest returns the request's
  /// id (never 0). cancelRequest returns false when the id is unknown or already finished; the
  /// request's callback then sees cancelled = true.
  ///@{
  uint64_t addRequest(Request r);
  bool cancelRequest(uint64_t id);
  ///@}

  /// Runs until every added request finished (true), or until *cancel turned true or
  /// cancelPerform() was called (false: every request still queued or running is stopped and
  /// called back with cancelled = true). Another thread that sets *cancel should write it
  /// atomically (std::atomic_ref<bool>) and then call wakeup() for an immediate stop; otherwise
  /// it is seen within 20 ms. False at once when called while already running.
  bool perform(const bool* cancel = nullptr);
  void cancelPerform(); ///< safe from any thread: stops the running perform() (or the next one)
  void wakeup();        ///< safe from any thread

  size_t pendingCount() const; ///< added and not yet called back
  /// New connections libcurl opened for the finished requests so far.
  uint64_t connectionsOpened() const;

  /// Splits "Name: value\r\n" at the first ':' into a lower-case name and a value, both trimmed
  /// of white space. A line without ':' (status line, blank end of headers) gives two empty
  /// strings.
  static void ParseHttpHeader(const char* line, unsigned long length, std::string& name, std::string& value);

  class Private;

private:
  std::unique_ptr<Private> d;
};

} // namespace qz::http
