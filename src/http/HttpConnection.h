#pragma once

#include <HttpTools/frame/Policies.h>
#include <HttpTools/http/TransferError.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/url/Url.h>

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>

namespace qz::http {

class HttpProxyFinder;

/// What a line given to ConnectionParameters::debugLines is: libcurl's information text, a
/// header line received or a header line sent.
enum class DebugLineKind { Info, HeaderIn, HeaderOut };

/// One HTTP exchange at a time over one libcurl easy handle that stays open between calls, so
/// that libcurl reuses the TCP/TLS connection. Not copyable; used by one thread at a time.
/// Most callers go through HttpHelpers; getHttpData is the raw entry point for callers that
/// install their own transfer callbacks.
class HTTPTOOLS_API HttpConnection {
public:
  /// Transport settings applied to the easy handle before every request. Policies at 0 fall
  /// back to the process-wide defaults.
  class HTTPTOOLS_API ConnectionParameters {
  public:
    ConnectionParameters();

    int connectTimeoutSec = 10; ///< seconds to establish the connection; <= 0: libcurl's default
    int maxSendSpeed = 0;       ///< bytes per second, 0 = unlimited
    int maxRecvSpeed = 0;       ///< bytes per second, 0 = unlimited
    int lowSpeedLimit = 10;     ///< bytes per second under which a transfer is too slow ...
    int lowSpeedTime = 10;      ///< ... for this many seconds; either <= 0 disables the check
    int tcpKeepAlive = -1;      ///< idle time and probe interval in seconds; <= 0 = off
    int maxRedirects = 3;       ///< redirects followed at most
    SSLValidatePolicy sslValidatePolicy = SVP_DefaultBehavior;        ///< certificate and host name checks
    HostNameResolutionPolicy hostNameResolutionPolicy = HNRP_Default; ///< address family of a resolved name
    ProxyPolicy proxyPolicy = PP_Default;                             ///< how the proxy is found
    qz::Url manualProxyUrl;                                           ///< used under PP_ManualProxy
    int verbose = 0;            ///< non-zero: libcurl verbose output; 2 also logs it after each call
    bool followLocation = true; ///< follow redirects (http and https only)
    bool keepCookies = true;    ///< in-memory cookie store for the connection's lifetime
    std::string caFile;         ///< CA bundle for certificate checks; empty = libcurl's default
    std::string clientCertFile; ///< PEM client certificate for mutual TLS; empty = none
    std::string clientKeyFile;  ///< its PEM private key; empty = in the certificate file
    size_t maxBodyBytes = 0;    ///< largest response body, counted after decoding; 0 = no limit
    long totalTimeoutMs = 0;    ///< time allowed for a whole request; 0 = none
    /// Receives libcurl's debug lines as they happen, one call per line without its line end:
    /// information, header lines received and sent (Authorization, Proxy-Authorization and
    /// Cookie redacted as in the stored debug lines), never body data. Set, it turns libcurl's
    /// verbose output on whatever `verbose` says. Called on the thread of the transfer: a
    /// function shared by connections used from several threads must be thread-safe.
    std::function<void(DebugLineKind kind, std::string_view line)> debugLines;

    /// Sets the options on the libcurl easy handle `curlHandle` for a request to `target`: every
    /// field above, requests and redirects over http and https only, certificate checks (the
    /// loopback exemption covers the host 127.0.0.1 only, not a host a redirect reaches), and a
    /// body limit on the announced length (a write callback must count decoded bytes itself).
    /// Every option is set, so a handle used before may be passed. Returns the bitwise OR of
    /// every curl_easy_setopt result (0: all accepted).
    int applyParameters(void* curlHandle, const qz::Url& target, HttpProxyFinder& proxyFinder) const;
  };

  /// Set-up callback: gets the easy handle, the caller's data and an empty list to which it may
  /// add header lines. Returns 0 to go on, anything else aborts the call.
  using SetupCallback = int (*)(void* curl, void* userData, std::list<std::string>& extraHeaders);

  /// countConnections: after each successful transfer, ask libcurl how many new connections it
  /// made (the answer only shows in libcurl's state; nothing is kept).
  explicit HttpConnection(bool countConnections = false);
  ~HttpConnection();
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  /// Performs one blocking request to `url`. `setup` installs the method, body source and data
  /// callbacks; its userData is also given to libcurl as write, read and progress data. An
  /// expectedHttpCode <= 0 accepts any status, an empty expectedContentType any type.
  /// Returns true on success; otherwise getLastErrorMsg() says why.
  bool getHttpData(const qz::Url& url, const std::string& expectedContentType, long expectedHttpCode,
                   SetupCallback setup, void* userData);
  /// The same for a set-up callback that installs different options from one call to the next:
  /// `shape` names the set it installs (method, body source, header capture). Whenever the
  /// callback or the shape differs from the last call's, the handle is reset to libcurl's
  /// defaults and set up again, so nothing an earlier request installed outlives it. The call
  /// above uses shape 0. Only http and https URLs are requested; a header line holding CR or LF
  /// fails the call before anything is sent.
  bool getHttpData(const qz::Url& url, const std::string& expectedContentType, long expectedHttpCode,
                   SetupCallback setup, void* userData, unsigned long shape);

  /// Why the last call failed: context, status, libcurl's code and text; empty after a success.
  std::string getLastErrorMsg() const;
  /// The last call's failure as values; getLastErrorMsg() is its message(). Kind None on success.
  TransferError getLastError() const;
  /// Puts the reason a caller's transfer callback stopped the last call in front of its error
  /// message (libcurl itself only says that a callback aborted).
  void addErrorDetail(const std::string& reason);
  /// The last answer's Content-Type, as sent.
  std::string getLastReceivedType() const;
  const qz::Url& getLastUrl() const; ///< the URL of the last call
  const std::string& getLastDebugInformations()
      const; ///< libcurl's verbose output of the last call, when ConnectionParameters::verbose is set
  long getLastHttpReturnCode() const;        ///< the last answer's status; 0 when none arrived
  bool isLastCallTimedOut() const;           ///< whether the last call failed on a time-out
  bool isLastCallUnableToVerifyPeer() const; ///< whether the last call failed on the certificate check

  /// The parameters; edits take effect at the next request.
  ///@{
  const ConnectionParameters& getConnectionParameters() const;
  ConnectionParameters& editConnectionParameters();
  ///@}
  /// Copies every field; the values take effect at the next request.
  void setConnectionParameters(const ConnectionParameters& params);

  /// Header lines ("Name: value") sent with every request, in insertion order.
  const std::list<std::string>& getCommonHeaders() const;
  void addCommonHeader(const std::string& line);              ///< ignored when the same line is already there
  void setCommonHeaders(const std::list<std::string>& lines); ///< replaces the whole list

  /// Closes the easy handle (and its TCP connection); the next call opens a new one.
  void clearConnection();
  /// Creates the easy handle if needed and applies the parameters; false when an option was
  /// refused or the library is not initialised.
  bool setupConnection(const qz::Url& url);

  class HttpConnectionPrivate;

private:
  friend class HttpConnectionAccess; ///< the library's internal hooks

  bool prepareHandle(const qz::Url& url, SetupCallback setup, unsigned long shape);
  bool getHttpDataImpl(const std::string& encodedUrl, const std::string& expectedContentType, long expectedHttpCode,
                       bool hostIsName, bool& retry, SetupCallback setup, void* userData);

  std::unique_ptr<HttpConnectionPrivate> d;
  bool m_countConnections;
};

} // namespace qz::http
