#include <HttpTools/http/HttpHelpers.h>

#include <HttpTools/platform/qzIoDevice.h>

#include "support/LogCapture.h"
#include "support/Loopback.h"
#include "support/TestHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

using namespace qz::http;
using namespace qz::http::HttpHelpers;
using testing::HasSubstr;

namespace {

class Helpers : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(srv.isRunning());
    srv.resetCounters();
  }
  qz::Url url(const std::string& path) const { return qz::Url(srv.url(path)); }
  static HttpResult record(std::string* body, std::string* err, qz::qzIoDevice* device = nullptr) {
    HttpResult r;
    r.body = body;
    r.errorMessage = err;
    r.outputDevice = device;
    return r;
  }
  qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared();
  HttpConnection conn;
};

// Method, body and Content-Type lines of every helper, as the server receives them; a failure
// without a result record is logged under the helper's method.
TEST_F(Helpers, EachHelperSendsItsMethodBodyAndContentType) {
  struct Case {
    const char* name;
    std::function<bool(HttpConnection&, const qz::Url&, HttpResult*)> call;
    const char* expected; // method|body|Content-Type lines|the first one
  };
  const std::string json = R"({"a":1})";
  const std::list<std::string> own{"Content-Type:text/plain"};
  // In this order on one connection, so that no option a call leaves on the handle (upload,
  // no-body, custom method) leaks into the next one.
  const std::vector<Case> cases{
      {"put", [](auto& c, auto& u, auto* r) { return HttpPut(c, u, "put-body", 200, r); },
       "PUT|put-body|1|application/octet-stream"},
      {"head after put", [](auto& c, auto& u, auto* r) { return HttpHead(c, u, r); },
       "HEAD||1|application/octet-stream"},
      {"get json", // fills `out`, copies it to the caller's body and gives the body target back
       [](auto& c, auto& u, auto* r) {
         std::string out;
         return HttpGetJson(c, u, out, r) && !out.empty() && (!r || out == *r->body);
       },
       "GET||1|application/octet-stream"},
      {"post", [](auto& c, auto& u, auto* r) { return HttpPost(c, u, std::string("post-body"), 200, r); },
       "POST|post-body|1|application/octet-stream"},
      {"delete", [](auto& c, auto& u, auto* r) { return HttpDelete(c, u, r); }, "DELETE||1|application/octet-stream"},
      {"put json", [&](auto& c, auto& u, auto* r) { return HttpPutJson(c, u, json.data(), json.size(), 200, r); },
       R"(PUT|{"a":1}|1|application/json)"},
      {"put variant",
       [](auto& c, auto& u, auto* r) {
         qz::qzVariantMapImpl doc{{"k", qz::qzVariant(std::string("v"))}, {"n", qz::qzVariant(int64_t(2))}};
         return HttpPutJson<qz::qzVariantMapImpl>(c, u, doc, 200, r);
       },
       R"(PUT|{"k":"v","n":2}|1|application/json)"},
      // A caller's own Content-Type suppresses the octet-stream line, never the JSON one.
      {"put caller type", [&](auto& c, auto& u, auto* r) { return HttpPut(c, u, "x", 200, r, nullptr, &own); },
       "PUT|x|1|text/plain"},
      {"put json caller type",
       [&](auto& c, auto& u, auto* r) { return HttpPutJson(c, u, "{}", 2, 200, r, nullptr, &own); },
       "PUT|{}|2|text/plain"},
  };
  qztest::LogCapture cap;
  for (const auto& k : cases) {
    std::string body, err;
    HttpResult r = record(&body, &err);
    ASSERT_TRUE(k.call(conn, url("/echo"), &r)) << k.name << ": " << err;
    const auto req = srv.lastRequest();
    EXPECT_EQ(req.method + "|" + req.body + "|" + std::to_string(req.headerCount("Content-Type")) + "|" +
                  req.header("Content-Type"),
              k.expected);
    EXPECT_EQ(body.rfind(req.method + "\n", 0) == 0, req.method != "HEAD") << k.name;
    EXPECT_EQ(std::to_string(r.httpCode) + " " + std::to_string(r.receivedBytes) + " " + err,
              "200 " + std::to_string(body.size()) + " Http return code 200 ")
        << k.name;
    cap.clear();
    EXPECT_FALSE(k.call(conn, url("/status/500"), nullptr)) << k.name;
    EXPECT_EQ(cap.dump(), "[" + std::to_string(qz::qzLog::Error) + "] http: Http " + req.method + " error " +
                              conn.getLastErrorMsg() + "\n");
  }
  EXPECT_THAT(conn.getLastErrorMsg(), testing::StartsWith("HttpConnection error : bad html response code, got 500"));
  EXPECT_EQ(srv.connectionCount(), 1u); // one kept-alive connection across all methods and failures
}

TEST_F(Helpers, ExplicitParametersApplyForOneCallOnly) {
  conn.editConnectionParameters().maxRedirects = 0;
  conn.editConnectionParameters().hostNameResolutionPolicy = HNRP_PreferIpv4;
  HttpConnection::ConnectionParameters p;
  p.maxRedirects = 5;
  p.hostNameResolutionPolicy = HNRP_PreferIpv4;
  std::string out;
  ASSERT_TRUE(HttpGetJson(conn, url("/redirect/4"), out, nullptr, &p));
  EXPECT_EQ(out, "landed");
  // The call's retry fallback must not outlive it either.
  EXPECT_FALSE(HttpGet(conn, qz::Url("http://" + qztest::kUnresolvableHost + "/"), nullptr, &p));
  EXPECT_TRUE(conn.getConnectionParameters().maxRedirects == 0 &&
              conn.getConnectionParameters().hostNameResolutionPolicy == HNRP_PreferIpv4);
  EXPECT_FALSE(HttpGet(conn, url("/redirect/1"))); // own parameters again: no redirect allowed
}

// 0 accepts any code. Failures are silent with a result record (the caller reads the message), on
// 404 (callers probe) and when cancelled: the flag, set while the first block arrives as a caller's
// thread would, stops downloads and uploads.
TEST_F(Helpers, ExpectedCodesAndSilentFailures) {
  struct Trigger : qz::qzIoDevice { // sets the flag as the first block arrives
    bool cancel = false;
    int64_t writeBytes(const char*, unsigned long n) override { return cancel = true, int64_t(n); }
  } trigger;
  bool& cancel = trigger.cancel;
  std::string err;
  HttpResult r = record(nullptr, &err);
  qztest::LogCapture cap;
  EXPECT_FALSE(HttpPut(conn, url("/echo"), "x", 201, &r));
  EXPECT_THAT(std::to_string(r.httpCode) + err, HasSubstr("200HttpConnection error : bad html response code, got 200, "
                                                          "expect 201 "));
  EXPECT_TRUE(HttpPut(conn, url("/status/201"), "x", 201, &r) && HttpPut(conn, url("/status/299"), "x", 0, &r));
  EXPECT_EQ(err, "Http return code 299 ");
  EXPECT_FALSE(HttpGet(conn, url("/status/500"), &r) || HttpGet(conn, url("/status/404")) ||
               HttpDelete(conn, url("/status/404")));

  r.outputDevice = &trigger;
  const std::string slow = "/slow?blocks=50&size=100&delay=100";
  EXPECT_FALSE(HttpGet(conn, url(slow), &r, nullptr, nullptr, &cancel));
  EXPECT_EQ(r.receivedBytes, 100u); // exactly the first block, not the 5 s body
  EXPECT_THAT(err, HasSubstr("Curl error : 23 ("));
  EXPECT_FALSE(HttpGet(conn, url(slow), nullptr, nullptr, nullptr, &cancel));
  EXPECT_FALSE(HttpPut(conn, url("/echo"), std::string(100000, 'u'), 200, nullptr, nullptr, nullptr, &cancel));
  EXPECT_NE(srv.lastRequest().body.size(), 100000u);
  EXPECT_EQ(cap.size(), 0u) << cap.dump();
  cancel = false; // the connection is usable afterwards
  EXPECT_TRUE(HttpGet(conn, url("/echo"), nullptr, nullptr, nullptr, &cancel));
}

// A callback that cannot go on ends the call with its reason; the handle is dropped, so the next
// call on the connection starts on a clean one (a failing device and an announced length: the
// transfer tests). An echoed text body of 1 MB comes gzipped (a
// thousandfold smaller) and its limit counts the decoded bytes.
TEST_F(Helpers, CallbackFailuresFailTheCallWithTheirReason) {
  struct Throwing : qz::qzIoDevice {
    int64_t writeBytes(const char*, unsigned long) override { throw std::bad_alloc(); }
  } throwing;
  const std::string mega(1000000, 'z');
  const std::tuple<std::string, qz::qzIoDevice*, size_t, std::string> cases[] = {
      {"/bytes?n=100", &throwing, 0, "HttpConnection error : Exception while receiving the body: std::bad_alloc, "},
      {"/slow?blocks=4&size=100&delay=0", nullptr, 250, "larger than the limit of 250 bytes"}, // chunked
      {"/echo", nullptr, 100000, "larger than the limit of 100000 bytes"}};                    // decoded size
  ASSERT_TRUE(HttpGet(conn, url("/echo")));
  for (const auto& [path, device, limit, reason] : cases) {
    const size_t before = srv.connectionCount();
    std::string err;
    HttpResult r = record(nullptr, &err, device);
    HttpConnection::ConnectionParameters p;
    p.maxBodyBytes = limit;
    EXPECT_FALSE(path == "/echo" ? HttpPut(conn, url(path), mega, 200, &r, &p) : HttpGet(conn, url(path), &r, &p));
    EXPECT_THAT(err, HasSubstr(reason)) << path;
    ASSERT_TRUE(HttpGet(conn, url("/echo"))) << conn.getLastErrorMsg();
    EXPECT_EQ(srv.connectionCount(), before + 1) << path;
  }
  std::map<std::string, std::string> headers;
  HttpResult r;
  r.headers = &headers;
  ASSERT_TRUE(HttpPut(conn, url("/echo"), mega, 200, &r)); // no limit by default
  EXPECT_NE(headers["content-encoding"], "");              // compressed on the wire
  EXPECT_GT(r.receivedBytes, 1000000u);
}

} // namespace
