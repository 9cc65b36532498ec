#pragma once

// A fault-injection HTTP/1.1 proxy on 127.0.0.1 for tests of lost answers and retries. It
// forwards to an upstream 127.0.0.1 port byte for byte (keep-alive, chunked and streamed bodies
// as they come) and acts on the requests that rules choose:
//
//   qztest::FaultProxy proxy(couch.port());
//   ASSERT_TRUE(proxy.start()) << proxy.error();
//   size_t lost = proxy.addRule(qztest::FaultProxy::Match("POST", "/_bulk_docs", qztest::FaultProxy::DropAnswer));
//   ... the client talks to proxy.baseUrl() ...
//   EXPECT_EQ(proxy.forwarded(lost), 2u); // the attempt whose answer was lost, and its retry

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qztest {

class FaultProxy {
public:
  enum Action {
    Forward,    // forward as is (a rule that only counts)
    DropAnswer, // forward, read the whole answer, close the client connection without it
    Reset,      // reset the client connection before forwarding
    Delay,      // wait delayMs, then forward
    Refuse,     // answer `status` (429, 503...) and Retry-After if set, without forwarding
  };
  struct Rule {
    std::string method;       // "" matches any
    std::string pathContains; // "" matches any; looked for in the request target
    unsigned nth = 1;         // the first matching request acted on, counted from 1
    unsigned times = 1;       // matching requests acted on from the nth on (0: all of them)
    Action action = Forward;
    int delayMs = 0;
    int status = 503;
    std::string retryAfter;

    Rule& from(unsigned n) { return nth = n, *this; }
    Rule& repeat(unsigned n) { return times = n, *this; }
    Rule& wait(int ms) { return delayMs = ms, *this; }
    Rule& answer(int code, std::string after = {}) { return status = code, retryAfter = std::move(after), *this; }
  };
  static Rule Match(std::string method, std::string pathContains, Action action = Forward) {
    Rule r;
    r.method = std::move(method);
    r.pathContains = std::move(pathContains);
    r.action = action;
    return r;
  }

  explicit FaultProxy(uint16_t upstreamPort);
  ~FaultProxy(); // stops
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  bool start(); // false (see error()) when it cannot listen; after stop(), on the same port
  void stop();  // closes every connection and joins the threads
  const std::string& error() const { return m_error; }
  uint16_t port() const { return m_port; }
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(m_port); }

  // Every rule a request matches counts it; the first one whose acting range holds it decides.
  // Returns the rule's index for the counters below.
  size_t addRule(const Rule& rule);
  void clearRules();
  size_t matched(size_t rule) const;   // requests that matched
  size_t acted(size_t rule) const;     // requests it acted on
  size_t forwarded(size_t rule) const; // requests that matched and went upstream
  size_t connectionCount() const;      // client connections accepted

private:
  struct Counted {
    Rule rule;
    size_t matched = 0;
    size_t acted = 0;
    size_t forwarded = 0;
  };
  void acceptLoop();
  void serve(int client);
  // The action for a request, counting it in every rule it matches (with `decided` filled).
  Action decide(const std::string& method, const std::string& target, Rule& decided, std::vector<size_t>& matching);
  void countForwarded(const std::vector<size_t>& matching);
  bool sleepUnlessStopping(int ms);
  void track(int fd, bool add);
  size_t count(size_t rule, size_t Counted::*field) const;

  const uint16_t m_upstream;
  uint16_t m_port = 0;
  int m_listen = -1;
  std::string m_error;
  std::thread m_acceptor;

  mutable std::mutex m_mutex;
  std::condition_variable m_stopped;
  bool m_stopping = false;
  size_t m_accepted = 0;
  std::vector<Counted> m_rules;
  std::vector<std::thread> m_connections;
  std::set<int> m_openFds; // shut down by stop() to wake blocked reads
};

} // namespace qztest
