#include <HttpTools/frame/HttpProxyFinder.h>

namespace qz::http {

struct HttpProxyFinder::HttpProxyFinderPrivate {};

HttpProxyFinder::HttpProxyFinder() : d(std::make_unique<HttpProxyFinderPrivate>()) {}
HttpProxyFinder::~HttpProxyFinder() = default;

bool HttpProxyFinder::getProxyUrl(const qz::Url&, std::string& proxyUrl) {
  proxyUrl.clear();
  return false;
}

} // namespace qz::http
