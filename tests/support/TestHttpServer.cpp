#include "support/TestHttpServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <strings.h>
#include <sys/socket.h>

namespace qztest {

namespace {

constexpr size_t kMaxRecorded = 4096;

// One thread per accepted connection, so that no number of stalled handlers can keep a new
// connection waiting; finished threads are joined at the next connection and at shutdown.
class ThreadPerConnection : public httplib::TaskQueue {
public:
  explicit ThreadPerConnection(std::atomic<size_t>& counter) : m_counter(counter) {}
  void enqueue(std::function<void()> fn) override {
    ++m_counter;
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::lock_guard lock(m_mutex);
    std::erase_if(m_workers, [](auto& w) { return *w.second && (w.first.join(), true); });
    m_workers.emplace_back(std::thread([fn = std::move(fn), done] { fn(), *done = true; }), done);
  }
  void shutdown() override {
    std::lock_guard lock(m_mutex);
    for (auto& w : m_workers)
      w.first.join();
    m_workers.clear();
  }

private:
  std::atomic<size_t>& m_counter;
  std::mutex m_mutex;
  std::vector<std::pair<std::thread, std::shared_ptr<std::atomic<bool>>>> m_workers;
};

size_t queryNumber(const httplib::Request& req, const char* name, size_t fallback) {
  if (!req.has_param(name))
    return fallback;
  return size_t(std::stoull(req.get_param_value(name)));
}

} // namespace

std::string RecordedRequest::header(const std::string& name) const {
  for (const auto& [k, v] : headers)
    if (strcasecmp(k.c_str(), name.c_str()) == 0)
      return v;
  return {};
}

size_t RecordedRequest::headerCount(const std::string& name) const {
  return size_t(std::count_if(headers.begin(), headers.end(),
                              [&](const auto& kv) { return strcasecmp(kv.first.c_str(), name.c_str()) == 0; }));
}

TestHttpServer::TestHttpServer() {
  m_server.new_task_queue = [this] { return new ThreadPerConnection(m_connections); };
  m_server.set_tcp_nodelay(true); // no 40 ms delayed-ACK stall between header and body writes
  m_server.set_keep_alive_max_count(1000000);
  m_server.set_keep_alive_timeout(30);
  m_server.set_read_timeout(30);
  m_server.set_write_timeout(30);
  m_server.set_socket_options([this](socket_t sock) {
    httplib::default_socket_options(sock);
    m_listenSocket = sock;
  });
}

TestHttpServer::~TestHttpServer() { stop(); }

TestHttpServer& TestHttpServer::Shared() {
  static TestHttpServer* server = [] {
    auto* s = new TestHttpServer; // lives until exit: suites share it
    s->installStandardRoutes();
    if (!s->start())
      ADD_FAILURE() << "test HTTP server cannot start: " << s->lastError();
    return s;
  }();
  return *server;
}

void TestHttpServer::route(const std::string& method, const std::string& pattern, Handler handler) {
  auto wrapped = [this, handler](const httplib::Request& req, httplib::Response& res) {
    record(req);
    handler(req, res);
  };
  using Register = httplib::Server& (httplib::Server::*)(const std::string&, httplib::Server::Handler);
  const std::pair<const char*, Register> verbs[] = {
      {"GET", &httplib::Server::Get},       {"POST", &httplib::Server::Post},   {"PUT", &httplib::Server::Put},
      {"DELETE", &httplib::Server::Delete}, {"PATCH", &httplib::Server::Patch}, {"OPTIONS", &httplib::Server::Options}};
  for (const auto& [verb, add] : verbs)
    if (method == "*" || method == verb)
      (m_server.*add)(pattern, wrapped);
}

void TestHttpServer::installStandardRoutes() {
  route("*", "/echo", [](const httplib::Request& req, httplib::Response& res) {
    std::string out = req.method + "\n";
    for (const auto& [k, v] : req.headers)
      if (k != "REMOTE_ADDR" && k != "REMOTE_PORT" && k != "LOCAL_ADDR" && k != "LOCAL_PORT")
        out += k + ": " + v + "\n";
    out += "\n" + req.body;
    res.set_content(out, "text/plain");
  });
  route("*", R"(/status/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
    res.status = std::stoi(req.matches[1]);
    res.set_content("status " + std::string(req.matches[1]), "text/plain");
  });
  route("GET", "/type", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content("typed", req.get_param_value("ct"));
  });
  route("GET", "/bytes", [](const httplib::Request& req, httplib::Response& res) {
    const size_t n = queryNumber(req, "n", 0);
    std::string body(n, '\0');
    for (size_t i = 0; i < n; ++i)
      body[i] = char('a' + i % 26);
    res.set_content(body, "application/octet-stream");
  });
  route("GET", "/slow", [this](const httplib::Request& req, httplib::Response& res) {
    const size_t blocks = queryNumber(req, "blocks", 10);
    const size_t size = queryNumber(req, "size", 16);
    const int delay = int(queryNumber(req, "delay", 100));
    auto sent = std::make_shared<size_t>(0);
    res.set_chunked_content_provider("application/octet-stream",
                                     [this, blocks, size, delay, sent](size_t, httplib::DataSink& sink) {
                                       if (*sent == blocks) {
                                         sink.done();
                                         return true;
                                       }
                                       if (*sent > 0 && !sleepUnlessStopping(delay))
                                         return false;
                                       ++*sent;
                                       std::string block(size, 's');
                                       return sink.write(block.data(), block.size());
                                     });
  });
  route("GET", "/stall", [this](const httplib::Request& req, httplib::Response& res) {
    sleepUnlessStopping(int(queryNumber(req, "ms", 5000)));
    res.set_content("late", "text/plain");
  });
  route("GET", "/chunked", [](const httplib::Request&, httplib::Response& res) {
    auto n = std::make_shared<int>(0);
    res.set_chunked_content_provider("text/plain", [n](size_t, httplib::DataSink& sink) {
      if (*n == 3) {
        sink.done();
        return true;
      }
      std::string piece = "chunk-" + std::to_string(++*n) + ";";
      return sink.write(piece.data(), piece.size());
    });
  });
  route("GET", R"(/redirect/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
    const int n = std::stoi(req.matches[1]);
    if (n <= 0) {
      res.set_content("landed", "text/plain");
      return;
    }
    res.set_redirect("/redirect/" + std::to_string(n - 1), 302);
  });
  route("GET", "/truncated", [](const httplib::Request&, httplib::Response& res) {
    res.set_content_provider(1000, "application/octet-stream", [](size_t offset, size_t, httplib::DataSink& sink) {
      if (offset > 0)
        return false; // drops the connection with 900 bytes still owed
      std::string part(100, 't');
      return sink.write(part.data(), part.size());
    });
  });
  // ?set=Name:value,Name:value answers those headers instead.
  route("GET", "/headers", [](const httplib::Request& req, httplib::Response& res) {
    std::string set = req.has_param("set") ? req.get_param_value("set") : "X-One:1,X-Dup:first,X-Dup:second";
    for (size_t at = 0, end = 0; at < set.size(); at = end + 1) {
      end = std::min(set.find(',', at), set.size());
      const size_t colon = set.find(':', at);
      res.set_header(set.substr(at, colon - at), set.substr(colon + 1, end - colon - 1));
    }
    res.set_content("headers", "text/plain");
  });
}

bool TestHttpServer::start() {
  if (isRunning())
    return true;
  m_stopping = false;
  m_port = m_server.bind_to_any_port("127.0.0.1");
  if (m_port <= 0) {
    m_error = "cannot bind 127.0.0.1 on a free port";
    m_port = 0;
    return false;
  }
  // cpp-httplib listens with a backlog of 5: a burst of parallel connects would lose SYNs and
  // wait a second for their retransmission. Listening again raises the backlog.
  if (m_listenSocket >= 0)
    ::listen(m_listenSocket, 1024);
  m_thread = std::thread([this] { m_server.listen_after_bind(); });
  for (int i = 0; i < 500 && !m_server.is_running(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  if (!m_server.is_running()) {
    m_error = "server thread did not start listening";
    stop();
    return false;
  }
  return true;
}

void TestHttpServer::stop() {
  m_stopping = true;
  if (m_thread.joinable()) {
    m_server.stop();
    m_thread.join();
  }
}

bool TestHttpServer::isRunning() const { return m_thread.joinable() && m_server.is_running(); }

std::string TestHttpServer::baseUrl() const { return "http://127.0.0.1:" + std::to_string(m_port); }

std::string TestHttpServer::url(const std::string& pathAndQuery) const { return baseUrl() + pathAndQuery; }

size_t TestHttpServer::requestCount() const { return m_requestTotal.load(); }

std::vector<RecordedRequest> TestHttpServer::requests() const {
  std::lock_guard lock(m_mutex);
  return m_requests;
}

RecordedRequest TestHttpServer::lastRequest() const {
  std::lock_guard lock(m_mutex);
  return m_requests.empty() ? RecordedRequest{} : m_requests.back();
}

void TestHttpServer::resetCounters() {
  std::lock_guard lock(m_mutex);
  m_requests.clear();
  m_connections = 0;
  m_requestTotal = 0;
}

bool TestHttpServer::sleepUnlessStopping(int ms) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < end) {
    if (m_stopping)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return !m_stopping;
}

void TestHttpServer::record(const httplib::Request& req) {
  RecordedRequest r;
  r.method = req.method;
  r.path = req.path;
  r.target = req.target;
  for (const auto& [k, v] : req.headers)
    if (k != "REMOTE_ADDR" && k != "REMOTE_PORT" && k != "LOCAL_ADDR" && k != "LOCAL_PORT")
      r.headers.emplace(k, v);
  r.body = req.body;
  std::lock_guard lock(m_mutex);
  ++m_requestTotal;
  if (m_requests.size() >= kMaxRecorded)
    m_requests.erase(m_requests.begin(), m_requests.begin() + kMaxRecorded / 2);
  m_requests.push_back(std::move(r));
}

} // namespace qztest
