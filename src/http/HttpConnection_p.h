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
};

// The options applyParameters sets, in the order it sets them. Logs the invalid manual proxy
// line when that case arises.
HTTPTOOLS_API std::vector<CurlOptionValue> ResolveConnectionParameters(const HttpConnection::ConnectionParameters& p,
                                                                       const qz::Url& target,
                                                                       HttpProxyFinder& proxyFinder);
// The libcurl values of the three policies, after the process-wide defaults are applied.
HTTPTOOLS_API bool ResolveVerifyPeer(SSLValidatePolicy policy, const qz::Url& target);
HTTPTOOLS_API long ResolveIpResolve(HostNameResolutionPolicy policy);

struct CurlEasyDeleter {
  void operator()(CURL* h) const { curl_easy_cleanup(h); }
};
struct CurlSlistDeleter {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
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
  char errorBuffer[CURL_ERROR_SIZE] = {};
  qz::Url lastUrl;
  std::string internalErrorMsg;
  std::string lastReceivedType;
  std::string lastDebugInformations;
  CURLcode lastCurlCode = CURLE_OK;
  int64_t lastHttpReturnCode = 0;
  bool inTransfer = false;
};

} // namespace qz::http
