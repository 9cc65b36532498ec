#include <HttpTools/http/HttpConnectionPool.h>

#include <HttpTools/frame/HttpToolsLib_p.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <algorithm>
#include <functional>

namespace qz::http {

HttpConnectionPool::HttpConnectionPool() {
  if (auto* updater = qz::impl::GetPeriodicalUpdater())
    updater->addCallback(UpdatePool, this);
  else
    qzLogObject(qzLog::Error, "http") << "HttpConnectionPool built before the library was initialized";
}

HttpConnectionPool::~HttpConnectionPool() {
  if (auto* updater = qz::impl::GetPeriodicalUpdater())
    updater->removeCallback(UpdatePool, this);
  qzMutexLocker lock(m_mutex);
  m_idle.clear();
  m_spare.clear();
  m_count = 0;
}

HttpConnection* HttpConnectionPool::getHttpConnection(const std::string& host, unsigned short port) {
  {
    const FindConnectionPred matches(host, port); // its copy of the host made before the lock
    qzMutexLocker lock(m_mutex);
    auto it = std::find_if(m_idle.begin(), m_idle.end(), std::cref(matches)); // no copies of the predicate
    if (it != m_idle.end()) {
      HttpConnection* c = it->connection.release();
      m_spare.splice(m_spare.begin(), m_idle, it);
      --m_count;
      return c;
    }
  }
  auto* c = new HttpConnection(true);
  if (m_setup)
    m_setup(*c, host, port);
  return c;
}

void HttpConnectionPool::setConnectionSetup(ConnectionSetup setup) { m_setup = std::move(setup); }

void HttpConnectionPool::releaseHttpConnection(HttpConnection* conn) {
  if (!conn)
    return;
  std::unique_ptr<HttpConnection> owned(conn);
  const qz::Url& last = conn->getLastUrl();
  if (last.host.empty())
    return; // never made a call: nothing worth keeping
  const int64_t now = qzSystemUtils::GetTimeBaseMs();
  std::list<tConnection> dropped; // closed after the lock is released
  qzMutexLocker lock(m_mutex);
  if (m_spare.empty())
    m_idle.emplace_front();
  else
    m_idle.splice(m_idle.begin(), m_spare, m_spare.begin());
  tConnection& entry = m_idle.front();
  entry.host = last.host;
  entry.port = last.port;
  entry.lastUse = now;
  entry.connection = std::move(owned);
  ++m_count;
  updateConnectionPoolImpl(dropped, now);
  lock.native().unlock();
}

void HttpConnectionPool::setKeepOpenDurationSec(unsigned int seconds) {
  std::list<tConnection> dropped;
  qzMutexLocker lock(m_mutex);
  m_keepOpenMs = int64_t(seconds) * 1000;
  updateConnectionPoolImpl(dropped, qzSystemUtils::GetTimeBaseMs());
  lock.native().unlock();
}

void HttpConnectionPool::setMaxPendingConnection(unsigned int n) {
  std::list<tConnection> dropped;
  qzMutexLocker lock(m_mutex);
  m_maxIdle = n == 0 ? 1 : n;
  updateConnectionPoolImpl(dropped, qzSystemUtils::GetTimeBaseMs());
  lock.native().unlock();
}

void HttpConnectionPool::ensureAtLeastMaxConcurrentConnection(unsigned int n) {
  qzMutexLocker lock(m_mutex);
  m_maxIdle = std::max<uint64_t>(m_maxIdle, n);
}

HttpConnectionPool::ParallelUse::ParallelUse(HttpConnectionPool& pool, unsigned int n) : m_pool(pool), m_n(n) {
  qzMutexLocker lock(m_pool.m_mutex);
  m_pool.m_parallelUse += n;
}

HttpConnectionPool::ParallelUse::~ParallelUse() {
  std::list<tConnection> dropped;
  qzMutexLocker lock(m_pool.m_mutex);
  m_pool.m_parallelUse -= m_n;
  m_pool.updateConnectionPoolImpl(dropped, qzSystemUtils::GetTimeBaseMs());
  lock.native().unlock();
}

uint64_t HttpConnectionPool::getMaxConcurrentConnection() const {
  qzMutexLocker lock(m_mutex);
  return m_maxIdle;
}

size_t HttpConnectionPool::idleCount() const {
  qzMutexLocker lock(m_mutex);
  return m_count;
}

void HttpConnectionPool::UpdatePool(void* pool) {
  auto* p = static_cast<HttpConnectionPool*>(pool);
  std::list<tConnection> dropped;
  qzMutexLocker lock(p->m_mutex);
  p->updateConnectionPoolImpl(dropped, qzSystemUtils::GetTimeBaseMs());
  lock.native().unlock();
}

void HttpConnectionPool::updateConnectionPoolImpl(std::list<tConnection>& dropped, int64_t now) {
  if (m_idle.empty())
    return;
  if (now - m_idle.back().lastUse > m_keepOpenMs) {
    for (auto it = m_idle.begin(); it != m_idle.end();) {
      if (now - it->lastUse > m_keepOpenMs) {
        auto next = std::next(it);
        dropped.splice(dropped.end(), m_idle, it);
        it = next;
        --m_count;
      } else {
        ++it;
      }
    }
  }
  while (m_count > std::max(m_maxIdle, m_parallelUse)) {
    dropped.splice(dropped.end(), m_idle, std::prev(m_idle.end()));
    --m_count;
  }
}

HttpConnectionLocker::HttpConnectionLocker(HttpConnection* c) : m_connection(c) {}

HttpConnectionLocker::HttpConnectionLocker(HttpConnectionPool& pool, const std::string& host, unsigned short port)
    : m_pool(&pool) {
  setConnection(host, port);
}

HttpConnectionLocker::HttpConnectionLocker(HttpConnectionPool& pool, const qz::Url& url) : m_pool(&pool) {
  setConnection(url.host, url.port);
}

void HttpConnectionLocker::setConnection(const std::string& host, unsigned short port) {
  m_connection = m_pool->getHttpConnection(host, port);
  m_declaredHost = host;
  m_declaredPort = port;
  const qz::Url& last = m_connection->getLastUrl();
  m_borrowedHost = last.host;
  m_borrowedPort = last.port;
}

HttpConnectionLocker::~HttpConnectionLocker() {
  if (!m_pool) {
    delete m_connection;
    m_connection = nullptr;
    return;
  }
  if (!m_connection)
    return;
  if (!m_borrowedHost.empty()) {
    const qz::Url& last = m_connection->getLastUrl();
    if (m_declaredHost != last.host || m_borrowedHost != last.host || m_declaredPort != last.port ||
        m_borrowedPort != last.port)
      qzLogObject(qzLog::Warning, "http")
          << "Http connection from pool was used with an other host/port '" << last.toDisplayableUrl()
          << "' than the one declared " << m_declaredHost << ":" << m_declaredPort;
  }
  m_pool->releaseHttpConnection(m_connection);
  m_connection = nullptr;
  m_pool = nullptr;
}

} // namespace qz::http
