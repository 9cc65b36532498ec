#include <HttpTools/http/HttpConnection.h>

#include <HttpTools/frame/HttpProxyFinder.h>
#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnection_p.h>

#include "HttpTestEnv.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>

using namespace qz::http;
using Params = HttpConnection::ConnectionParameters;

namespace {

// Restores the process-wide defaults a test changes.
class ParamsTest : public testing::Test {
protected:
  void TearDown() override {
    qz::SetVerifySSLCertByDefault(true);
    qz::SetDefaultHostNameResolutionPolicy(HNRP_Whatever);
    qz::SetDefaultProxyPolicy(PP_NoProxy);
  }
  std::vector<CurlOptionValue> resolve(const Params& p, const std::string& target) {
    return ResolveConnectionParameters(p, qz::Url(target), finder);
  }
  static const CurlOptionValue& get(const std::vector<CurlOptionValue>& v, CURLoption o) {
    for (const auto& x : v)
      if (x.option == o)
        return x;
    static CurlOptionValue missing{CURLOPT_LASTENTRY, CurlOptionValue::Null, -999, "missing"};
    return missing;
  }
  HttpProxyFinder finder;
};

TEST_F(ParamsTest, DefaultsAndOptionOrder) {
  Params p;
  EXPECT_EQ(p.connectTimeoutSec, 10);
  EXPECT_EQ(p.lowSpeedLimit, 10);
  EXPECT_EQ(p.lowSpeedTime, 10);
  EXPECT_EQ(p.tcpKeepAlive, -1);
  EXPECT_EQ(p.maxRedirects, 3);
  EXPECT_FALSE(p.manualProxyUrl.isValid());
  EXPECT_TRUE(p.followLocation);
  EXPECT_TRUE(p.keepCookies);

  auto v = resolve(p, "https://example.org/");
  const std::vector<CURLoption> order{CURLOPT_FOLLOWLOCATION,
                                      CURLOPT_MAXREDIRS,
                                      CURLOPT_REDIR_PROTOCOLS_STR,
                                      CURLOPT_CONNECTTIMEOUT,
                                      CURLOPT_MAX_RECV_SPEED_LARGE,
                                      CURLOPT_MAX_SEND_SPEED_LARGE,
                                      CURLOPT_COOKIESESSION,
                                      CURLOPT_COOKIEJAR,
                                      CURLOPT_LOW_SPEED_LIMIT,
                                      CURLOPT_LOW_SPEED_TIME,
                                      CURLOPT_TCP_KEEPALIVE,
                                      CURLOPT_TCP_KEEPIDLE,
                                      CURLOPT_TCP_KEEPINTVL,
                                      CURLOPT_VERBOSE,
                                      CURLOPT_IPRESOLVE,
                                      CURLOPT_SSL_VERIFYPEER,
                                      CURLOPT_SSL_VERIFYHOST,
                                      CURLOPT_PROXY};
  ASSERT_EQ(v.size(), order.size());
  for (size_t i = 0; i < order.size(); ++i)
    EXPECT_EQ(v[i].option, order[i]) << "step " << i;
  EXPECT_EQ(get(v, CURLOPT_REDIR_PROTOCOLS_STR).text, "http,https");
  EXPECT_EQ(get(v, CURLOPT_COOKIEJAR).text, "/dev/null");
  EXPECT_EQ(get(v, CURLOPT_COOKIESESSION).number, 0);
  EXPECT_EQ(get(v, CURLOPT_SSL_VERIFYPEER).number, 1);
  EXPECT_EQ(get(v, CURLOPT_SSL_VERIFYHOST).number, 2);
  EXPECT_EQ(get(v, CURLOPT_PROXY).kind, CurlOptionValue::Text);
  EXPECT_EQ(get(v, CURLOPT_PROXY).text, ""); // load-time default PP_NoProxy: no proxy, no environment
}

struct NumericCase {
  const char* name;
  std::function<void(Params&)> edit;
  std::map<CURLoption, long long> expect;
};

TEST_F(ParamsTest, NumericOptionsClampAndSwitch) {
  const std::vector<NumericCase> cases{
      {"negatives become 0",
       [](Params& p) {
         p.maxRedirects = -5;
         p.connectTimeoutSec = -1;
         p.maxRecvSpeed = -7;
         p.maxSendSpeed = -8;
       },
       {{CURLOPT_MAXREDIRS, 0},
        {CURLOPT_CONNECTTIMEOUT, 0},
        {CURLOPT_MAX_RECV_SPEED_LARGE, 0},
        {CURLOPT_MAX_SEND_SPEED_LARGE, 0}}},
      {"speeds and timeout pass through",
       [](Params& p) {
         p.maxRecvSpeed = 1000;
         p.maxSendSpeed = 2000;
         p.connectTimeoutSec = 3;
       },
       {{CURLOPT_MAX_RECV_SPEED_LARGE, 1000}, {CURLOPT_MAX_SEND_SPEED_LARGE, 2000}, {CURLOPT_CONNECTTIMEOUT, 3}}},
      {"low speed needs both",
       [](Params& p) { p.lowSpeedTime = 0; },
       {{CURLOPT_LOW_SPEED_LIMIT, 0}, {CURLOPT_LOW_SPEED_TIME, 0}}},
      {"low speed limit 0",
       [](Params& p) { p.lowSpeedLimit = 0; },
       {{CURLOPT_LOW_SPEED_LIMIT, 0}, {CURLOPT_LOW_SPEED_TIME, 0}}},
      {"low speed both set",
       [](Params& p) {
         p.lowSpeedLimit = 5;
         p.lowSpeedTime = 7;
       },
       {{CURLOPT_LOW_SPEED_LIMIT, 5}, {CURLOPT_LOW_SPEED_TIME, 7}}},
      {"keep-alive off at -1",
       [](Params&) {},
       {{CURLOPT_TCP_KEEPALIVE, 0}, {CURLOPT_TCP_KEEPIDLE, 10}, {CURLOPT_TCP_KEEPINTVL, 10}}},
      {"keep-alive off at 0",
       [](Params& p) { p.tcpKeepAlive = 0; },
       {{CURLOPT_TCP_KEEPALIVE, 0}, {CURLOPT_TCP_KEEPIDLE, 10}, {CURLOPT_TCP_KEEPINTVL, 10}}},
      {"keep-alive on",
       [](Params& p) { p.tcpKeepAlive = 30; },
       {{CURLOPT_TCP_KEEPALIVE, 1}, {CURLOPT_TCP_KEEPIDLE, 30}, {CURLOPT_TCP_KEEPINTVL, 30}}},
      {"no redirects followed",
       [](Params& p) { p.followLocation = false; },
       {{CURLOPT_FOLLOWLOCATION, 0}, {CURLOPT_MAXREDIRS, 3}}},
      {"verbose any non-zero", [](Params& p) { p.verbose = 2; }, {{CURLOPT_VERBOSE, 1}}},
      {"no cookie store", [](Params& p) { p.keepCookies = false; }, {{CURLOPT_COOKIESESSION, 1}}},
  };
  for (const auto& c : cases) {
    Params p;
    c.edit(p);
    auto v = resolve(p, "http://example.org/");
    for (const auto& [opt, value] : c.expect)
      EXPECT_EQ(get(v, opt).number, value) << c.name << " option " << opt;
  }
  Params p;
  p.keepCookies = false;
  EXPECT_EQ(get(resolve(p, "http://example.org/"), CURLOPT_COOKIEJAR).kind, CurlOptionValue::Null);
}

TEST_F(ParamsTest, CertificateCheckingFollowsPolicyDefaultAndLoopbackText) {
  struct Case {
    SSLValidatePolicy policy;
    bool defaultVerify;
    const char* target;
    bool verify;
  };
  const std::vector<Case> cases{
      {SVP_DefaultBehavior, true, "https://example.org/", true},
      {SVP_DefaultBehavior, false, "https://example.org/", false},
      {SVP_VerifyPeerAndHost, false, "https://example.org/", true},
      {SVP_NoVerify, true, "https://example.org/", false},
      {SVP_DefaultBehavior, true, "https://127.0.0.1:8443/", false}, // exemption by exact text
      {SVP_VerifyPeerAndHost, true, "https://127.0.0.1/", false},
      {SVP_DefaultBehavior, true, "https://localhost/", true},
      {SVP_DefaultBehavior, true, "https://[::1]/", true},
      {SVP_DefaultBehavior, true, "https://127.0.0.2/", true},
  };
  for (const auto& c : cases) {
    qz::SetVerifySSLCertByDefault(c.defaultVerify);
    Params p;
    p.sslValidatePolicy = c.policy;
    auto v = resolve(p, c.target);
    EXPECT_EQ(get(v, CURLOPT_SSL_VERIFYPEER).number, c.verify ? 1 : 0) << c.target << " policy " << c.policy;
    EXPECT_EQ(get(v, CURLOPT_SSL_VERIFYHOST).number, c.verify ? 2 : 0) << c.target << " policy " << c.policy;
  }
}

TEST_F(ParamsTest, ResolutionPolicyMapsToIpResolve) {
  struct Case {
    HostNameResolutionPolicy own, processDefault;
    long expect;
  };
  const std::vector<Case> cases{
      {HNRP_Default, HNRP_Whatever, CURL_IPRESOLVE_WHATEVER}, {HNRP_Default, HNRP_PreferIpv4, CURL_IPRESOLVE_V4},
      {HNRP_Default, HNRP_PreferIpv6, CURL_IPRESOLVE_V6},     {HNRP_PreferIpv6, HNRP_PreferIpv4, CURL_IPRESOLVE_V6},
      {HNRP_PreferIpv4, HNRP_Whatever, CURL_IPRESOLVE_V4},    {HNRP_Whatever, HNRP_PreferIpv6, CURL_IPRESOLVE_WHATEVER},
  };
  for (const auto& c : cases) {
    qz::SetDefaultHostNameResolutionPolicy(c.processDefault);
    Params p;
    p.hostNameResolutionPolicy = c.own;
    EXPECT_EQ(get(resolve(p, "http://example.org/"), CURLOPT_IPRESOLVE).number, c.expect)
        << "own " << c.own << " default " << c.processDefault;
  }
}

TEST_F(ParamsTest, ProxyChoice) {
  Params p;
  // Automatic: the finder finds nothing on Linux, so the option is null (libcurl's environment).
  p.proxyPolicy = PP_AutomaticProxy;
  EXPECT_EQ(get(resolve(p, "http://example.org/"), CURLOPT_PROXY).kind, CurlOptionValue::Null);
  // Default policy follows the process default.
  p.proxyPolicy = PP_Default;
  qz::SetDefaultProxyPolicy(PP_AutomaticProxy);
  EXPECT_EQ(get(resolve(p, "http://example.org/"), CURLOPT_PROXY).kind, CurlOptionValue::Null);
  qz::SetDefaultProxyPolicy(PP_NoProxy);
  EXPECT_EQ(get(resolve(p, "http://example.org/"), CURLOPT_PROXY).kind, CurlOptionValue::Text);
  p.proxyPolicy = PP_NoProxy;
  EXPECT_EQ(get(resolve(p, "http://example.org/"), CURLOPT_PROXY).kind, CurlOptionValue::Text);
  EXPECT_EQ(get(resolve(p, "http://example.org/"), CURLOPT_PROXY).text, "");

  // Manual with credentials: they travel in the proxy URL's user-info.
  p.proxyPolicy = PP_ManualProxy;
  p.manualProxyUrl = qz::Url("http://pu:pp@proxy.example:3128");
  {
    qztest::LogCapture cap;
    EXPECT_EQ(get(resolve(p, "http://example.org/"), CURLOPT_PROXY).text, "http://pu:pp@proxy.example:3128");
    EXPECT_EQ(cap.size(), 0u);
  }
  // Manual but invalid: logged, then no proxy.
  p.manualProxyUrl = qz::Url(qz::Url::ClearAll);
  qztest::LogCapture cap;
  auto v = resolve(p, "http://example.org/");
  EXPECT_EQ(get(v, CURLOPT_PROXY).kind, CurlOptionValue::Text);
  EXPECT_EQ(get(v, CURLOPT_PROXY).text, "");
  EXPECT_TRUE(cap.has("http", "Manual proxy url is invalid " + p.manualProxyUrl.toDisplayableUrl() +
                                  " disable proxy for this call"))
      << cap.dump();
}

TEST_F(ParamsTest, ApplyOrsResultsAndSetsEveryOption) {
  std::unique_ptr<CURL, CurlEasyDeleter> h(curl_easy_init());
  ASSERT_TRUE(h);
  Params p;
  EXPECT_EQ(p.applyParameters(h.get(), qz::Url("http://example.org/"), finder), 0);
  // A proxy text longer than libcurl accepts is refused; the result shows it.
  p.proxyPolicy = PP_ManualProxy;
  p.manualProxyUrl = qz::Url("http://proxy.example:3128");
  p.manualProxyUrl.host = std::string(9 * 1024 * 1024, 'p');
  EXPECT_NE(p.applyParameters(h.get(), qz::Url("http://example.org/"), finder), 0);
}

TEST_F(ParamsTest, SetConnectionParametersCopiesEveryField) {
  Params p;
  p.connectTimeoutSec = 1;
  p.maxSendSpeed = 2;
  p.maxRecvSpeed = 3;
  p.lowSpeedLimit = 4;
  p.lowSpeedTime = 5;
  p.tcpKeepAlive = 6;
  p.maxRedirects = 7;
  p.sslValidatePolicy = SVP_NoVerify;
  p.hostNameResolutionPolicy = HNRP_PreferIpv4;
  p.proxyPolicy = PP_ManualProxy;
  p.manualProxyUrl = qz::Url("http://u:p@proxy:8080/a/b?x=1");
  p.verbose = 2;
  p.followLocation = false;
  p.keepCookies = false;
  HttpConnection conn;
  conn.setConnectionParameters(p);
  const Params& c = conn.getConnectionParameters();
  EXPECT_EQ(c.connectTimeoutSec, 1);
  EXPECT_EQ(c.maxSendSpeed, 2);
  EXPECT_EQ(c.maxRecvSpeed, 3);
  EXPECT_EQ(c.lowSpeedLimit, 4);
  EXPECT_EQ(c.lowSpeedTime, 5);
  EXPECT_EQ(c.tcpKeepAlive, 6);
  EXPECT_EQ(c.maxRedirects, 7);
  EXPECT_EQ(c.sslValidatePolicy, SVP_NoVerify);
  EXPECT_EQ(c.hostNameResolutionPolicy, HNRP_PreferIpv4);
  EXPECT_EQ(c.proxyPolicy, PP_ManualProxy);
  EXPECT_TRUE(c.manualProxyUrl == p.manualProxyUrl);
  EXPECT_EQ(c.manualProxyUrl.password, "p");
  EXPECT_EQ(c.verbose, 2);
  EXPECT_FALSE(c.followLocation);
  EXPECT_FALSE(c.keepCookies);
  conn.editConnectionParameters().maxRedirects = 9;
  EXPECT_EQ(conn.getConnectionParameters().maxRedirects, 9);
}

} // namespace
