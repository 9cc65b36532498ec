#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace qztest {

// A pouchdb-server (CouchDB API, in-memory databases) on 127.0.0.1 and a free port, started from
// a scratch working directory (it writes config.json and log.txt there) and stopped by its PID.
// If it cannot start, ok() is false and error() says why.
class PouchDbServer {
public:
  PouchDbServer();
  ~PouchDbServer();
  PouchDbServer(const PouchDbServer&) = delete;
  PouchDbServer& operator=(const PouchDbServer&) = delete;

  bool ok() const { return m_pid > 0 && m_error.empty(); }
  const std::string& error() const { return m_error; }
  uint16_t port() const { return m_port; }
  pid_t pid() const { return m_pid; } // the server process, e.g. to read its CPU time
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(m_port); }

  // One request with a JSON body (empty: none); returns the HTTP status, 0 on a transport error.
  int request(const std::string& method, const std::string& path, const std::string& body = {},
              std::string* response = nullptr) const;

private:
  void stop();

  pid_t m_pid = -1;
  uint16_t m_port = 0;
  std::string m_dir;
  std::string m_error;
};

} // namespace qztest
