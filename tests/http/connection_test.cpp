#include <HttpTools/http/HttpConnection.h>

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpHelpers.h>
#include <HttpTools/platform/qzIoDevice.h>

#include "HttpTestEnv.h"
#include "support/LogCapture.h"
#include "support/NginxFixture.h"
#include "support/TestHttpServer.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <fstream>

using namespace qz::http;

namespace {

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
int refuse(void*, void*, std::list<std::string>&) { return 7; }

class Connection : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(srv.isRunning());
    srv.resetCounters();
  }
  bool get(HttpConnection& c, const std::string& path, long expectCode = 200, const std::string& type = "") {
    body.clear();
    return c.getHttpData(qz::Url(srv.url(path)), type, expectCode, collectBody, &body);
  }
  qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared();
  std::string body;
};

TEST_F(Connection, SuccessRecordsOutcomeAndSendsHeaders) {
  HttpConnection c;
  c.addCommonHeader("X-Common: a");
  c.addCommonHeader("X-Common: a"); // identical: ignored
  c.addCommonHeader("X-Common: b");
  EXPECT_EQ(c.getCommonHeaders(), (std::list<std::string>{"X-Common: a", "X-Common: b"}));
  ASSERT_TRUE(get(c, "/echo")) << c.getLastErrorMsg();
  EXPECT_EQ(c.getLastHttpReturnCode(), 200);
  EXPECT_EQ(c.getLastReceivedType(), "text/plain");
  EXPECT_EQ(c.getLastErrorMsg(), "Http return code 200 "); // the status shows even on success
  EXPECT_EQ(c.getLastUrl().toEncodedUrl(), srv.url("/echo"));
  auto r = srv.lastRequest();
  EXPECT_EQ(r.headerCount("X-Common"), 2u);
  EXPECT_EQ(r.header("X-Extra"), "1");
  EXPECT_EQ(r.header("Connection"), "Keep-Alive");
  EXPECT_NE(r.header("Accept-Encoding"), ""); // every encoding libcurl supports
  c.setCommonHeaders({});
  ASSERT_TRUE(get(c, "/echo"));
  EXPECT_EQ(srv.lastRequest().headerCount("X-Common"), 0u);
}

TEST_F(Connection, HttpLevelFailureKeepsHandleLibcurlFailureDropsIt) {
  HttpConnection c;
  ASSERT_TRUE(get(c, "/echo"));
  EXPECT_FALSE(get(c, "/status/503"));
  EXPECT_EQ(c.getLastErrorMsg(), "HttpConnection error : bad html response code, got 503, expect 200 " +
                                     srv.url("/status/503") + " Http return code 503 ");
  EXPECT_FALSE(get(c, "/type?ct=text/html", 200, "application/json"));
  EXPECT_EQ(c.getLastErrorMsg(), "HttpConnection error : bad content type, got text/html, expect application/json " +
                                     qz::Url(srv.url("/type?ct=text/html")).toDisplayableUrl() +
                                     " Http return code 200 ");
  ASSERT_TRUE(get(c, "/echo"));
  EXPECT_EQ(srv.connectionCount(), 1u); // same TCP connection all along

  // A libcurl-level failure (truncated body) drops the handle: the next call connects again.
  EXPECT_FALSE(get(c, "/truncated"));
  EXPECT_EQ(c.getLastHttpReturnCode(), 200);
  const std::string msg = c.getLastErrorMsg();
  EXPECT_EQ(msg.rfind("HttpConnection error : Curl easy perform error after ", 0), 0u) << msg;
  EXPECT_NE(msg.find(", " + srv.url("/truncated") + " Http return code 200 Curl error : 18 (" +
                     curl_easy_strerror(CURLE_PARTIAL_FILE) + ") Curl internal error : "),
            std::string::npos)
      << msg;
  ASSERT_TRUE(get(c, "/echo"));
  EXPECT_EQ(srv.connectionCount(), 2u);

  // So does an explicit clearConnection.
  c.clearConnection();
  ASSERT_TRUE(get(c, "/echo"));
  EXPECT_EQ(srv.connectionCount(), 3u);
}

TEST_F(Connection, AnyCodeAndAnyTypeWhenNotExpected) {
  HttpConnection c;
  for (long expect : {0L, -1L}) {
    EXPECT_TRUE(get(c, "/status/404", expect)) << c.getLastErrorMsg();
    EXPECT_EQ(c.getLastHttpReturnCode(), 404);
  }
  EXPECT_TRUE(get(c, "/type?ct=application/json;%20charset=utf-8", 200, ""));
  EXPECT_EQ(c.getLastReceivedType(), "application/json; charset=utf-8");
  // The type check is exact, parameters included.
  EXPECT_FALSE(get(c, "/type?ct=application/json;%20charset=utf-8", 200, "application/json"));
}

TEST_F(Connection, CallbackRefusalAbortsAndDropsHandle) {
  HttpConnection c;
  ASSERT_TRUE(get(c, "/echo"));
  EXPECT_FALSE(c.getHttpData(qz::Url(srv.url("/echo")), "", 200, refuse, nullptr));
  EXPECT_EQ(c.getLastErrorMsg(), "HttpConnection error : User callback return and error ");
  ASSERT_TRUE(get(c, "/echo"));
  EXPECT_EQ(srv.connectionCount(), 2u);
}

TEST_F(Connection, TimeOutIsReportedAndDropsHandle) {
  HttpConnection c;
  auto setupWithTimeout = [](void* curl, void* user, std::list<std::string>& extra) {
    curl_easy_setopt(static_cast<CURL*>(curl), CURLOPT_TIMEOUT_MS, 300L);
    return collectBody(curl, user, extra);
  };
  EXPECT_FALSE(c.getHttpData(qz::Url(srv.url("/stall?ms=3000")), "", 200, setupWithTimeout, &body));
  EXPECT_TRUE(c.isLastCallTimedOut());
  EXPECT_FALSE(c.isLastCallUnableToVerifyPeer());
  EXPECT_NE(c.getLastErrorMsg().find("Curl error : 28 ("), std::string::npos) << c.getLastErrorMsg();
  ASSERT_TRUE(get(c, "/echo"));
  EXPECT_FALSE(c.isLastCallTimedOut());
}

TEST_F(Connection, LowSpeedLimitAbortsSlowBody) {
  HttpConnection c;
  c.editConnectionParameters().lowSpeedLimit = 1000;
  c.editConnectionParameters().lowSpeedTime = 1;
  EXPECT_FALSE(get(c, "/slow?blocks=30&size=10&delay=200"));
  EXPECT_TRUE(c.isLastCallTimedOut()) << c.getLastErrorMsg();
}

TEST_F(Connection, ReuseForAnotherHostPortLogsAndGoesOn) {
  qztest::TestHttpServer other;
  other.installStandardRoutes();
  ASSERT_TRUE(other.start()) << other.lastError();
  HttpConnection c;
  ASSERT_TRUE(get(c, "/echo"));
  qztest::LogCapture cap;
  body.clear();
  EXPECT_TRUE(c.getHttpData(qz::Url(other.url("/echo")), "", 200, collectBody, &body));
  EXPECT_TRUE(cap.has("http", "Http connection was reused with a different host:port " + srv.url("/echo") + " " +
                                  other.url("/echo")))
      << cap.dump();
  EXPECT_EQ(cap.lines().at(0).type, qz::qzLog::Warning);
  cap.clear();
  EXPECT_TRUE(c.getHttpData(qz::Url(other.url("/status/200")), "", 200, collectBody, &body));
  EXPECT_EQ(cap.size(), 0u); // same host:port, other path
}

TEST_F(Connection, RedirectsFollowedUpToTheLimit) {
  HttpConnection c;
  ASSERT_TRUE(get(c, "/redirect/3"));
  EXPECT_EQ(body, "landed");
  EXPECT_FALSE(get(c, "/redirect/4")); // default maximum is 3
  EXPECT_NE(c.getLastErrorMsg().find("Curl error : 47 ("), std::string::npos) << c.getLastErrorMsg();
  c.editConnectionParameters().followLocation = false;
  EXPECT_FALSE(get(c, "/redirect/1"));
  EXPECT_EQ(c.getLastHttpReturnCode(), 302);
  EXPECT_TRUE(get(c, "/redirect/1", 302));
}

TEST_F(Connection, VerboseCapturesDebugAndLogsItAtLevelTwo) {
  HttpConnection c;
  c.editConnectionParameters().verbose = 1;
  qztest::LogCapture cap;
  ASSERT_TRUE(get(c, "/bytes?n=100"));
  const std::string& dbg = c.getLastDebugInformations();
  EXPECT_NE(dbg.find("> GET /bytes?n=100 HTTP/1.1\r\n"), std::string::npos) << dbg;
  EXPECT_NE(dbg.find("< HTTP/1.1 200 OK\r\n"), std::string::npos) << dbg;
  EXPECT_NE(dbg.find("DataIn 100B"), std::string::npos) << dbg;
  EXPECT_EQ(dbg.find("abcdefghij"), std::string::npos); // payload is never copied
  for (const auto& l : cap.lines())
    EXPECT_NE(l.category, "curl");
  c.editConnectionParameters().verbose = 2;
  ASSERT_TRUE(get(c, "/bytes?n=10"));
  EXPECT_TRUE(cap.hasPrefix("Curl debug output \n")) << cap.dump();
  c.editConnectionParameters().verbose = 0;
  ASSERT_TRUE(get(c, "/bytes?n=10"));
  EXPECT_EQ(c.getLastDebugInformations(), "");
}

// Bad input: every case fails with a clear message and no crash.
TEST_F(Connection, BadInputFailsWithMessage) {
  const int closedPort = qztest::FreeLoopbackPort();
  struct Case {
    std::string url;
    const char* expectInMessage;
  };
  const std::vector<Case> cases{
      {"http://127.0.0.1:" + std::to_string(closedPort) + "/", "Curl error : 7 ("},
      {"notascheme://127.0.0.1/", "Curl error : 1 ("},
      {"http://no-such-host.invalid/", "Curl error : 6 ("},
      {"http://bad host/", "Curl error : "}, // does not parse: an empty URL reaches libcurl
  };
  for (const auto& k : cases) {
    HttpConnection c;
    std::string out;
    qztest::LogCapture quiet;
    EXPECT_FALSE(c.getHttpData(qz::Url(k.url), "", 200, collectBody, &out)) << k.url;
    EXPECT_NE(c.getLastErrorMsg().find(k.expectInMessage), std::string::npos) << k.url << ": " << c.getLastErrorMsg();
    EXPECT_EQ(c.getLastErrorMsg().rfind("HttpConnection error : ", 0), 0u) << c.getLastErrorMsg();
  }
  // An invalid manual proxy is only logged: the request goes out directly.
  HttpConnection c;
  c.editConnectionParameters().proxyPolicy = PP_ManualProxy;
  qztest::LogCapture cap;
  EXPECT_TRUE(get(c, "/echo")) << c.getLastErrorMsg();
  EXPECT_TRUE(cap.hasPrefix("Manual proxy url is invalid ")) << cap.dump();
  // An option libcurl refuses makes the set-up fail.
  c.editConnectionParameters().manualProxyUrl = qz::Url("http://proxy:3128");
  c.editConnectionParameters().manualProxyUrl.host = std::string(9 * 1024 * 1024, 'p');
  EXPECT_FALSE(get(c, "/echo"));
  EXPECT_EQ(c.getLastErrorMsg(), "HttpConnection error : Fail to setupconnection ");
}

TEST_F(Connection, NameThatFailsUnderPreferredFamilyIsRetriedOnce) {
  HttpConnection c;
  c.editConnectionParameters().hostNameResolutionPolicy = HNRP_PreferIpv4;
  c.editConnectionParameters().connectTimeoutSec = 2;
  EXPECT_FALSE(c.getHttpData(qz::Url("http://no-such-host.invalid/"), "", 200, collectBody, &body));
  EXPECT_EQ(c.getConnectionParameters().hostNameResolutionPolicy, HNRP_Whatever); // lasting change

  // A literal address is never retried; neither is the default policy even when the process
  // default prefers a family.
  HttpConnection lit;
  lit.editConnectionParameters().hostNameResolutionPolicy = HNRP_PreferIpv6;
  EXPECT_FALSE(lit.getHttpData(qz::Url(srv.url("/echo")), "", 200, collectBody, &body)); // v4 literal, v6 only
  EXPECT_EQ(lit.getConnectionParameters().hostNameResolutionPolicy, HNRP_PreferIpv6);
  qz::SetDefaultHostNameResolutionPolicy(HNRP_PreferIpv4);
  HttpConnection def;
  EXPECT_FALSE(def.getHttpData(qz::Url("http://no-such-host.invalid/"), "", 200, collectBody, &body));
  EXPECT_EQ(def.getConnectionParameters().hostNameResolutionPolicy, HNRP_Default);
  qz::SetDefaultHostNameResolutionPolicy(HNRP_Whatever);
}

TEST_F(Connection, RefusesToRunBeforeInitialisation) {
  qz::terminateHttpTools();
  ASSERT_FALSE(qz::IsHttpToolsInitialized());
  {
    qztest::LogCapture cap;
    HttpConnection c;
    EXPECT_FALSE(get(c, "/echo"));
    EXPECT_EQ(c.getLastErrorMsg(), "HttpConnection error : Fail to setupconnection ");
    ASSERT_EQ(cap.size(), 1u);
    EXPECT_EQ(cap.lines()[0].text, "HttpTools library not initialized.");
    EXPECT_EQ(cap.lines()[0].type, qz::qzLog::Error);
  }
  qz::initializeHttpTools(true, HNRP_Whatever, PP_NoProxy);
}

// TLS against nginx: verification, the 127.0.0.1 exemption and keep-alive reuse.
class Tls : public testing::Test /* nginx with TLS */ {
protected:
  static void SetUpTestSuite() {
    nginx = new qztest::NginxFixture;
    startError = nginx->start() ? "" : nginx->lastError();
  }
  static void TearDownTestSuite() {
    delete nginx;
    nginx = nullptr;
  }
  void SetUp() override { ASSERT_EQ(startError, "") << startError; }
  static inline qztest::NginxFixture* nginx = nullptr;
  static inline std::string startError;
  std::string body;
};

TEST_F(Tls, VerificationFailsOnSelfSignedUnlessDisabledOrLoopbackText) {
  const std::string byName = "https://localhost:" + std::to_string(nginx->httpsPort()) + "/small";
  HttpConnection c;
  c.editConnectionParameters().hostNameResolutionPolicy = HNRP_Whatever;
  EXPECT_FALSE(c.getHttpData(qz::Url(byName), "", 200, collectBody, &body));
  EXPECT_TRUE(c.isLastCallUnableToVerifyPeer()) << c.getLastErrorMsg();
  EXPECT_NE(c.getLastErrorMsg().find("Curl internal error : "), std::string::npos);

  c.editConnectionParameters().sslValidatePolicy = SVP_NoVerify;
  body.clear();
  EXPECT_TRUE(c.getHttpData(qz::Url(byName), "", 200, collectBody, &body)) << c.getLastErrorMsg();
  EXPECT_EQ(body, "ok");

  HttpConnection loop; // verification on by default, exempt by the exact loopback text
  body.clear();
  EXPECT_TRUE(loop.getHttpData(qz::Url(nginx->httpsUrl("/small")), "", 200, collectBody, &body))
      << loop.getLastErrorMsg();
  EXPECT_EQ(body, "ok");
}

TEST_F(Tls, KeepAliveReuseIsVisibleInNginxCount) {
  const long before = nginx->connectionCount();
  HttpConnection c;
  for (int i = 0; i < 5; ++i) {
    body.clear();
    ASSERT_TRUE(c.getHttpData(qz::Url(nginx->httpsUrl("/small")), "", 200, collectBody, &body)) << c.getLastErrorMsg();
  }
  EXPECT_EQ(nginx->connectionCount() - before, 1);
  c.clearConnection();
  ASSERT_TRUE(c.getHttpData(qz::Url(nginx->httpsUrl("/small")), "", 200, collectBody, &body));
  EXPECT_EQ(nginx->connectionCount() - before, 2);
}

// HttpGetJson with a body: sent as GET with its length and JSON type; nginx reads and drops it,
// and the kept-alive connection stays usable.
TEST_F(Tls, GetJsonWithBodyOverKeptAliveConnection) {
  HttpConnection c;
  c.editConnectionParameters().verbose = 1;
  const std::string body = R"({"keys":[1,2]})";
  std::string out;
  const long before = nginx->connectionCount();
  ASSERT_TRUE(qz::http::HttpHelpers::HttpGetJson(c, qz::Url(nginx->httpUrl("/json")), out, nullptr, nullptr, nullptr,
                                                 nullptr, &body, true))
      << c.getLastErrorMsg();
  EXPECT_EQ(out, R"({"ok":true})");
  const std::string& dbg = c.getLastDebugInformations();
  EXPECT_NE(dbg.find("> GET /json HTTP/1.1\r\n"), std::string::npos) << dbg;
  EXPECT_NE(dbg.find("Content-Length: 14\r\n"), std::string::npos) << dbg;
  EXPECT_NE(dbg.find("Content-Type:application/json\r\n"), std::string::npos) << dbg;
  EXPECT_NE(dbg.find("DataOut 14B"), std::string::npos) << dbg;
  ASSERT_TRUE(qz::http::HttpHelpers::HttpGetJson(c, qz::Url(nginx->httpUrl("/json")), out));
  EXPECT_EQ(nginx->connectionCount() - before, 1);
}

// A download into a device: exact bytes of a file served by nginx.
TEST_F(Tls, DownloadIntoDeviceOverTls) {
  std::string content(300000, '\0');
  for (size_t i = 0; i < content.size(); ++i)
    content[i] = char(i * 131 % 251);
  {
    std::ofstream f(nginx->filesDir() + "/blob.bin", std::ios::binary);
    f << content;
  }
  HttpConnection c;
  qz::qzIoDeviceMemory dev;
  qz::http::HttpHelpers::HttpResult r;
  r.outputDevice = &dev;
  ASSERT_TRUE(qz::http::HttpHelpers::HttpGet(c, qz::Url(nginx->httpsUrl("/files/blob.bin")), &r))
      << c.getLastErrorMsg();
  EXPECT_EQ(r.receivedBytes, content.size());
  EXPECT_TRUE(dev.data() == content);
}

} // namespace
