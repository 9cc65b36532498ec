#include <HttpTools/http/HttpHelpers.h>

#include <HttpTools/http/HttpMultiConnection.h>
#include <HttpTools/platform/qzIoDevice.h>

#include "HttpTestEnv.h"
#include "support/LogCapture.h"
#include "support/TestHttpServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

using namespace qz::http;
using namespace qz::http::HttpHelpers;

namespace {

class Helpers : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(srv.isRunning());
    srv.resetCounters();
  }
  qz::Url url(const std::string& path) const { return qz::Url(srv.url(path)); }
  qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared();
  HttpConnection conn;
};

// Method, body and Content-Type line of every helper, as the server receives them.
TEST_F(Helpers, EachHelperSendsItsMethodBodyAndContentType) {
  struct Case {
    const char* name;
    std::function<bool(HttpConnection&, const qz::Url&, HttpResult*)> call;
    const char* method;
    const char* body;
    const char* contentType;
  };
  const std::string json = R"({"a":1})";
  const std::vector<Case> cases{
      {"get", [](auto& c, auto& u, auto* r) { return HttpGet(c, u, r); }, "GET", "", "application/octet-stream"},
      {"delete", [](auto& c, auto& u, auto* r) { return HttpDelete(c, u, r); }, "DELETE", "",
       "application/octet-stream"},
      {"put", [](auto& c, auto& u, auto* r) { return HttpPut(c, u, "put-body", 200, r); }, "PUT", "put-body",
       "application/octet-stream"},
      {"put json", [&](auto& c, auto& u, auto* r) { return HttpPutJson(c, u, json.data(), json.size(), 200, r); },
       "PUT", R"({"a":1})", "application/json"},
      {"put variant",
       [](auto& c, auto& u, auto* r) {
         qz::qzVariantMapImpl doc{{"k", qz::qzVariant(std::string("v"))}, {"n", qz::qzVariant(int64_t(2))}};
         return HttpPutJson<qz::qzVariantMapImpl>(c, u, doc, 200, r);
       },
       "PUT", R"({"k":"v","n":2})", "application/json"},
      {"post", [](auto& c, auto& u, auto* r) { return HttpPost(c, u, std::string("post-body"), 200, r); }, "POST",
       "post-body", "application/octet-stream"},
      {"post data first", [](auto& c, auto& u, auto* r) { return HttpPost("raw", 3, c, u, 200, r); }, "POST", "raw",
       "application/octet-stream"},
      {"post json", [&](auto& c, auto& u, auto* r) { return HttpPostJson(c, u, json.data(), json.size(), 200, r); },
       "POST", R"({"a":1})", "application/json"},
  };
  for (const auto& k : cases) {
    std::string body, err;
    HttpResult r;
    r.body = &body;
    r.errorMessage = &err;
    ASSERT_TRUE(k.call(conn, url("/echo"), &r)) << k.name << ": " << err;
    auto req = srv.lastRequest();
    EXPECT_EQ(req.method, k.method) << k.name;
    EXPECT_EQ(req.body, k.body) << k.name;
    EXPECT_EQ(req.headerCount("Content-Type"), 1u) << k.name;
    EXPECT_EQ(req.header("Content-Type"), k.contentType) << k.name;
    EXPECT_EQ(body.rfind(std::string(k.method) + "\n", 0), 0u) << k.name;
    EXPECT_EQ(r.httpCode, 200);
    EXPECT_EQ(r.receivedBytes, body.size());
    EXPECT_EQ(err, "Http return code 200 ");
  }
  EXPECT_EQ(srv.connectionCount(), 1u); // one kept-alive connection across all methods
}

TEST_F(Helpers, HeadAfterPutInheritsNoUploadOption) {
  ASSERT_TRUE(HttpPut(conn, url("/echo"), std::string(5000, 'x'), 200));
  HttpResult r;
  std::string body;
  r.body = &body;
  ASSERT_TRUE(HttpHead(conn, url("/echo"), &r));
  EXPECT_EQ(srv.lastRequest().method, "HEAD");
  EXPECT_EQ(srv.lastRequest().body, "");
  EXPECT_EQ(body, "");
  ASSERT_TRUE(HttpGet(conn, url("/echo"), &r));
  EXPECT_EQ(srv.lastRequest().method, "GET");
  ASSERT_TRUE(HttpPost(conn, url("/echo"), std::string("p"), 200));
  ASSERT_TRUE(HttpDelete(conn, url("/echo")));
  EXPECT_EQ(srv.lastRequest().method, "DELETE");
  EXPECT_EQ(srv.lastRequest().body, "");
}

TEST_F(Helpers, CallerContentTypeRules) {
  std::list<std::string> h{"Content-Type:text/plain", "X-A: 1"};
  ASSERT_TRUE(HttpPut(conn, url("/echo"), "x", 200, nullptr, nullptr, &h));
  auto req = srv.lastRequest();
  EXPECT_EQ(req.headerCount("Content-Type"), 1u);
  EXPECT_EQ(req.header("Content-Type"), "text/plain");
  EXPECT_EQ(req.header("X-A"), "1");
  // The JSON helpers add their line even when the caller has one.
  ASSERT_TRUE(HttpPutJson(conn, url("/echo"), "{}", 2, 200, nullptr, nullptr, &h));
  EXPECT_EQ(srv.lastRequest().headerCount("Content-Type"), 2u);
}

TEST_F(Helpers, ExpectedCodeChecks) {
  std::string err;
  HttpResult r;
  r.errorMessage = &err;
  EXPECT_FALSE(HttpPut(conn, url("/echo"), "x", 201, &r));
  EXPECT_EQ(err.rfind("HttpConnection error : bad html response code, got 200, expect 201 ", 0), 0u) << err;
  EXPECT_EQ(r.httpCode, 200);
  EXPECT_TRUE(HttpPut(conn, url("/status/201"), "x", 201, &r));
  EXPECT_TRUE(HttpPut(conn, url("/status/299"), "x", 0, &r)); // 0 accepts any code
  EXPECT_EQ(r.httpCode, 299);
  EXPECT_EQ(err, "Http return code 299 ");
  EXPECT_FALSE(HttpGet(conn, url("/status/500"), &r));
  EXPECT_EQ(r.httpCode, 500);
}

TEST_F(Helpers, FailureLoggingRules) {
  qztest::LogCapture cap;
  // 404 without a result record: silent.
  EXPECT_FALSE(HttpGet(conn, url("/status/404")));
  EXPECT_FALSE(HttpDelete(conn, url("/status/404")));
  // With a result record: silent, the caller reads the message.
  HttpResult r;
  EXPECT_FALSE(HttpGet(conn, url("/status/500"), &r));
  EXPECT_EQ(cap.size(), 0u) << cap.dump();

  struct Case {
    std::function<bool()> call;
    std::string prefix;
  };
  const std::vector<Case> cases{
      {[&] { return HttpGet(conn, url("/status/500")); }, "Http GET error "},
      {[&] { return HttpHead(conn, url("/status/500")); }, "Http HEAD error "},
      {[&] { return HttpDelete(conn, url("/status/500")); }, "Http DELETE error "},
      {[&] { return HttpPut(conn, url("/status/500"), "x", 200); }, "Http PUT error "},
      {[&] { return HttpPutJson(conn, url("/status/500"), "{}", 2, 200); }, "Http PUT error "},
      {[&] { return HttpPost(conn, url("/status/500"), std::string("x"), 200); }, "Http POST error "},
      {[&] { return HttpPostJson(conn, url("/status/500"), "{}", 2, 200); }, "Http POST error "},
      {[&] {
         std::string out;
         return HttpGetJson(conn, url("/status/500"), out);
       },
       "Http GET error "},
  };
  for (const auto& k : cases) {
    cap.clear();
    EXPECT_FALSE(k.call());
    ASSERT_EQ(cap.size(), 1u) << k.prefix;
    const auto line = cap.lines()[0];
    EXPECT_EQ(line.category, "http");
    EXPECT_EQ(line.type, qz::qzLog::Error);
    EXPECT_EQ(line.text, k.prefix + conn.getLastErrorMsg());
    EXPECT_EQ(line.text.rfind(k.prefix + "HttpConnection error : bad html response code, got 500, expect 200 ", 0), 0u)
        << line.text;
  }
}

TEST_F(Helpers, ResultRecordFields) {
  std::string body = "stale", err = "stale";
  std::map<std::string, std::string> headers{{"stale", "1"}};
  qz::qzIoDeviceMemory dev;
  HttpResult r;
  r.body = &body;
  r.errorMessage = &err;
  r.headers = &headers;
  r.outputDevice = &dev;
  ASSERT_TRUE(HttpGet(conn, url("/headers"), &r));
  EXPECT_EQ(body, "headers");
  EXPECT_EQ(dev.data(), "headers");
  EXPECT_EQ(err, "Http return code 200 ");
  EXPECT_EQ(r.receivedBytes, 7u);
  EXPECT_EQ(headers.count("stale"), 0u);
  EXPECT_EQ(headers["x-one"], "1");
  EXPECT_EQ(headers["x-dup"], "first"); // the first occurrence wins
  EXPECT_EQ(headers["content-type"], "text/plain");
  EXPECT_EQ(headers.count("http/1.1 200 ok"), 0u); // the status line is no header field

  // The device receives blocks of a chunked response too.
  dev.clear();
  ASSERT_TRUE(HttpGet(conn, url("/chunked"), &r));
  EXPECT_EQ(dev.data(), "chunk-1;chunk-2;chunk-3;");
  EXPECT_EQ(body, "chunk-1;chunk-2;chunk-3;");

  r.clearResultAttributes();
  EXPECT_EQ(body, "");
  EXPECT_TRUE(headers.empty());
  EXPECT_EQ(r.httpCode, 0);
  EXPECT_EQ(r.outputDevice, &dev);
  EXPECT_EQ(r.receivedBytes, 24u); // kept
}

TEST_F(Helpers, GetJsonFillsOutAndCopiesToCallerBody) {
  std::string out = "old", callerBody = "old";
  HttpResult r;
  r.body = &callerBody;
  ASSERT_TRUE(HttpGetJson(conn, url("/bytes?n=5"), out, &r));
  EXPECT_EQ(out, "abcde");
  EXPECT_EQ(callerBody, "abcde");
  EXPECT_EQ(r.body, &callerBody);
  ASSERT_TRUE(HttpGetJson(conn, url("/echo"), out));
  EXPECT_EQ(srv.lastRequest().header("Content-Type"), "application/octet-stream");
}

TEST_F(Helpers, ExplicitParametersApplyForOneCallOnly) {
  conn.editConnectionParameters().maxRedirects = 0;
  conn.editConnectionParameters().hostNameResolutionPolicy = HNRP_PreferIpv4;
  const auto before = conn.getConnectionParameters();
  HttpConnection::ConnectionParameters p;
  p.maxRedirects = 5;
  p.hostNameResolutionPolicy = HNRP_PreferIpv4;
  std::string out;
  ASSERT_TRUE(HttpGetJson(conn, url("/redirect/4"), out, nullptr, &p));
  EXPECT_EQ(out, "landed");
  // The call's retry fallback must not outlive it either.
  EXPECT_FALSE(HttpGet(conn, qz::Url("http://no-such-host.invalid/"), nullptr, &p));
  EXPECT_EQ(conn.getConnectionParameters().maxRedirects, before.maxRedirects);
  EXPECT_EQ(conn.getConnectionParameters().hostNameResolutionPolicy, HNRP_PreferIpv4);
  EXPECT_FALSE(HttpGet(conn, url("/redirect/1"))); // own parameters again: no redirect allowed
}

TEST_F(Helpers, CancelDuringDownloadAbortsAtNextBlockSilently) {
  bool cancel = false;
  // Sets the flag while the first block is delivered, as a caller's thread would.
  struct Trigger : qz::qzIoDevice {
    bool* flag = nullptr;
    int64_t writeBytes(const char*, unsigned long n) override {
      *flag = true;
      return int64_t(n);
    }
  } trigger;
  trigger.flag = &cancel;
  HttpResult r;
  r.outputDevice = &trigger;
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_FALSE(HttpGet(conn, url("/slow?blocks=50&size=100&delay=100"), &r, nullptr, nullptr, &cancel));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2)); // not the 5 s body
  EXPECT_EQ(r.receivedBytes, 100u);                                          // exactly the first block
  EXPECT_NE(conn.getLastErrorMsg().find("Curl error : 23 ("), std::string::npos) << conn.getLastErrorMsg();

  // Without a result record a cancelled call is not logged either.
  qztest::LogCapture cap;
  EXPECT_FALSE(HttpGet(conn, url("/slow?blocks=50&size=100&delay=100"), nullptr, nullptr, nullptr, &cancel));
  EXPECT_EQ(cap.size(), 0u) << cap.dump();
  // The connection is usable afterwards.
  cancel = false;
  EXPECT_TRUE(HttpGet(conn, url("/echo"), nullptr, nullptr, nullptr, &cancel));
}

TEST_F(Helpers, CancelBeforeUploadAbortsRead) {
  bool cancel = true;
  HttpResult r;
  EXPECT_FALSE(HttpPut(conn, url("/echo"), std::string(100000, 'u'), 200, &r, nullptr, nullptr, &cancel));
  EXPECT_NE(srv.lastRequest().body.size(), 100000u);
}

TEST(ParseHttpHeader, SplitsTrimsAndLowerCases) {
  struct Case {
    std::string line, name, value;
  };
  const std::vector<Case> cases{
      {"Content-Type: text/plain\r\n", "content-type", "text/plain"},
      {"X-Empty:\r\n", "x-empty", ""},
      {"  Spaced Name  :  a: b  \r\n", "spaced name", "a: b"},
      {"HTTP/1.1 200 OK\r\n", "", ""},
      {"\r\n", "", ""},
      {":value\r\n", "", "value"},
  };
  for (const auto& c : cases) {
    std::string n = "junk", v = "junk";
    HttpMultiConnection::ParseHttpHeader(c.line.data(), c.line.size(), n, v);
    EXPECT_EQ(n, c.name) << c.line;
    EXPECT_EQ(v, c.value) << c.line;
  }
}

} // namespace
