#include <HttpTools/frame/HttpProxyFinder.h>

#include <HttpTools/url/Url.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

// No automatic discovery on Linux: never a proxy, whatever the target or the environment says
// (libcurl reads the proxy variables itself), and the output is always emptied.
TEST(HttpProxyFinder, NeverFindsOneAndEmptiesTheOutput) {
  ::setenv("http_proxy", "http://127.0.0.1:3128", 1);
  ::setenv("HTTPS_PROXY", "http://127.0.0.1:3128", 1);
  qz::http::HttpProxyFinder finder;
  for (const char* target : {"http://example.org/", "https://u:p@10.0.0.1:8443/x?y=1", "http://[::1]/", ""}) {
    std::string proxy = "http://stale.proxy:8080";
    EXPECT_FALSE(finder.getProxyUrl(qz::Url(std::string(target)), proxy)) << target;
    EXPECT_TRUE(proxy.empty()) << target;
  }
  ::unsetenv("http_proxy");
  ::unsetenv("HTTPS_PROXY");
}

} // namespace
