#pragma once

// In-process HTTP server for component tests, on cpp-httplib, bound to 127.0.0.1 on a free port.
//
//   qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared(); // standard routes, started once
//   std::string url = srv.url("/echo");
//
// or, for routes of your own:
//
//   qztest::TestHttpServer srv;
//   srv.route("GET", "/keys", [](const httplib::Request&, httplib::Response& res) {
//     res.set_content("{}", "application/json");
//   });
//   ASSERT_TRUE(srv.start()) << srv.lastError();
//
// Standard routes (installStandardRoutes):
//   any  /echo             200; body: method line, "name: value" request header lines, blank line, body
//   any  /status/<code>    that status, body "status <code>"
//   GET  /type?ct=<type>   200 with Content-Type <type>, body "typed"
//   GET  /bytes?n=<n>      n bytes of 'a'..'z' repeated, Content-Length set
//   GET  /slow?blocks=&size=&delay=   chunked body, `blocks` blocks of `size` bytes, `delay` ms apart
//   GET  /stall?ms=<n>     waits n ms (or until the server stops), then 200 "late"
//   GET  /chunked          chunked body "chunk-1;chunk-2;chunk-3;"
//   GET  /redirect/<n>     302 to /redirect/<n-1>; /redirect/0 answers 200 "landed"
//   GET  /truncated        announces 1000 bytes, sends 100, closes the connection
//   GET  /headers          200 with X-One: 1, X-Dup: first, X-Dup: second
// Every request is recorded (requests(), lastRequest()); connectionCount() counts accepted TCP
// connections, so tests can assert keep-alive reuse.

#include <httplib.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qztest {

struct RecordedRequest {
  std::string method;
  std::string path;
  std::string target;                              // the request line's target: path and query as sent
  std::multimap<std::string, std::string> headers; // names as sent
  std::string body;

  // First value of a header (name compared case-insensitively), "" when absent.
  std::string header(const std::string& name) const;
  size_t headerCount(const std::string& name) const;
};

class TestHttpServer {
public:
  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

  TestHttpServer();
  ~TestHttpServer(); // stops the server
  TestHttpServer(const TestHttpServer&) = delete;
  TestHttpServer& operator=(const TestHttpServer&) = delete;

  // The process-wide server with the standard routes, started on first use. Fails the calling
  // test (ADD_FAILURE) when it cannot start.
  static TestHttpServer& Shared();

  // Registers a handler. method: "GET", "POST", "PUT", "DELETE", "PATCH", "OPTIONS" or "*" (all).
  // pattern: a cpp-httplib regular expression matched against the whole path. Register before
  // start(). HEAD requests are served by the GET handler without a body.
  void route(const std::string& method, const std::string& pattern, Handler handler);
  void installStandardRoutes();

  // Binds 127.0.0.1 on a free port and serves on a thread of its own; false (see lastError())
  // when it cannot listen.
  bool start();
  void stop();
  bool isRunning() const;
  const std::string& lastError() const { return m_error; }

  int port() const { return m_port; }
  std::string baseUrl() const;                            // http://127.0.0.1:<port>
  std::string url(const std::string& pathAndQuery) const; // baseUrl() + pathAndQuery

  size_t connectionCount() const { return m_connections.load(); }
  size_t requestCount() const;                   // all requests served since the last reset
  std::vector<RecordedRequest> requests() const; // the most recent ones (a few thousand at most)
  RecordedRequest lastRequest() const;
  void resetCounters(); // connection count and recorded requests

  // True once stop() has begun; long handlers poll it so that the server stops promptly.
  bool stopping() const { return m_stopping.load(); }
  // Sleeps up to ms milliseconds, returning early (false) when the server stops.
  bool sleepUnlessStopping(int ms) const;

private:
  void record(const httplib::Request& req);

  httplib::Server m_server;
  std::thread m_thread;
  int m_port = 0;
  int m_listenSocket = -1;
  std::string m_error;
  std::atomic<size_t> m_connections{0};
  std::atomic<size_t> m_requestTotal{0};
  std::atomic<bool> m_stopping{false};
  mutable std::mutex m_mutex;
  std::vector<RecordedRequest> m_requests;
};

} // namespace qztest
