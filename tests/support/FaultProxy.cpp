#include "support/FaultProxy.h"

#include "support/Loopback.h"

#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace qztest {

namespace {

constexpr size_t kMaxHead = 64 << 10;

bool WriteAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t n = ::send(fd, data, length, MSG_NOSIGNAL);
    if (n <= 0)
      return false;
    data += n;
    length -= size_t(n);
  }
  return true;
}
bool WriteAll(int fd, const std::string& s) { return WriteAll(fd, s.data(), s.size()); }

bool ReadMore(int fd, std::string& buffer) {
  char block[16384];
  const ssize_t n = ::recv(fd, block, sizeof block, 0);
  if (n <= 0)
    return false;
  buffer.append(block, size_t(n));
  return true;
}

// One socket and the bytes read from it but not used yet.
struct Peer {
  int fd = -1;
  std::string pending;

  // Takes everything up to and including `end` ("\r\n\r\n": a head or trailer; "\r\n": a line).
  bool readThrough(const char* end, std::string& out) {
    for (const size_t n = std::strlen(end);;) {
      if (const size_t at = pending.find(end); at != std::string::npos) {
        out = pending.substr(0, at + n);
        pending.erase(0, at + n);
        return true;
      }
      if (pending.size() > kMaxHead || !ReadMore(fd, pending))
        return false;
    }
  }
  // Passes `length` bytes to `sink` (-1: dropped), or everything until the peer closes.
  bool relay(size_t length, bool untilClose, int sink, std::string* keep) {
    for (;;) {
      const size_t n = untilClose ? pending.size() : std::min(length, pending.size());
      if ((sink >= 0 && !WriteAll(sink, pending.data(), n)))
        return false;
      if (keep)
        keep->append(pending, 0, n);
      pending.erase(0, n);
      length -= untilClose ? 0 : n;
      if (!untilClose && length == 0)
        return true;
      if (!ReadMore(fd, pending))
        return untilClose;
    }
  }
  // A chunked body, framing included, up to its last chunk and trailers.
  bool relayChunked(int sink, std::string* keep) {
    std::string line;
    auto passLine = [&] {
      if (!readThrough("\r\n", line) || !(sink < 0 || WriteAll(sink, line)))
        return false;
      if (keep)
        *keep += line;
      return true;
    };
    for (;;) {
      if (!passLine())
        return false;
      const size_t size = std::strtoul(line.c_str(), nullptr, 16);
      if (size == 0) { // trailers, if any, end with a blank line
        while (line != "\r\n")
          if (!passLine())
            return false;
        return true;
      }
      if (!relay(size + 2, false, sink, keep))
        return false;
    }
  }
};

// Value of a header of `head` (name compared case-insensitively), "" when absent.
std::string Header(const std::string& head, const char* name) {
  const size_t length = std::strlen(name);
  for (size_t at = head.find("\r\n"); at != std::string::npos && at + 2 < head.size();) {
    const size_t begin = at + 2;
    const size_t end = head.find("\r\n", begin);
    if (end - begin > length && head[begin + length] == ':' && strncasecmp(head.c_str() + begin, name, length) == 0) {
      const size_t value = head.find_first_not_of(" \t", begin + length + 1);
      return head.substr(value, end - value);
    }
    at = end;
  }
  return {};
}

bool Contains(const std::string& haystack, const char* needle) {
  return strcasestr(haystack.c_str(), needle) != nullptr;
}

// Reads a message body in whatever framing the head announces.
bool RelayBody(Peer& from, const std::string& head, int sink, std::string* keep, bool& closes) {
  if (Contains(Header(head, "Transfer-Encoding"), "chunked"))
    return from.relayChunked(sink, keep);
  const std::string length = Header(head, "Content-Length");
  if (!length.empty())
    return from.relay(std::stoull(length), false, sink, keep);
  if (head.rfind("HTTP/", 0) != 0)
    return true; // a request without a body
  closes = true;
  return from.relay(0, true, sink, keep);
}

// An idle keep-alive connection the upstream has closed reads as ready.
bool ClosedWhileIdle(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) != 0;
}

} // namespace

FaultProxy::FaultProxy(uint16_t upstreamPort) : m_upstream(upstreamPort) {}
FaultProxy::~FaultProxy() { stop(); }

bool FaultProxy::start() {
  m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr = LoopbackAddress(m_port); // started again after stop(): the same port, as a restarted server
  m_stopping = false;
  socklen_t size = sizeof addr;
  if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(m_listen, 64) != 0 || ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&addr), &size) != 0) {
    m_error = std::string("fault proxy cannot listen on 127.0.0.1: ") + std::strerror(errno);
    return false;
  }
  m_port = ntohs(addr.sin_port);
  m_acceptor = std::thread([this] { acceptLoop(); });
  return true;
}

void FaultProxy::stop() {
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
    m_stopped.notify_all();
    for (int fd : m_openFds)
      ::shutdown(fd, SHUT_RDWR);
  }
  if (m_acceptor.joinable())
    m_acceptor.join();
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    threads.swap(m_connections);
  }
  for (auto& t : threads)
    t.join();
  if (m_listen >= 0)
    ::close(m_listen);
  m_listen = -1;
}

void FaultProxy::acceptLoop() {
  for (;;) {
    pollfd p{m_listen, POLLIN, 0};
    const int ready = ::poll(&p, 1, 50);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopping)
      return;
    if (ready <= 0)
      continue;
    const int client = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0)
      continue;
    const int one = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    m_openFds.insert(client);
    ++m_accepted;
    m_connections.emplace_back([this, client] { serve(client); });
  }
}

void FaultProxy::track(int fd, bool add) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (add && m_stopping)
    ::shutdown(fd, SHUT_RDWR);
  if (add)
    m_openFds.insert(fd);
  else
    m_openFds.erase(fd);
}

bool FaultProxy::sleepUnlessStopping(int ms) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return !m_stopped.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_stopping; });
}

FaultProxy::Action FaultProxy::decide(const std::string& method, const std::string& target, Rule& decided,
                                      std::vector<size_t>& matching) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Action action = Forward;
  bool chosen = false;
  for (size_t i = 0; i < m_rules.size(); ++i) {
    Counted& c = m_rules[i];
    if ((!c.rule.method.empty() && c.rule.method != method) || target.find(c.rule.pathContains) == std::string::npos)
      continue;
    matching.push_back(i);
    const size_t n = ++c.matched;
    if (!chosen && n >= c.rule.nth && (c.rule.times == 0 || n < size_t(c.rule.nth) + c.rule.times)) {
      chosen = true;
      ++c.acted;
      decided = c.rule;
      action = c.rule.action;
    }
  }
  return action;
}

void FaultProxy::countForwarded(const std::vector<size_t>& matching) {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (size_t i : matching)
    if (i < m_rules.size())
      ++m_rules[i].forwarded;
}

void FaultProxy::serve(int clientFd) {
  Peer client{clientFd, {}};
  Peer upstream;
  auto closeUpstream = [&] {
    if (upstream.fd >= 0) {
      track(upstream.fd, false);
      ::close(upstream.fd);
    }
    upstream = Peer();
  };
  for (bool open = true; open;) {
    std::string head;
    if (!client.readThrough("\r\n\r\n", head))
      break;
    const size_t sp1 = head.find(' ');
    const size_t sp2 = head.find(' ', sp1 + 1);
    const std::string method = head.substr(0, sp1);
    const std::string target = sp2 == std::string::npos ? std::string() : head.substr(sp1 + 1, sp2 - sp1 - 1);
    Rule rule;
    std::vector<size_t> matching;
    const Action action = decide(method, target, rule, matching);
    if (action == Reset) {
      const linger hard{1, 0};
      ::setsockopt(clientFd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
      break;
    }
    // The proxy answers Expect itself and forwards the body in one go.
    if (Contains(Header(head, "Expect"), "100-continue")) {
      const size_t at = strcasestr(head.c_str(), "\r\nExpect:") - head.c_str();
      head.erase(at, head.find("\r\n", at + 2) - at);
      if (!WriteAll(clientFd, "HTTP/1.1 100 Continue\r\n\r\n"))
        break;
    }
    std::string body;
    bool closes = Contains(Header(head, "Connection"), "close");
    if (!RelayBody(client, head, -1, &body, closes))
      break;
    if (action == Refuse) {
      std::string answer = "HTTP/1.1 " + std::to_string(rule.status) + " Injected\r\n";
      if (!rule.retryAfter.empty())
        answer += "Retry-After: " + rule.retryAfter + "\r\n";
      const std::string text = R"({"error":"injected","reason":"refused by the fault proxy"})";
      answer += "Content-Type: application/json\r\nContent-Length: " + std::to_string(text.size()) + "\r\n\r\n" + text;
      open = WriteAll(clientFd, answer) && !closes;
      continue;
    }
    if (action == Delay && !sleepUnlessStopping(rule.delayMs))
      break;
    if (upstream.fd >= 0 && ClosedWhileIdle(upstream.fd))
      closeUpstream();
    if (upstream.fd < 0 && (upstream.fd = ConnectLoopback(m_upstream)) >= 0)
      track(upstream.fd, true);
    if (upstream.fd < 0 || !WriteAll(upstream.fd, head) || !WriteAll(upstream.fd, body)) {
      WriteAll(clientFd, "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
      break;
    }
    countForwarded(matching);
    // Interim answers (1xx) are passed on and followed by the real one.
    const int sink = action == DropAnswer ? -1 : clientFd;
    std::string answer;
    do {
      if (!upstream.readThrough("\r\n\r\n", answer) || (sink >= 0 && !WriteAll(sink, answer))) {
        open = false;
        break;
      }
    } while (answer.size() > 12 && answer[9] == '1');
    if (!open || answer.size() <= 12)
      break;
    const std::string status = answer.substr(9, 3);
    const bool noBody = method == "HEAD" || status == "204" || status == "304";
    bool upstreamCloses = Contains(Header(answer, "Connection"), "close") || answer.rfind("HTTP/1.0", 0) == 0;
    if (!(noBody || RelayBody(upstream, answer, sink, nullptr, upstreamCloses)) || action == DropAnswer)
      break;
    if (upstreamCloses)
      closeUpstream();
    open = !closes && !upstreamCloses;
  }
  closeUpstream();
  track(clientFd, false);
  ::close(clientFd);
}

size_t FaultProxy::addRule(const Rule& rule) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_rules.push_back({rule});
  return m_rules.size() - 1;
}

void FaultProxy::clearRules() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_rules.clear();
}

size_t FaultProxy::count(size_t rule, size_t Counted::*field) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return rule < m_rules.size() ? m_rules[rule].*field : 0;
}
size_t FaultProxy::matched(size_t rule) const { return count(rule, &Counted::matched); }
size_t FaultProxy::acted(size_t rule) const { return count(rule, &Counted::acted); }
size_t FaultProxy::forwarded(size_t rule) const { return count(rule, &Counted::forwarded); }
size_t FaultProxy::connectionCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_accepted;
}

} // namespace qztest
