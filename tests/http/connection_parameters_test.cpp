#include <HttpTools/http/HttpConnection.h>

#include <HttpTools/frame/HttpProxyFinder.h>
#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnection_p.h>

#include "support/LogCapture.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>

using namespace qz::http;
using Params = HttpConnection::ConnectionParameters;
using testing::HasSubstr;

namespace {

// The resolved options as " NAME=value ..." (text quoted, null as null), each value's kind
// checked against the type libcurl declares for its option.
std::string render(const Params& p, const std::string& target = "https://example.org/") {
  HttpProxyFinder finder;
  std::string out = " ";
  for (const CurlOptionValue& v : ResolveConnectionParameters(p, qz::Url(target), finder)) {
    const curl_easyoption* o = curl_easy_option_by_id(v.option);
    if (!o) {
      ADD_FAILURE() << "unknown option " << v.option;
      continue;
    }
    const bool isLong = o->type == CURLOT_LONG || o->type == CURLOT_VALUES;
    EXPECT_TRUE(isLong                    ? v.kind == CurlOptionValue::Long
                : o->type == CURLOT_OFF_T ? v.kind == CurlOptionValue::OffT
                                          : v.kind == CurlOptionValue::Text || v.kind == CurlOptionValue::Null)
        << o->name << " kind " << v.kind;
    out += std::string(o->name) + "=";
    if (v.kind == CurlOptionValue::Text)
      out += "'" + v.text + "' ";
    else
      out += v.kind == CurlOptionValue::Null ? "null " : std::to_string(v.number) + " ";
  }
  return out;
}

// Restores the process-wide defaults a test changes.
class ParamsTest : public testing::Test {
protected:
  void TearDown() override { setDefaults(true, HNRP_Whatever, PP_NoProxy); }
  static void setDefaults(bool verify, HostNameResolutionPolicy ip, ProxyPolicy proxy) {
    qz::SetVerifySSLCertByDefault(verify);
    qz::SetDefaultHostNameResolutionPolicy(ip);
    qz::SetDefaultProxyPolicy(proxy);
  }
};

TEST_F(ParamsTest, EachFieldAndPolicyResolves) {
  struct Case {
    std::function<void(Params&)> edit;
    std::string expect; // adjacent options in the rendered list
    const char* target = "https://example.org/";
    bool verifyDefault = true;
    HostNameResolutionPolicy ipDefault = HNRP_Whatever;
    ProxyPolicy proxyDefault = PP_NoProxy;
  };
  const char* org = "https://example.org/";
  const std::vector<Case> cases{
      {[](Params& p) { p.maxRedirects = -5; }, "MAXREDIRS=0"},
      {[](Params& p) { p.connectTimeoutSec = -1; }, "CONNECTTIMEOUT=0"},
      {[](Params& p) { p.connectTimeoutSec = 3; }, "CONNECTTIMEOUT=3"},
      {[](Params& p) { p.maxRecvSpeed = -7; }, "MAX_RECV_SPEED_LARGE=0"},
      {[](Params& p) { p.maxRecvSpeed = 1000; }, "MAX_RECV_SPEED_LARGE=1000"},
      {[](Params& p) { p.maxSendSpeed = -8; }, "MAX_SEND_SPEED_LARGE=0"},
      {[](Params& p) { p.maxSendSpeed = 2000; }, "MAX_SEND_SPEED_LARGE=2000"},
      {[](Params& p) { p.lowSpeedTime = 0; }, "LOW_SPEED_LIMIT=0 LOW_SPEED_TIME=0"}, // both or nothing
      {[](Params& p) { p.lowSpeedLimit = 0; }, "LOW_SPEED_LIMIT=0 LOW_SPEED_TIME=0"},
      {[](Params& p) { p.lowSpeedLimit = 5; }, "LOW_SPEED_LIMIT=5 LOW_SPEED_TIME=10"},
      {[](Params& p) { p.tcpKeepAlive = 0; }, "TCP_KEEPALIVE=0 TCP_KEEPIDLE=10 TCP_KEEPINTVL=10"},
      {[](Params& p) { p.tcpKeepAlive = 30; }, "TCP_KEEPALIVE=1 TCP_KEEPIDLE=30 TCP_KEEPINTVL=30"},
      {[](Params& p) { p.followLocation = false; }, "FOLLOWLOCATION=0 MAXREDIRS=3"},
      {[](Params& p) { p.verbose = 2; }, "VERBOSE=1"},
      {[](Params& p) { p.keepCookies = false; }, "COOKIESESSION=1 COOKIEJAR=null"},
      // Certificate checking: policy, process default, and the loopback exemption by exact text.
      {[](Params&) {}, "SSL_VERIFYPEER=1 SSL_VERIFYHOST=2"},
      {[](Params& p) { p.sslValidatePolicy = SVP_VerifyPeerAndHost; }, "SSL_VERIFYPEER=1 SSL_VERIFYHOST=2", org, false},
      {[](Params& p) { p.sslValidatePolicy = SVP_NoVerify; }, "SSL_VERIFYPEER=0 SSL_VERIFYHOST=0"},
      {[](Params&) {}, "SSL_VERIFYPEER=0 SSL_VERIFYHOST=0", "https://127.0.0.1:8443/"},
      {[](Params& p) { p.sslValidatePolicy = SVP_VerifyPeerAndHost; }, "SSL_VERIFYPEER=0", "https://127.0.0.1/"},
      {[](Params&) {}, "SSL_VERIFYPEER=1 SSL_VERIFYHOST=2", "https://localhost/"},
      {[](Params&) {}, "SSL_VERIFYPEER=1 SSL_VERIFYHOST=2", "https://[::1]/"},
      {[](Params&) {}, "SSL_VERIFYPEER=1 SSL_VERIFYHOST=2", "https://127.0.0.2/"},
      // Address family: own policy, or the process default when it is HNRP_Default.
      {[](Params&) {}, "IPRESOLVE=0"},
      {[](Params&) {}, "IPRESOLVE=1", org, true, HNRP_PreferIpv4},
      {[](Params& p) { p.hostNameResolutionPolicy = HNRP_PreferIpv6; }, "IPRESOLVE=2", org, true, HNRP_PreferIpv4},
      {[](Params& p) { p.hostNameResolutionPolicy = HNRP_PreferIpv4; }, "IPRESOLVE=1"},
      {[](Params& p) { p.hostNameResolutionPolicy = HNRP_Whatever; }, "IPRESOLVE=0", org, true, HNRP_PreferIpv6},
      // Proxy: empty text means none at all (environment included), null leaves it to libcurl.
      {[](Params&) {}, "PROXY=''"},
      {[](Params& p) { p.proxyPolicy = PP_AutomaticProxy; }, "PROXY=null"},
      {[](Params& p) { p.proxyPolicy = PP_NoProxy; }, "PROXY=''", org, true, HNRP_Whatever, PP_AutomaticProxy},
      {[](Params& p) {
         p.proxyPolicy = PP_ManualProxy;
         p.manualProxyUrl = qz::Url("http://pu:pp@proxy.example:3128");
       },
       "PROXY='http://pu:pp@proxy.example:3128'"}, // credentials travel in the user-info
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    setDefaults(c.verifyDefault, c.ipDefault, c.proxyDefault);
    Params p;
    c.edit(p);
    qztest::LogCapture cap;
    EXPECT_THAT(render(p, c.target), HasSubstr(" " + c.expect + " ")) << "case " << i;
    HttpConnection conn; // the setter copies every field
    conn.setConnectionParameters(p);
    EXPECT_EQ(render(conn.getConnectionParameters(), c.target), render(p, c.target)) << "case " << i;
    EXPECT_TRUE(conn.getConnectionParameters().manualProxyUrl == p.manualProxyUrl) << "case " << i;
    EXPECT_EQ(cap.size(), 0u) << "case " << i << cap.dump();
  }
}

TEST_F(ParamsTest, InvalidManualProxyIsLoggedAndNotUsed) {
  Params p;
  p.proxyPolicy = PP_ManualProxy;
  qztest::LogCapture cap;
  EXPECT_THAT(render(p), HasSubstr(" PROXY='' "));
  EXPECT_TRUE(cap.has("http", "Manual proxy url is invalid " + p.manualProxyUrl.toDisplayableUrl() +
                                  " disable proxy for this call"))
      << cap.dump();
}

TEST_F(ParamsTest, ApplyOrsResultsOfEveryOption) {
  std::unique_ptr<CURL, CurlEasyDeleter> h(curl_easy_init());
  ASSERT_TRUE(h);
  HttpProxyFinder finder;
  Params p;
  EXPECT_EQ(p.applyParameters(h.get(), qz::Url("http://example.org/"), finder), 0);
  // A proxy text longer than libcurl accepts is refused; the result shows it.
  p.proxyPolicy = PP_ManualProxy;
  p.manualProxyUrl = qz::Url("http://proxy.example:3128");
  p.manualProxyUrl.host = std::string(9 * 1024 * 1024, 'p');
  EXPECT_NE(p.applyParameters(h.get(), qz::Url("http://example.org/"), finder), 0);
}

// A connection skips resolving when the key is unchanged, so records (and process defaults)
// with equal cacheable keys must resolve to the same options. Random records over small value
// sets collide often; a field the key forgot shows up as two results under one key.
TEST_F(ParamsTest, EqualKeysResolveAlike) {
  std::mt19937 rng(20261121);
  auto pick = [&](std::initializer_list<int> values) { return *(values.begin() + rng() % values.size()); };
  std::vector<std::pair<ResolvedParametersKey, std::string>> seen; // key, rendered options
  size_t collisions = 0;
  for (int i = 0; i < 20000; ++i) {
    setDefaults(rng() % 2, HostNameResolutionPolicy(pick({0, 1, 2, 3})), ProxyPolicy(pick({1, 3})));
    Params p;
    p.connectTimeoutSec = pick({-1, 0, 10});
    p.maxSendSpeed = pick({-1, 0, 5});
    p.maxRecvSpeed = pick({-1, 0, 5});
    p.lowSpeedLimit = pick({-1, 0, 10});
    p.lowSpeedTime = pick({0, 10});
    p.tcpKeepAlive = pick({-1, 0, 30});
    p.maxRedirects = pick({-2, 0, 3});
    p.verbose = pick({0, 1, 2});
    p.followLocation = rng() % 2;
    p.keepCookies = rng() % 2;
    p.sslValidatePolicy = SSLValidatePolicy(pick({0, 1, 2, 9}));
    p.hostNameResolutionPolicy = HostNameResolutionPolicy(pick({0, 1, 2, 3, 9}));
    p.proxyPolicy = ProxyPolicy(pick({0, 1, 3, 9}));
    const std::string target = rng() % 2 ? "https://127.0.0.1/" : "https://localhost/";
    const ResolvedParametersKey k = KeyOfParameters(p, qz::Url(target));
    if (!k.cacheable)
      continue;
    const std::string options = render(p, target);
    auto same = std::find_if(seen.begin(), seen.end(), [&](const auto& e) { return e.first == k; });
    if (same == seen.end()) {
      seen.emplace_back(k, options);
      continue;
    }
    ++collisions;
    ASSERT_EQ(same->second, options);
  }
  EXPECT_GT(collisions, 1000u); // the property was really exercised
}

} // namespace
