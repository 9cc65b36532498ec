#pragma once
// A loopback proxy in front of pouchdb-server that supplies three things couchbackup needs and
// pouchdb-server lacks, counting each:
//  - "pending" in one-off _changes answers: couchbackup's change follower reads until
//    "pending":0 (the proxy says 0 when the page is shorter than its limit);
//  - the answer to an empty _bulk_get, couchbackup's probe of the endpoint, which pouchdb-server
//    never answers;
//  - "doc_del_count":0 in the information of a database never written to, which couchrestore's
//    emptiness check requires.
// Every other request is forwarded as it is. Bodies go uncompressed both ways, as a CouchDB sends
// them by default (couchbackup gzips its requests; cpp-httplib inflates them).

#include "BenchSupport.h"

#include <HttpTools/HttpTools.h>

#include <httplib.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

namespace bench {

class CouchShimProxy {
public:
  // `logFile`, when given, gets a line per request: method, target, status, seconds.
  CouchShimProxy(uint16_t upstream, const std::string& logFile) : m_upstream(upstream) {
    if (!logFile.empty())
      m_log = std::fopen(logFile.c_str(), "w");
    m_server.set_keep_alive_max_count(100000);
    // A thread per kept-alive connection: the default pool of 8 starves couchbackup's.
    m_server.new_task_queue = [] { return new httplib::ThreadPool(64); };
    auto forward = [this](const httplib::Request& req, httplib::Response& res) { handle(req, res); };
    m_server.Get(".*", forward);
    m_server.Post(".*", forward);
    m_server.Put(".*", forward);
    m_server.Delete(".*", forward);
    m_port = m_server.bind_to_any_port("127.0.0.1");
    m_thread = std::thread([this] { m_server.listen_after_bind(); });
  }
  ~CouchShimProxy() {
    m_server.stop();
    m_thread.join();
    if (m_log)
      std::fclose(m_log);
  }
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(m_port); }

  // Answers changed or given by the proxy, since the last call.
  std::string takeCounts() {
    char text[160];
    std::snprintf(text, sizeof text,
                  "pending added to %ld _changes answers, %ld empty _bulk_get answered, "
                  "doc_del_count added to %ld database infos",
                  m_pending.exchange(0), m_probes.exchange(0), m_delCounts.exchange(0));
    return text;
  }

private:
  static void appendField(std::string& body, const std::string& field) {
    const size_t close = body.rfind('}');
    if (close != std::string::npos)
      body.insert(close, "," + field);
  }

  void handle(const httplib::Request& req, httplib::Response& res) {
    const double t0 = Now();
    res.status = answer(req, res);
    if (m_log) {
      std::lock_guard<std::mutex> lock(m_logMutex);
      std::fprintf(m_log, "%s %s %d %.3f\n", req.method.c_str(), req.target.c_str(), res.status, Now() - t0);
    }
  }

  int answer(const httplib::Request& req, httplib::Response& res) {
    // JSON with a charset is a type the proxy does not compress: no tool gets gzip.
    const char* json = "application/json; charset=utf-8";
    qz::qzVariantMapImpl q;
    if (req.method == "POST" && req.path.ends_with("/_bulk_get") && qz::json::Json2Variant::Convert(req.body, q) &&
        q["docs"].isList() && q["docs"].toList().empty()) {
      ++m_probes;
      res.set_content(R"({"results":[]})", json);
      return 200;
    }
    thread_local httplib::Client client("127.0.0.1", m_upstream);
    client.set_keep_alive(true);
    client.set_read_timeout(60);
    httplib::Request up;
    up.method = req.method;
    up.path = req.target;
    up.body = req.body;
    for (const auto& [name, value] : req.headers)
      if (name != "Host" && name != "Content-Length" && name != "Content-Encoding" && name != "Accept-Encoding" &&
          name != "Transfer-Encoding" && name != "REMOTE_ADDR" && name != "REMOTE_PORT" && name != "LOCAL_ADDR" &&
          name != "LOCAL_PORT")
        up.headers.emplace(name, value);
    const httplib::Result r = client.send(up);
    if (!r)
      return 502;
    std::string body = r->body;
    qz::qzVariantMapImpl doc;
    if (r->status == 200 && req.path.ends_with("/_changes") && body.find("\"pending\"") == std::string::npos &&
        qz::json::Json2Variant::Convert(body, doc)) {
      qz::json::Json2Variant::Convert(req.body, q);
      const long limit = req.has_param("limit") ? std::stol(req.get_param_value("limit")) : q["limit"].toInt64();
      const size_t rows = doc["results"].toList().size();
      appendField(body, std::string("\"pending\":") + (limit > 0 && rows >= size_t(limit) ? "1" : "0"));
      ++m_pending;
    } else if (r->status == 200 && req.method == "GET" && req.path.size() > 1 && req.path[1] != '_' &&
               req.path.find('/', 1) == std::string::npos && body.find("\"doc_del_count\"") == std::string::npos &&
               qz::json::Json2Variant::Convert(body, doc) && doc["update_seq"].toInt64() == 0) {
      appendField(body, "\"doc_del_count\":0");
      ++m_delCounts;
    }
    res.set_content(std::move(body), json);
    return r->status;
  }

  httplib::Server m_server;
  uint16_t m_upstream;
  int m_port = 0;
  std::FILE* m_log = nullptr;
  std::mutex m_logMutex;
  std::atomic<long> m_pending{0}, m_probes{0}, m_delCounts{0};
  std::thread m_thread;
};

} // namespace bench
