#pragma once

// A real nginx for TLS and keep-alive tests and benchmarks: one worker in the foreground, bound to
// 127.0.0.1 on free ports, with a self-signed certificate (CN and SAN 127.0.0.1 and localhost)
// generated with the openssl command at start. Everything lives in a temporary prefix removed at
// stop.
//
// Locations on both ports:
//   /            200 "hello\n" (text/plain)
//   /small       200 "ok" (text/plain)
//   /json        200 {"ok":true} (application/json)
//   /put         200 "stored\n" for any method (the request body is read and dropped)
//   /created     201 "created\n" for any method
//   /missing     404
//   /to-localhost  302 to https://localhost:<same port>/small
//   /files/...   static files from filesDir() (write them before requesting)
//   /nginx_status  stub_status; connectionCount() reads its "accepts" counter

#include "support/Loopback.h"

#include <string>
#include <sys/types.h>

namespace qztest {

class NginxFixture {
public:
  struct Options {
    bool http2 = false;         // the https port also offers HTTP/2 (ALPN)
    bool connectionLog = false; // access log lines "<$connection> <$server_protocol> <$status> <uri>"
    int mutualTlsBackend = 0;   // > 0: mutualTlsPort() requires clientCertPath() and proxies to this port
  };

  NginxFixture();
  explicit NginxFixture(Options options);
  ~NginxFixture(); // stops nginx and removes the prefix
  NginxFixture(const NginxFixture&) = delete;
  NginxFixture& operator=(const NginxFixture&) = delete;

  // Starts nginx and waits until both ports answer. On failure returns false with a message
  // saying what went wrong (missing binary, openssl failure, nginx's error log).
  bool start();
  void stop();
  bool isRunning() const { return m_pid > 0; }
  const std::string& lastError() const { return m_error; }

  int httpPort() const { return m_httpPort; }
  int httpsPort() const { return m_httpsPort; }
  std::string httpUrl(const std::string& path) const;  // http://127.0.0.1:<port><path>
  std::string httpsUrl(const std::string& path) const; // https://127.0.0.1:<port><path>
  const std::string& prefix() const { return m_prefix; }
  std::string filesDir() const { return m_prefix + "/files"; }
  std::string certificatePath() const { return m_prefix + "/cert.pem"; }
  int mutualTlsPort() const { return m_mtlsPort; }
  std::string clientCertPath() const { return m_prefix + "/client.pem"; } // and its key:
  std::string clientKeyPath() const { return m_prefix + "/client-key.pem"; }
  std::string accessLogPath() const { return m_prefix + "/access.log"; }

  // Connections accepted since start() returned, as stub_status counts them (-1 when
  // unreadable). The fixture's own probes and status requests are not included.
  long connectionCount() const;

private:
  bool fail(const std::string& message);

  Options m_options;
  std::string m_prefix;
  std::string m_error;
  int m_httpPort = 0;
  int m_httpsPort = 0;
  int m_mtlsPort = 0;
  pid_t m_pid = -1;
  long m_baseline = 0;            // connections made by start() itself
  mutable long m_statusCalls = 0; // each status read opens a connection of its own
};

} // namespace qztest
