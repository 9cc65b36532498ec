#pragma once

#include <HttpTools/platform/Export.h>

#include <memory>
#include <string>

namespace qz {
class Url;
}

namespace qz::http {

/// Automatic proxy discovery. On Linux none is ever found: requests under the automatic proxy
/// policy go out directly (libcurl still honours the proxy environment variables).
class HTTPTOOLS_API HttpProxyFinder {
public:
  HttpProxyFinder();
  ~HttpProxyFinder();
  HttpProxyFinder(const HttpProxyFinder&) = delete;
  HttpProxyFinder& operator=(const HttpProxyFinder&) = delete;

  /// Empties `proxyUrl`; returns true when a proxy was found for `target`.
  bool getProxyUrl(const qz::Url& target, std::string& proxyUrl);

private:
  struct HttpProxyFinderPrivate;
  std::unique_ptr<HttpProxyFinderPrivate> d;
};

} // namespace qz::http
