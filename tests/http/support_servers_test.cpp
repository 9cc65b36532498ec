// The test servers themselves, where the library tests do not already exercise them: a server of
// its own serves only its own routes, and both servers clean up when stopped.
#include "support/NginxFixture.h"
#include "support/TestHttpServer.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

TEST(TestServers, OwnRoutesOnlyAndCleanStop) {
  qztest::TestHttpServer srv;
  srv.route("GET", "/hello", [](const httplib::Request&, httplib::Response& res) { res.set_content("hi", "text/x"); });
  ASSERT_TRUE(srv.start()) << srv.lastError();
  EXPECT_NE(srv.port(), qztest::TestHttpServer::Shared().port());
  httplib::Client cli("127.0.0.1", srv.port());
  auto hello = cli.Get("/hello"), echo = cli.Get("/echo");
  ASSERT_TRUE(hello && echo);
  EXPECT_EQ(hello->body, "hi");
  EXPECT_EQ(echo->status, 404); // standard routes only when installed
  srv.stop();
  EXPECT_FALSE(srv.isRunning());

  qztest::NginxFixture nginx;
  ASSERT_TRUE(nginx.start()) << nginx.lastError();
  const std::string prefix = nginx.prefix();
  nginx.stop();
  EXPECT_FALSE(nginx.isRunning());
  EXPECT_FALSE(std::filesystem::exists(prefix));
}

} // namespace
