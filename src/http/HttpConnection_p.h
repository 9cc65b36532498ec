#pragma once

// Internal state of HttpConnection and the resolution of ConnectionParameters to libcurl
// option values.

#include <HttpTools/frame/HttpProxyFinder.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/platform/Export.h>

#include <curl/curl.h>

#include <memory>
#include <string>
#include <vector>

namespace qz::http {

// One libcurl option and the value the parameters give it.
struct CurlOptionValue {
  enum Kind { Long, OffT, Text, Null };
  CURLoption option;
  Kind kind;
  long long number = 0;
  std::string text;

  bool operator==(const CurlOptionValue& o) const {
    return option == o.option && kind == o.kind && number == o.number && (kind != Text || text == o.text);
  }
};

// The options applyParameters sets, in the order it sets them, into `out` (its capacity is
// reused). Logs the invalid manual proxy line when that case arises.
HTTPTOOLS_API void ResolveConnectionParameters(const HttpConnection::ConnectionParameters& p, const qz::Url& target,
                                               HttpProxyFinder& proxyFinder, std::vector<CurlOptionValue>& out);
HTTPTOOLS_API std::vector<CurlOptionValue> ResolveConnectionParameters(const HttpConnection::ConnectionParameters& p,
                                                                       const qz::Url& target,
                                                                       HttpProxyFinder& proxyFinder);
// Sets `options` on the handle, skipping each one equal to the entry at the same place in
// `current` (what the handle already holds; null sets them all). Returns the OR of the
// setopt results.
HTTPTOOLS_API int ApplyCurlOptions(CURL* handle, const std::vector<CurlOptionValue>& options,
                                   const std::vector<CurlOptionValue>* current);
// Everything ResolveConnectionParameters reads, after the process-wide defaults are applied.
// Equal keys give equal options, so a connection compares keys instead of resolving again.
// Not `cacheable` when a proxy must be looked up or read from the manual proxy URL.
struct ResolvedParametersKey {
  int connectTimeoutSec, maxSendSpeed, maxRecvSpeed, lowSpeedLimit, lowSpeedTime, tcpKeepAlive, maxRedirects, verbose;
  long ipResolve;
  long totalTimeoutMs;
  std::string caFile;
  bool followLocation, keepCookies, verifyPeer, cacheable;
  bool operator==(const ResolvedParametersKey& o) const {
    return connectTimeoutSec == o.connectTimeoutSec && maxSendSpeed == o.maxSendSpeed &&
           maxRecvSpeed == o.maxRecvSpeed && lowSpeedLimit == o.lowSpeedLimit && lowSpeedTime == o.lowSpeedTime &&
           tcpKeepAlive == o.tcpKeepAlive && maxRedirects == o.maxRedirects && verbose == o.verbose &&
           ipResolve == o.ipResolve && totalTimeoutMs == o.totalTimeoutMs && caFile == o.caFile &&
           followLocation == o.followLocation && keepCookies == o.keepCookies && verifyPeer == o.verifyPeer &&
           cacheable == o.cacheable;
  }
};
HTTPTOOLS_API ResolvedParametersKey KeyOfParameters(const HttpConnection::ConnectionParameters& p,
                                                    const qz::Url& target);

// True for the set-up callbacks of this library, which set only request options (method, body,
// callbacks). Any other callback may change any option, so after it runs the connection sets
// everything again on the next request.
HTTPTOOLS_API bool IsLibrarySetupCallback(HttpConnection::SetupCallback setup);

// The libcurl values of the three policies, after the process-wide defaults are applied.
HTTPTOOLS_API bool ResolveVerifyPeer(SSLValidatePolicy policy, const qz::Url& target);
HTTPTOOLS_API long ResolveIpResolve(HostNameResolutionPolicy policy);

// Failure texts, shared with the multi-request engine so that both word a failure alike.
// ComposeErrorMessage is what getLastErrorMsg gives for these values.
HTTPTOOLS_API std::string ComposeErrorMessage(const std::string& internalError, long httpCode, CURLcode code,
                                              const char* curlErrorBuffer);
HTTPTOOLS_API std::string TransferFailedText(int64_t elapsedMs, const qz::Url& url);
HTTPTOOLS_API std::string UnexpectedStatusText(long got, long expected, const qz::Url& url);

struct CurlEasyDeleter {
  void operator()(CURL* h) const { curl_easy_cleanup(h); }
};
struct CurlSlistDeleter {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

struct HttpConnectionAccess {
  static HttpConnection::HttpConnectionPrivate* of(HttpConnection& c) { return c.d; }
};

class HttpConnection::HttpConnectionPrivate {
public:
  HttpProxyFinder proxyFinder;
  ConnectionParameters parameters;
  std::list<std::string> commonHeaders;
  // The header list is declared before the handle so that it is destroyed after it: libcurl
  // may still point at it until the handle is cleaned up.
  std::unique_ptr<curl_slist, CurlSlistDeleter> headerList;
  std::unique_ptr<CURL, CurlEasyDeleter> easy;
  // What the handle holds, so that a request sets only what changed: the parameter options,
  // the header lines behind headerList, the URL. Forgotten with the handle and after a foreign
  // set-up callback. `resolvedOptions` is scratch space kept for its capacity.
  std::vector<CurlOptionValue> appliedOptions;
  std::vector<CurlOptionValue> resolvedOptions;
  ResolvedParametersKey appliedKey{};
  bool appliedKeyValid = false;
  std::vector<std::string> headerLines;
  std::string appliedUrl;
  void* appliedUserData = nullptr;
  bool headersApplied = false;
  bool userDataApplied = false;
  // What the helpers' set-up callback last put on the handle, in its own terms; it sets the
  // request options again only when this changes.
  struct RequestSetup {
    const void* context = nullptr;
    int32_t method = 0;
    unsigned long bodySize = 0;
    bool hasBody = false;
    bool headerCapture = false;
    bool operator==(const RequestSetup& o) const {
      return context == o.context && method == o.method && bodySize == o.bodySize && hasBody == o.hasBody &&
             headerCapture == o.headerCapture;
    }
  };
  RequestSetup requestSetup;
  bool requestSetupKnown = false;

  void forgetAppliedOptions() {
    appliedOptions.clear();
    appliedKeyValid = false;
    headersApplied = false;
    appliedUrl.clear();
    userDataApplied = false;
    requestSetupKnown = false;
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
  bool inTransfer = false;
};

} // namespace qz::http
