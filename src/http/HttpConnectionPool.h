#pragma once

#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzThread.h>

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

namespace qz::http {

/// Idle connections keyed by the host and port each last talked to, so that a later request to
/// the same server reuses the open handle and its kept-alive TCP/TLS connection. Idle entries
/// older than the keep-open duration are closed by the library's periodic updater; at most
/// getMaxConcurrentConnection() idle entries are kept, more while calls hold a ParallelUse that
/// asks for more. Lending is never limited. Thread-safe.
/// Build it after qz::initializeHttpTools and destroy it before qz::terminateHttpTools.
class HTTPTOOLS_API HttpConnectionPool {
public:
  /// An idle connection and the server it last talked to.
  struct HTTPTOOLS_API tConnection {
    std::unique_ptr<HttpConnection> connection; ///< owned
    int64_t lastUse = 0;                        ///< ms of the monotonic time base, at release
    /// The server of the connection's last request.
    ///@{
    std::string host;
    uint32_t port = 0xFFFFFFFFu;
    ///@}
  };

  /// Matches the entries for one host and port.
  class HTTPTOOLS_API FindConnectionPred {
  public:
    /// True for an entry of `host` and `port`.
    ///@{
    FindConnectionPred(const std::string& host, uint32_t port) : m_host(host), m_port(port) {}
    bool operator()(const tConnection& c) const { return c.port == m_port && c.host == m_host; }
    ///@}

  private:
    std::string m_host;
    uint32_t m_port;
  };

  HttpConnectionPool();
  ~HttpConnectionPool();
  HttpConnectionPool(const HttpConnectionPool&) = delete;
  HttpConnectionPool& operator=(const HttpConnectionPool&) = delete;

  /// The idle connection released last for host:port, or a new one. The caller owns it.
  HttpConnection* getHttpConnection(const std::string& host, unsigned short port);
  /// Takes ownership of `conn`: pooled under its last URL's host:port, or deleted when it never
  /// made a call.
  void releaseHttpConnection(HttpConnection* conn);

  /// The hook setConnectionSetup() installs.
  using ConnectionSetup = std::function<void(HttpConnection&, const std::string& host, unsigned short port)>;
  /// Runs `setup` on every connection the pool makes from now on, with the host and port it is
  /// made for, before it is lent (parameters, common headers). Set it before the pool is shared
  /// between threads.
  void setConnectionSetup(ConnectionSetup setup);

  /// How long a connection may stay idle before the updater closes it (default 10 s).
  void setKeepOpenDurationSec(unsigned int seconds);
  void setMaxPendingConnection(unsigned int n); ///< 0 counts as 1
  /// Raises the cap to n for good when it is lower; trims nothing.
  void ensureAtLeastMaxConcurrentConnection(unsigned int n);
  uint64_t getMaxConcurrentConnection() const; ///< the cap on idle connections

  /// Held by a call that borrows up to n connections at once, for its duration. While calls hold
  /// them, the pool keeps as many idle connections as they borrow together, when that is more than
  /// the cap, so that their workers find their connections again between requests. When one ends,
  /// the idle connections past what is still needed are closed; the cap itself never changes.
  ///
  /// @code
  /// qz::http::HttpConnectionPool::ParallelUse use(pool, threads);
  /// @endcode
  class HTTPTOOLS_API ParallelUse {
  public:
    /// Counts `n` more borrowers until destroyed; `pool` must outlive it.
    ParallelUse(HttpConnectionPool& pool, unsigned int n);
    ~ParallelUse();
    ParallelUse(const ParallelUse&) = delete;
    ParallelUse& operator=(const ParallelUse&) = delete;

  private:
    HttpConnectionPool& m_pool;
    unsigned int m_n;
  };

  /// Periodic callback: closes connections idle longer than the keep-open duration.
  static void UpdatePool(void* pool);

  size_t idleCount() const; ///< connections idle in the pool now

private:
  /// Ageing pass at time `now` (ms of the time base), with m_mutex held. Removed entries move to
  /// `dropped`, which the caller destroys after unlocking so that closing connections does not
  /// hold up other threads.
  void updateConnectionPoolImpl(std::list<tConnection>& dropped, int64_t now);

  mutable qz::qzMutex m_mutex;    ///< first: guards everything below
  std::list<tConnection> m_idle;  ///< most recently released first
  std::list<tConnection> m_spare; ///< empty nodes of lent connections, reused on release
  size_t m_count = 0;
  int64_t m_keepOpenMs = 10000;
  uint64_t m_maxIdle = 1;
  uint64_t m_parallelUse = 0; ///< the sum of the live ParallelUse counts
  ConnectionSetup m_setup;
};

/// Borrows a connection from a pool for one scope and gives it back at scope exit:
///
/// @code
/// qz::http::HttpConnectionLocker conn(pool, url);
/// qz::http::HttpHelpers::HttpGetJson(*conn, url, out);
/// @endcode
class HTTPTOOLS_API HttpConnectionLocker {
public:
  /// Takes ownership of `c`; deletes it at scope exit (no pool involved).
  explicit HttpConnectionLocker(HttpConnection* c);
  /// Borrows a connection for host:port (a URL's host and port) and releases it to `pool` at scope exit.
  ///@{
  HttpConnectionLocker(HttpConnectionPool& pool, const std::string& host, unsigned short port);
  HttpConnectionLocker(HttpConnectionPool& pool, const qz::Url& url);
  ///@}
  ~HttpConnectionLocker();
  HttpConnectionLocker(const HttpConnectionLocker&) = delete;
  HttpConnectionLocker& operator=(const HttpConnectionLocker&) = delete;

  /// Borrows for host:port; a connection already held is overwritten, not released.
  void setConnection(const std::string& host, unsigned short port);

  /// The borrowed connection.
  ///@{
  operator HttpConnection*() const { return m_connection; }
  HttpConnection* operator->() const { return m_connection; }
  HttpConnection& operator*() const { return *m_connection; }
  ///@}

private:
  HttpConnection* m_connection = nullptr;
  HttpConnectionPool* m_pool = nullptr;
  std::string m_declaredHost;
  uint16_t m_declaredPort = 0;
  std::string m_borrowedHost;
  uint16_t m_borrowedPort = 0;
};

} // namespace qz::http
