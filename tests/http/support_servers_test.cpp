// The test servers themselves: the routes other suites rely on behave as documented.
#include "support/NginxFixture.h"
#include "support/TestHttpServer.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

TEST(TestServer, StandardRoutesAndConnectionCounter) {
  auto& srv = qztest::TestHttpServer::Shared();
  ASSERT_TRUE(srv.isRunning());
  srv.resetCounters();
  httplib::Client cli("127.0.0.1", srv.port());
  cli.set_keep_alive(true);

  auto echo = cli.Post("/echo", {{"X-Test", "v"}}, "payload", "text/plain");
  ASSERT_TRUE(echo);
  EXPECT_EQ(echo->body.substr(0, 5), "POST\n");
  EXPECT_NE(echo->body.find("X-Test: v\n"), std::string::npos);
  EXPECT_EQ(echo->body.substr(echo->body.size() - 9), "\n\npayload");
  EXPECT_EQ(srv.lastRequest().header("x-test"), "v");

  auto st = cli.Get("/status/418");
  ASSERT_TRUE(st);
  EXPECT_EQ(st->status, 418);
  auto ty = cli.Get("/type?ct=application/x-thing");
  ASSERT_TRUE(ty);
  EXPECT_EQ(ty->get_header_value("Content-Type"), "application/x-thing");
  auto ch = cli.Get("/chunked");
  ASSERT_TRUE(ch);
  EXPECT_EQ(ch->body, "chunk-1;chunk-2;chunk-3;");
  auto by = cli.Get("/bytes?n=30");
  ASSERT_TRUE(by);
  EXPECT_EQ(by->body, "abcdefghijklmnopqrstuvwxyzabcd");
  EXPECT_EQ(srv.requestCount(), 5u);
  EXPECT_EQ(srv.connectionCount(), 1u); // all over one kept-alive connection

  cli.set_follow_location(true);
  auto re = cli.Get("/redirect/3");
  ASSERT_TRUE(re);
  EXPECT_EQ(re->body, "landed");
  EXPECT_EQ(srv.requestCount(), 9u);

  auto tr = cli.Get("/truncated");
  EXPECT_FALSE(tr && tr->body.size() == 1000);
}

TEST(TestServer, CustomRoutesOnAServerOfItsOwn) {
  qztest::TestHttpServer srv;
  srv.route("GET", "/hello", [](const httplib::Request&, httplib::Response& res) { res.set_content("hi", "text/x"); });
  ASSERT_TRUE(srv.start()) << srv.lastError();
  EXPECT_NE(srv.port(), qztest::TestHttpServer::Shared().port());
  httplib::Client cli("127.0.0.1", srv.port());
  auto r = cli.Get("/hello");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->body, "hi");
  EXPECT_EQ(cli.Get("/echo")->status, 404); // standard routes only when installed
  srv.stop();
  EXPECT_FALSE(srv.isRunning());
}

TEST(Nginx, StartsServesAndCountsConnections) {
  qztest::NginxFixture nginx;
  ASSERT_TRUE(nginx.start()) << nginx.lastError();
  EXPECT_EQ(nginx.connectionCount(), 0);
  httplib::Client cli("127.0.0.1", nginx.httpPort());
  cli.set_keep_alive(true);
  for (int i = 0; i < 3; ++i) {
    auto r = cli.Get("/small");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->body, "ok");
  }
  auto put = cli.Put("/created", "data", "text/plain");
  ASSERT_TRUE(put);
  EXPECT_EQ(put->status, 201);
  EXPECT_EQ(nginx.connectionCount(), 1);
  const std::string prefix = nginx.prefix();
  nginx.stop();
  EXPECT_FALSE(nginx.isRunning());
  EXPECT_FALSE(std::filesystem::exists(prefix));
}

} // namespace
