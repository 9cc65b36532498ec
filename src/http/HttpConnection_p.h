#pragma once

// Internal state of HttpConnection, the resolution of ConnectionParameters to libcurl option
// values, and the request-body reader shared by the library's set-up callbacks.

#include <HttpTools/frame/HttpProxyFinder.h>
#include <HttpTools/http/BodyReader_p.h>
#include <HttpTools/http/CancelToken.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/platform/Export.h>

#include <curl/curl.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qz::http {

// Every value applyParameters gives the handle, after the process-wide defaults, the policies
// and the proxy choice are applied. Equal records set equal options.
struct ResolvedParameters {
  long followLocation = 1;
  long maxRedirects = 0;
  long connectTimeoutSec = 0;
  long long maxRecvSpeed = 0;
  long long maxSendSpeed = 0;
  bool keepCookies = true;
  long lowSpeedLimit = 0;
  long lowSpeedTime = 0;
  long tcpKeepAlive = 0; // 0: off
  long verbose = 0;
  long ipResolve = CURL_IPRESOLVE_WHATEVER;
  bool verifyPeer = true;
  // The target is the exempt loopback host: its certificate is not checked, but that of any
  // other host a redirect reaches is.
  bool loopbackExempt = false;
  bool proxyNull = false; // leave the proxy to libcurl (its environment variables)
  std::string proxy;      // "" = no proxy at all
  std::string caFile;     // "" = libcurl's default bundle
  std::string clientCertFile, clientKeyFile;
  long long maxBodyBytes = 0;
  long totalTimeoutMs = 0;

  bool operator==(const ResolvedParameters&) const = default;
};

// The process-wide defaults that ResolveConnectionParameters reads.
struct ProcessDefaults {
  bool verifyPeer = true;
  bool loopbackExempt = true;
  int resolution = 0;
  int proxy = 0;
  static ProcessDefaults Current();
  bool operator==(const ProcessDefaults&) const = default;
};

// Fills `out` (its strings' buffers are reused). Logs the invalid manual proxy line when that
// case arises.
void ResolveConnectionParameters(const HttpConnection::ConnectionParameters& p, const qz::Url& target,
                                 HttpProxyFinder& proxyFinder, ResolvedParameters& out);
// Sets every option of `r` on the handle; returns the OR of the setopt results.
int ApplyResolvedParameters(CURL* handle, const ResolvedParameters& r);

// The libcurl values of two policies, after the process-wide defaults are applied.
bool ResolveVerifyPeer(SSLValidatePolicy policy);
long ResolveIpResolve(HostNameResolutionPolicy policy);

// The options of the connection itself, the same on every handle of the library (the connection's
// and the multi engine's): reuse, TLS floor, signals, content encodings, paths as given.
int ApplyConnectionOptions(CURL* handle);

// Sent header lines for the debug log, with the credentials of Authorization, Proxy-Authorization
// and Cookie replaced: a log is no place for a secret.
std::string RedactedHeaders(std::string_view block);
// Hands libcurl's debug text of type `type` to `to`, line by line, sent headers redacted. False
// for a type it does not report (data). Never throws.
bool ReportDebugLines(const decltype(HttpConnection::ConnectionParameters::debugLines)& to, curl_infotype type,
                      std::string_view text);

// Failure texts, shared with the multi-request engine so that both word a failure alike.
// A failed transfer; a reached total time-out and an exceeded body limit say so.
std::string TransferFailedText(CURLcode code, int64_t elapsedMs, long totalTimeoutMs, long long maxBodyBytes,
                               const qz::Url& url);
std::string UnexpectedStatusText(long got, long expected, const qz::Url& url);
// Why a URL whose scheme is not http or https is refused before anything is sent; "" when it is.
std::string SchemeRefusal(const std::string& scheme);

struct CurlEasyDeleter {
  void operator()(CURL* h) const { curl_easy_cleanup(h); }
};
struct CurlSlistDeleter {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
struct CurlMultiDeleter {
  void operator()(CURLM* m) const { curl_multi_cleanup(m); }
};

// Runs a connection's transfers on a multi handle of its own instead of curl_easy_perform, so
// that a quiet transfer ends at once when asked: curl_easy_perform looks at its progress callback
// only about once a second while nothing arrives. `interrupted` is called on the transfer's
// thread after every wake-up, and wake-ups come at least every pollMs and whenever wakeup() is
// called. The connection keeps owning its easy handle, which sits in the multi handle for one
// transfer at a time; the multi handle keeps the TCP connections it opened between transfers.
class HTTPTOOLS_HIDDEN InterruptibleTransfer {
public:
  InterruptibleTransfer(std::function<bool()> interrupted, int pollMs);
  void setPollMs(int pollMs) { m_pollMs = pollMs < 1 ? 1 : pollMs; }
  InterruptibleTransfer(const InterruptibleTransfer&) = delete;
  InterruptibleTransfer& operator=(const InterruptibleTransfer&) = delete;

  // The transfer's result; CURLE_ABORTED_BY_CALLBACK when it was interrupted. Without a multi
  // handle (libcurl refused one) the transfer runs under curl_easy_perform.
  CURLcode perform(CURL* easy);
  // Safe from any thread while the object lives: the running perform() looks at `interrupted`.
  void wakeup();

private:
  std::function<bool()> m_interrupted;
  int m_pollMs;
  std::unique_ptr<CURLM, CurlMultiDeleter> m_multi;
};

class HTTPTOOLS_HIDDEN HttpConnection::HttpConnectionPrivate {
public:
  HttpProxyFinder proxyFinder;
  ConnectionParameters parameters;
  std::list<std::string> commonHeaders;
  // The header list is declared before the handle so that it is destroyed after it: libcurl
  // may still point at it until the handle is cleaned up.
  std::unique_ptr<curl_slist, CurlSlistDeleter> headerList;
  std::unique_ptr<CURL, CurlEasyDeleter> easy;

  // What the handle holds. The set-up callback and the request shape decide which request
  // options are on it: when either changes the handle is reset and everything is applied
  // again; otherwise only the header list and the URL are compared and set when they differ.
  struct HandleState {
    struct Setup {
      SetupCallback callback = nullptr;
      unsigned long shape = 0;
      bool operator==(const Setup&) const = default;
    };
    bool valid = false; // false: nothing known, the handle is fresh or must be reset
    Setup setup;
    ResolvedParameters parameters;
    std::vector<std::string> headerLines;
    bool headersValid = false;
    std::string url;
    // The transfer engine's options that only a reset undoes (callbacks, progress off) are set,
    // and the time-out it set last.
    bool transferOptions = false;
    long transferTimeoutMs = 0;
  };
  HandleState state;
  ResolvedParameters resolving; // scratch, kept for its buffers

  // The one place that forgets what the handle holds.
  void forgetHandleState() {
    state.valid = false;
    state.headersValid = false;
    state.url.clear();
    state.transferOptions = false;
  }

  char errorBuffer[CURL_ERROR_SIZE] = {};
  qz::Url lastUrl;
  std::string lastEncodedUrl; // lastUrl.toEncodedUrl() when lastEncodedUrlValid
  bool lastEncodedUrlValid = false;
  std::string internalErrorMsg;
  std::string lastReceivedType;
  std::string lastDebugInformations;
  CURLcode lastCurlCode = CURLE_OK;
  int64_t lastHttpReturnCode = 0;
  ErrorKind lastErrorKind = ErrorKind::None;
  bool inTransfer = false;

  // Set by the transfer layer for one call: the token ends a waiting transfer, afterPerform reads
  // the handle's outcome before a failure drops the handle.
  struct TransferHooks {
    const CancelToken* token = nullptr;
    bool (*stopNow)(void* data) = nullptr; // looked at every CancelToken::PollMs at most
    void (*afterPerform)(CURL* handle, void* data) = nullptr;
    void* data = nullptr;
    const std::vector<std::string>* headerLines = nullptr; // sent before the set-up callback's lines
  };
  TransferHooks hooks;
  std::unique_ptr<InterruptibleTransfer> tokenTransfer; // made on the first call with a token

  void fail(ErrorKind kind, std::string message) {
    lastErrorKind = kind;
    internalErrorMsg = std::move(message);
  }
};

// The library's own access to a connection's internals.
class HTTPTOOLS_HIDDEN HttpConnectionAccess {
public:
  static HttpConnection::HttpConnectionPrivate& Of(const HttpConnection& c) { return *c.d; }
};

// The last call's failure into `e`, whose buffers are reused: a result kept call after call
// allocates nothing.
void CopyLastError(HttpConnection::HttpConnectionPrivate& d, TransferError& e);

} // namespace qz::http
