#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnection_p.h>

#include <HttpTools/frame/HttpProxyFinder.h>
#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpHelpers.h>

#include "support/LogCapture.h"
#include "support/NginxFixture.h"
#include "support/TestHttpServer.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

using namespace qz::http;
using testing::AllOf;
using testing::Eq;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using SetupFn = HttpConnection::SetupCallback;
using Params = HttpConnection::ConnectionParameters;

// A minimal set-up callback: the body goes to a string, nothing else.
size_t appendBody(char* data, size_t size, size_t n, void* user) {
  static_cast<std::string*>(user)->append(data, size * n);
  return size * n;
}
int collectBody(void* curl, void*, std::list<std::string>& extra) {
  extra.push_back("X-Extra: 1");
  return curl_easy_setopt(static_cast<CURL*>(curl), CURLOPT_WRITEFUNCTION, appendBody) |
         curl_easy_setopt(static_cast<CURL*>(curl), CURLOPT_NOPROGRESS, 1L);
}
testing::Matcher<std::string> curlError(CURLcode code) {
  return AllOf(StartsWith("HttpConnection error : Curl easy perform error after "),
               HasSubstr(" Curl error : " + std::to_string(code) + " (" + curl_easy_strerror(code) + ") "));
}

class Connection : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(srv.isRunning());
    srv.resetCounters();
  }
  // A path starting with '/' is on the shared server.
  bool get(HttpConnection& c, const std::string& url, long expectCode = 200, const std::string& type = "",
           SetupFn setup = collectBody) {
    body.clear();
    return c.getHttpData(qz::Url(url[0] == '/' ? srv.url(url) : url), type, expectCode, setup, &body);
  }
  qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared();
  std::string body;
};

// Outcome of each kind of call. HTTP-level failures keep the handle (and its TCP connection);
// libcurl-level and set-up failures drop it, so the next call connects again.
TEST_F(Connection, OutcomeAndHandleOfEachKindOfCall) {
  struct Case {
    std::string url;
    bool ok;
    testing::Matcher<std::string> message;
    bool dropsHandle;
    long code = 200;
    const char* type = "";
    void (*edit)(Params&) = nullptr;
    SetupFn setup = collectBody;
  };
  const std::string json = "/type?ct=application/json;%20charset=utf-8";
  auto refuse = [](void*, void*, std::list<std::string>&) { return 7; };
  auto hugeProxy = [](Params& p) { // longer than libcurl accepts: the set-up fails
    p.proxyPolicy = PP_ManualProxy;
    p.manualProxyUrl = qz::Url("http://proxy:3128");
    p.manualProxyUrl.host = std::string(9 * 1024 * 1024, 'p');
  };
  const std::vector<Case> cases{
      {"/status/503", false,
       Eq("HttpConnection error : bad html response code, got 503, expect 200 " + srv.url("/status/503") +
          " Http return code 503 "),
       false},
      // Any code when none (0 or negative) is expected, any type when none is; the type check is exact.
      {"/status/404", true, Eq("Http return code 404 "), false, 0},
      {json, false, HasSubstr(" : bad content type, got application/json; charset=utf-8, expect application/json "),
       false, 200, "application/json"},
      {"/redirect/3", true, Eq("Http return code 200 "), false}, // at most 3 by default
      {"/redirect/4", false, curlError(CURLE_TOO_MANY_REDIRECTS), true},
      {"/echo", false, Eq("HttpConnection error : User callback return and error "), true, 200, "", nullptr, refuse},
      {"/slow?blocks=20&size=1&delay=300", false, curlError(CURLE_OPERATION_TIMEDOUT), true, 200, "",
       [](Params& p) { p.lowSpeedTime = 1; }},
      {"/stall?ms=3000", false,
       AllOf(StartsWith("HttpConnection error : Total time-out of 300 ms reached, "), HasSubstr("Curl error : 28 (")),
       true, 200, "", [](Params& p) { p.totalTimeoutMs = 300; }},
      {"/echo", false, Eq("HttpConnection error : Fail to setupconnection "), true, 200, "", hugeProxy},
      // Bad input fails with a clear message and no crash.
      {"file:///etc/hostname", false,
       Eq("HttpConnection error : Unsupported scheme 'file', only http and https are requested "), false},
      {"http://bad host/", false, Eq("HttpConnection error : Invalid URL without a scheme, nothing sent "),
       false}, // unparsed: an empty URL
  };
  HttpConnection c;
  qztest::LogCapture quiet; // host changes and helper noise
  ASSERT_TRUE(get(c, "/echo"));
  for (const auto& k : cases) {
    const size_t before = srv.connectionCount();
    if (k.edit)
      k.edit(c.editConnectionParameters());
    EXPECT_EQ(get(c, k.url, k.code, k.type, k.setup), k.ok) << k.url;
    c.setConnectionParameters(Params());
    const std::string m = c.getLastErrorMsg();
    EXPECT_THAT(m, k.message) << k.url;
    EXPECT_EQ(c.isLastCallTimedOut(), m.find("Curl error : 28 (") != std::string::npos) << k.url;
    ASSERT_TRUE(get(c, "/echo")) << k.url << ": " << c.getLastErrorMsg();
    EXPECT_EQ(srv.connectionCount(), before + (k.dropsHandle ? 1 : 0)) << k.url;
  }
}

// Moving to another host:port goes on with a warning (once per change). The cookie engine keeps
// what a server sets for the connection's next requests, across requests of other shapes.
TEST_F(Connection, AnotherHostPortWarnsAndCookiesStayWithTheirConnection) {
  qztest::TestHttpServer own;
  own.installStandardRoutes();
  own.route("GET", "/login", [](const httplib::Request&, httplib::Response& res) {
    res.set_header("Set-Cookie", "session=abc; Path=/");
  });
  ASSERT_TRUE(own.start()) << own.lastError();
  HttpConnection c;
  ASSERT_TRUE(get(c, "/echo"));
  qztest::LogCapture cap;
  ASSERT_TRUE(get(c, own.url("/login")));
  ASSERT_TRUE(HttpHelpers::HttpPut(c, qz::Url(own.url("/echo")), "x", 200));
  EXPECT_EQ(own.lastRequest().header("Cookie"), "session=abc");
  ASSERT_TRUE(get(c, own.url("/echo")));
  EXPECT_EQ(own.lastRequest().header("Cookie"), "session=abc");
  // Once: the same host:port on other paths does not warn.
  EXPECT_EQ(cap.dump(), "[" + std::to_string(qz::qzLog::Warning) +
                            "] http: Http connection was reused with a different host:port " + srv.url("/echo") + " " +
                            own.url("/login") + "\n");
  HttpConnection other; // cookies belong to their connection
  ASSERT_TRUE(get(other, own.url("/echo")));
  EXPECT_EQ(own.lastRequest().header("Cookie"), "");
}

TEST(DebugLines, CredentialsAreRedactedWhateverTheCase) {
  EXPECT_EQ(RedactedHeaders("GET / HTTP/1.1\r\nauthorization: Bearer a.b.c\r\nHost: h\r\nCOOKIE: a=1; b=2\r\n"
                            "Proxy-Authorization: Basic eDp5\r\nX-Authorization: kept\r\nAuthorization:\r\n\r\n"),
            "GET / HTTP/1.1\r\nauthorization: Bearer [redacted]\r\nHost: h\r\nCOOKIE: [redacted]\r\n"
            "Proxy-Authorization: Basic [redacted]\r\nX-Authorization: kept\r\nAuthorization: [redacted]\r\n\r\n");
}

// A kept handle is reset when the set-up callback or the parameters change, and otherwise told
// only what changed: every change must still reach the wire, and nothing a foreign callback put on
// the handle (redirects off, its own header list and URL) may outlive its call.
int foreignOptions(void* curl, void* user, std::list<std::string>& extra) {
  static curl_slist* foreign = curl_slist_append(nullptr, "X-Foreign: 1");
  CURL* h = static_cast<CURL*>(curl);
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, foreign);
  curl_easy_setopt(h, CURLOPT_URL, "http://127.0.0.1:1/");
  return collectBody(curl, user, extra);
}

// A name that fails under the preferred family is tried once more with any, and the connection
// keeps that; not for an address literal, nor when the preference is the process default.
TEST_F(Connection, NameThatFailsUnderPreferredFamilyFallsBackForGood) {
  const std::string unresolvable = "http://" + qztest::kUnresolvableHost + "/";
  for (const auto& [own, processDefault, url, after] :
       {std::tuple{HNRP_PreferIpv4, HNRP_Whatever, unresolvable, HNRP_Whatever},
        {HNRP_PreferIpv6, HNRP_Whatever, srv.url("/echo"), HNRP_PreferIpv6},
        {HNRP_Default, HNRP_PreferIpv4, unresolvable, HNRP_Default}}) {
    qz::SetDefaultHostNameResolutionPolicy(processDefault);
    HttpConnection c;
    c.editConnectionParameters().hostNameResolutionPolicy = own;
    EXPECT_FALSE(get(c, url)) << url;
    EXPECT_EQ(c.getConnectionParameters().hostNameResolutionPolicy, after) << url;
  }
  qz::SetDefaultHostNameResolutionPolicy(HNRP_Whatever);
}

TEST_F(Connection, KeptHandleSeesEveryChange) {
  HttpConnection c;
  c.addCommonHeader("X-Trace: 6");
  c.addCommonHeader("X-Trace: 6"); // identical: ignored
  c.addCommonHeader("X-Trace: 7");
  c.editConnectionParameters().proxyPolicy = PP_ManualProxy; // invalid manual proxy: only logged
  qztest::LogCapture cap;
  ASSERT_TRUE(get(c, "/echo")) << c.getLastErrorMsg();
  EXPECT_TRUE(cap.hasPrefix("Manual proxy url is invalid ")) << cap.dump();
  // The status shows in the message even on success.
  const auto first = srv.lastRequest();
  EXPECT_EQ(std::to_string(c.getLastHttpReturnCode()) + " " + c.getLastReceivedType() + " " +
                c.getLastUrl().toEncodedUrl() + " " + c.getLastErrorMsg() +
                std::to_string(first.headerCount("X-Trace")) + first.header("X-Extra") + first.header("Connection"),
            "200 text/plain " + srv.url("/echo") + " Http return code 200 21Keep-Alive");
  EXPECT_NE(first.header("Accept-Encoding"), ""); // every encoding libcurl supports
  auto helperGet = [&](const std::string& path) { return HttpHelpers::HttpGet(c, qz::Url(srv.url(path))); };
  // Each call, its result, and the path and X-Trace header the server saw last.
  const std::vector<std::tuple<std::function<bool()>, bool, std::string>> steps{
      {[&] { return c.setCommonHeaders({}), c.setConnectionParameters(Params()), helperGet("/redirect/1"); }, true,
       "/redirect/0 "},
      {[&] { return c.editConnectionParameters().followLocation = false, helperGet("/redirect/1"); }, false,
       "/redirect/1 "},
      {[&] { return c.editConnectionParameters().followLocation = true, helperGet("/redirect/2"); }, true,
       "/redirect/0 "},
      {[&] { return c.addCommonHeader("X-Trace: 7"), helperGet("/echo"); }, true, "/echo 7"},
      {[&] { return c.setCommonHeaders({"X-Trace: 8"}), helperGet("/echo"); }, true, "/echo 8"},
      {[&] { return get(c, "/echo", 200, "", foreignOptions); }, true, "/echo 8"},
      {[&] { return helperGet("/redirect/1"); }, true, "/redirect/0 8"},
  };
  for (const auto& [call, ok, seen] : steps) {
    EXPECT_EQ(call(), ok) << seen << ": " << c.getLastErrorMsg();
    const auto req = srv.lastRequest();
    EXPECT_EQ(req.path + " " + req.header("X-Trace") + std::to_string(req.headerCount("X-Foreign")), seen + "0");
  }
  EXPECT_EQ(srv.connectionCount(), 1u); // resets keep the live connection
}

// TLS and interop against one nginx, started on first use and stopped at exit.
class Tls : public Connection {
protected:
  void SetUp() override { ASSERT_TRUE(nginx.isRunning() || nginx.start()) << nginx.lastError(); }
  static inline qztest::NginxFixture nginx;
};

// nginx's certificate is self-signed: verification fails unless disabled or given it as CA. The
// loopback exemption covers the exact host text 127.0.0.1 only (not localhost, nor a redirect to
// it), and can be switched off.
TEST_F(Tls, VerificationAndTheLoopbackExemption) {
  struct Restore {
    ~Restore() { qz::SetLoopbackCertificateExemption(true); }
  } restore;
  auto noVerify = [](Params& p) { p.sslValidatePolicy = SVP_NoVerify; };
  auto trustNginx = [](Params& p) { p.caFile = nginx.certificatePath(); };
  const std::string byName = "https://localhost:" + std::to_string(nginx.httpsPort()) + "/small";
  struct Case {
    std::string url;
    bool exemption, ok;
    void (*edit)(Params&) = nullptr;
  };
  const Case cases[] = {{byName, true, false},
                        {byName, true, true, noVerify},
                        {nginx.httpsUrl("/small"), true, true},
                        {nginx.httpsUrl("/to-localhost"), true, false},
                        {nginx.httpsUrl("/small"), false, false},
                        {nginx.httpsUrl("/to-localhost"), false, true, trustNginx}};
  for (const Case& k : cases) {
    qz::SetLoopbackCertificateExemption(k.exemption);
    HttpConnection c;
    if (k.edit)
      k.edit(c.editConnectionParameters());
    EXPECT_EQ(get(c, k.url), k.ok) << k.url << " " << k.exemption << ": " << c.getLastErrorMsg();
    EXPECT_EQ(c.isLastCallUnableToVerifyPeer(), !k.ok) << k.url;
    EXPECT_THAT(k.ok ? body : c.getLastErrorMsg(), HasSubstr(k.ok ? "ok" : "Curl internal error : ")) << k.url;
  }
}

// HttpGetJson with a body: sent as GET with its length and JSON type; nginx reads and drops it, and
// the kept-alive connection stays usable. The captured exchange shows no credentials.
TEST_F(Tls, GetJsonWithBody) {
  HttpConnection c;
  const long before = nginx.connectionCount();
  c.editConnectionParameters().verbose = 1;
  const std::string json = R"({"keys":[1,2]})";
  std::string out;
  const std::list<std::string> auth{"Authorization: Basic c2VjcmV0"};
  ASSERT_TRUE(
      HttpHelpers::HttpGetJson(c, qz::Url(nginx.httpsUrl("/json")), out, nullptr, nullptr, &auth, nullptr, &json, true))
      << c.getLastErrorMsg();
  EXPECT_EQ(out, R"({"ok":true})");
  EXPECT_THAT(c.getLastDebugInformations(),
              AllOf(HasSubstr("> GET /json HTTP/1.1\r\n"), HasSubstr("Content-Length: 14\r\n"),
                    HasSubstr("Content-Type:application/json\r\n"), HasSubstr("DataOut 14B"),
                    HasSubstr("Authorization: Basic [redacted]\r\n"), testing::Not(HasSubstr("c2VjcmV0"))));
  ASSERT_TRUE(HttpHelpers::HttpGetJson(c, qz::Url(nginx.httpsUrl("/json")), out));
  EXPECT_EQ(nginx.connectionCount() - before, 1);
}

// The decisions of the resolution: clamps, both-or-nothing pairs, and how each policy meets the
// process default and the loopback exemption.
TEST(ParamsTest, PoliciesMeetDefaultsAndExemption) {
  auto setDefaults = [](bool verify, HostNameResolutionPolicy ip, ProxyPolicy proxy, bool exemption) {
    qz::SetVerifySSLCertByDefault(verify);
    qz::SetDefaultHostNameResolutionPolicy(ip);
    qz::SetDefaultProxyPolicy(proxy);
    qz::SetLoopbackCertificateExemption(exemption);
  };
  struct Case {
    std::function<void(Params&)> edit;
    const char* expected; // low-speed limit/time, verify and exemption, address family, proxy ('-': libcurl's)
    const char* target = "https://example.org/";
    bool verifyDefault = true;
    HostNameResolutionPolicy ipDefault = HNRP_Whatever;
    ProxyPolicy proxyDefault = PP_NoProxy;
    bool exemption = true;
  };
  const char* org = "https://example.org/";
  auto none = [](Params&) {};
  const std::vector<Case> cases{
      {[](Params& p) { p.lowSpeedTime = 0; }, "0/0 10 0 []"},
      {[](Params& p) { p.lowSpeedLimit = 5; }, "5/10 10 0 []"},
      // Certificate checking: policy, process default, and the loopback exemption by exact text (on
      // the wire: the TLS tests).
      {[](Params& p) { p.sslValidatePolicy = SVP_VerifyPeerAndHost; }, "10/10 10 0 []", org, false},
      {none, "10/10 00 0 []", org, false},
      {[](Params& p) { p.sslValidatePolicy = SVP_NoVerify; }, "10/10 00 0 []"},
      {none, "10/10 11 0 []", "https://127.0.0.1:8443/"},
      {none, "10/10 10 0 []", "https://127.0.0.2/"},
      // Address family: own policy, or the process default when it is HNRP_Default.
      {none, "10/10 10 1 []", org, true, HNRP_PreferIpv4},
      {[](Params& p) { p.hostNameResolutionPolicy = HNRP_PreferIpv6; }, "10/10 10 2 []", org, true, HNRP_PreferIpv4},
      // Proxy: empty text means none at all (environment included), null leaves it to libcurl.
      {[](Params& p) { p.proxyPolicy = PP_AutomaticProxy; }, "10/10 10 0 -"},
      {[](Params& p) { p.proxyPolicy = PP_NoProxy; }, "10/10 10 0 []", org, true, HNRP_Whatever, PP_AutomaticProxy},
      {[](Params& p) { // credentials travel in the user-info
         p.proxyPolicy = PP_ManualProxy;
         p.manualProxyUrl = qz::Url("http://pu:pp@proxy.example:3128");
       },
       "10/10 10 0 [http://pu:pp@proxy.example:3128]"},
  };
  for (const Case& c : cases) {
    setDefaults(c.verifyDefault, c.ipDefault, c.proxyDefault, c.exemption);
    Params p;
    c.edit(p);
    HttpProxyFinder finder;
    ResolvedParameters r;
    qztest::LogCapture cap;
    ResolveConnectionParameters(p, qz::Url(c.target), finder, r);
    EXPECT_EQ(std::to_string(r.lowSpeedLimit) + "/" + std::to_string(r.lowSpeedTime) + " " +
                  std::to_string(r.verifyPeer) + std::to_string(r.loopbackExempt) + " " + std::to_string(r.ipResolve) +
                  " " + (r.proxyNull ? "-" : "[" + r.proxy + "]") + cap.dump(),
              c.expected)
        << c.target;
  }
  setDefaults(true, HNRP_Whatever, PP_NoProxy, true);
}

} // namespace
