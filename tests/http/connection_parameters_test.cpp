#include <HttpTools/http/HttpConnection.h>

#include <HttpTools/frame/HttpProxyFinder.h>
#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnection_p.h>

#include "support/LogCapture.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

using namespace qz::http;
using Params = HttpConnection::ConnectionParameters;

namespace {

ResolvedParameters resolve(const Params& p, const std::string& target = "https://example.org/") {
  HttpProxyFinder finder;
  ResolvedParameters r;
  ResolveConnectionParameters(p, qz::Url(target), finder, r);
  return r;
}

// Restores the process-wide defaults a test changes.
class ParamsTest : public testing::Test {
protected:
  void TearDown() override {
    setDefaults(true, HNRP_Whatever, PP_NoProxy);
    qz::SetLoopbackCertificateExemption(true);
  }
  static void setDefaults(bool verify, HostNameResolutionPolicy ip, ProxyPolicy proxy) {
    qz::SetVerifySSLCertByDefault(verify);
    qz::SetDefaultHostNameResolutionPolicy(ip);
    qz::SetDefaultProxyPolicy(proxy);
  }
};

// The decisions of the resolution: clamps, both-or-nothing pairs, and how each policy meets the
// process default and the loopback exemption.
TEST_F(ParamsTest, PoliciesMeetDefaultsAndExemption) {
  struct Case {
    std::function<void(Params&)> edit;
    std::function<bool(const ResolvedParameters&)> holds;
    const char* target = "https://example.org/";
    bool verifyDefault = true;
    HostNameResolutionPolicy ipDefault = HNRP_Whatever;
    ProxyPolicy proxyDefault = PP_NoProxy;
    bool exemption = true;
  };
  using R = const ResolvedParameters&;
  const char* org = "https://example.org/";
  const std::vector<Case> cases{
      {[](Params& p) { p.lowSpeedTime = 0; }, [](R r) { return r.lowSpeedLimit == 0 && r.lowSpeedTime == 0; }},
      {[](Params& p) { p.lowSpeedLimit = 5; }, [](R r) { return r.lowSpeedLimit == 5 && r.lowSpeedTime == 10; }},
      // Certificate checking: policy, process default, and the loopback exemption by exact text.
      {[](Params&) {}, [](R r) { return r.verifyPeer && !r.loopbackExempt; }},
      {[](Params& p) { p.sslValidatePolicy = SVP_VerifyPeerAndHost; }, [](R r) { return r.verifyPeer; }, org, false},
      {[](Params&) {}, [](R r) { return !r.verifyPeer; }, org, false},
      {[](Params& p) { p.sslValidatePolicy = SVP_NoVerify; }, [](R r) { return !r.verifyPeer && !r.loopbackExempt; }},
      {[](Params&) {}, [](R r) { return r.verifyPeer && r.loopbackExempt; }, "https://127.0.0.1:8443/"},
      {[](Params&) {}, [](R r) { return r.verifyPeer && !r.loopbackExempt; }, "https://127.0.0.1/", true, HNRP_Whatever,
       PP_NoProxy, false},
      {[](Params&) {}, [](R r) { return !r.loopbackExempt; }, "https://localhost/"},
      {[](Params&) {}, [](R r) { return !r.loopbackExempt; }, "https://[::1]/"},
      {[](Params&) {}, [](R r) { return !r.loopbackExempt; }, "https://127.0.0.2/"},
      // Address family: own policy, or the process default when it is HNRP_Default.
      {[](Params&) {}, [](R r) { return r.ipResolve == CURL_IPRESOLVE_V4; }, org, true, HNRP_PreferIpv4},
      {[](Params& p) { p.hostNameResolutionPolicy = HNRP_PreferIpv6; },
       [](R r) { return r.ipResolve == CURL_IPRESOLVE_V6; }, org, true, HNRP_PreferIpv4},
      {[](Params& p) { p.hostNameResolutionPolicy = HNRP_Whatever; },
       [](R r) { return r.ipResolve == CURL_IPRESOLVE_WHATEVER; }, org, true, HNRP_PreferIpv6},
      // Proxy: empty text means none at all (environment included), null leaves it to libcurl.
      {[](Params&) {}, [](R r) { return !r.proxyNull && r.proxy.empty(); }},
      {[](Params& p) { p.proxyPolicy = PP_AutomaticProxy; }, [](R r) { return r.proxyNull; }},
      {[](Params& p) { p.proxyPolicy = PP_NoProxy; }, [](R r) { return !r.proxyNull && r.proxy.empty(); }, org, true,
       HNRP_Whatever, PP_AutomaticProxy},
      {[](Params& p) {
         p.proxyPolicy = PP_ManualProxy;
         p.manualProxyUrl = qz::Url("http://pu:pp@proxy.example:3128");
       },
       [](R r) { return r.proxy == "http://pu:pp@proxy.example:3128"; }}, // credentials travel in the user-info
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    setDefaults(c.verifyDefault, c.ipDefault, c.proxyDefault);
    qz::SetLoopbackCertificateExemption(c.exemption);
    Params p;
    c.edit(p);
    qztest::LogCapture cap;
    EXPECT_TRUE(c.holds(resolve(p, c.target))) << "case " << i;
    EXPECT_EQ(cap.size(), 0u) << "case " << i << cap.dump();
  }
}

TEST_F(ParamsTest, InvalidManualProxyIsLoggedAndNotUsed) {
  Params p;
  p.proxyPolicy = PP_ManualProxy;
  qztest::LogCapture cap;
  const ResolvedParameters r = resolve(p);
  EXPECT_TRUE(!r.proxyNull && r.proxy.empty());
  EXPECT_TRUE(cap.has("http", "Manual proxy url is invalid " + p.manualProxyUrl.toDisplayableUrl() +
                                  " disable proxy for this call"))
      << cap.dump();
}

TEST_F(ParamsTest, ApplyOrsResultsOfEveryOption) {
  std::unique_ptr<CURL, CurlEasyDeleter> h(curl_easy_init());
  ASSERT_TRUE(h);
  HttpProxyFinder finder;
  Params p;
  p.caFile = "ca.pem";
  p.totalTimeoutMs = 500;
  p.maxBodyBytes = 1000;
  EXPECT_EQ(p.applyParameters(h.get(), qz::Url("https://127.0.0.1/"), finder), 0);
  // A proxy text longer than libcurl accepts is refused; the result shows it.
  p.proxyPolicy = PP_ManualProxy;
  p.manualProxyUrl = qz::Url("http://proxy.example:3128");
  p.manualProxyUrl.host = std::string(9 * 1024 * 1024, 'p');
  EXPECT_NE(p.applyParameters(h.get(), qz::Url("http://example.org/"), finder), 0);
}

} // namespace
