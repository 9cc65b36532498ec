#include "support/NginxFixture.h"

#include "support/Process.h"

#include <httplib.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace qztest {

namespace {

const char* kNginx = "/usr/sbin/nginx";

bool canConnect(int port) {
  const int fd = ConnectLoopback(uint16_t(port));
  if (fd >= 0)
    ::close(fd);
  return fd >= 0;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

} // namespace

NginxFixture::NginxFixture() : NginxFixture(Options{}) {}

NginxFixture::NginxFixture(Options options) : m_options(options) {}

NginxFixture::~NginxFixture() { stop(); }

bool NginxFixture::fail(const std::string& message) {
  m_error = "nginx fixture: " + message;
  return false;
}

bool NginxFixture::start() {
  if (isRunning())
    return true;
  if (::access(kNginx, X_OK) != 0)
    return fail(std::string(kNginx) + " not found (install nginx-light)");

  char dir[] = "/tmp/httptools-nginx-XXXXXX";
  if (!::mkdtemp(dir))
    return fail(std::string("cannot create a temporary prefix: ") + std::strerror(errno));
  m_prefix = dir;
  // nginx workers may run as another user (when started by root): let them read the prefix.
  ::chmod(dir, 0755);
  std::filesystem::create_directories(filesDir());
  std::filesystem::create_directories(m_prefix + "/tmp");

  // A self-signed EC certificate and its key.
  auto makeCertificate = [&](const std::string& subject, const std::string& key, const std::string& cert) {
    const std::string cmd = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj " +
                            subject + " -keyout '" + key + "' -out '" + cert + "' >'" + m_prefix + "/openssl.log' 2>&1";
    return std::system(cmd.c_str()) == 0;
  };
  if (!makeCertificate("/CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1,DNS:localhost", m_prefix + "/key.pem",
                       certificatePath()))
    return fail("openssl could not make a certificate: " + readFile(m_prefix + "/openssl.log"));
  if (m_options.mutualTlsBackend > 0) {
    if (!makeCertificate("/CN=httptools-client", clientKeyPath(), clientCertPath()))
      return fail("openssl could not make a client certificate: " + readFile(m_prefix + "/openssl.log"));
    if ((m_mtlsPort = FreeLoopbackPort()) == 0)
      return fail("no free port on 127.0.0.1");
  }

  m_httpPort = FreeLoopbackPort();
  m_httpsPort = FreeLoopbackPort();
  if (m_httpPort == 0 || m_httpsPort == 0 || m_httpPort == m_httpsPort)
    return fail("no free port on 127.0.0.1");

  const std::string& p = m_prefix;
  std::ostringstream conf;
  conf << "daemon off;\nmaster_process on;\nworker_processes 1;\n"
       << "pid " << p << "/nginx.pid;\nerror_log " << p << "/error.log warn;\n"
       << "events { worker_connections 1024; }\n"
       << "http {\n"
       << "  log_format conn '$connection $server_protocol $status $request_uri';\n"
       << (m_options.connectionLog ? "  access_log " + p + "/access.log conn;\n" : "  access_log off;\n")
       << "  keepalive_requests 1000000;\n  keepalive_timeout 60s;\n  default_type text/plain;\n";
  for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
    conf << "  " << temp << "_temp_path " << p << "/tmp/" << temp << ";\n";
  conf << "  server {\n"
       << "    listen 127.0.0.1:" << m_httpPort << ";\n"
       << "    listen 127.0.0.1:" << m_httpsPort << (m_options.http2 ? " ssl http2;\n" : " ssl;\n")
       << "    ssl_certificate " << p << "/cert.pem;\n    ssl_certificate_key " << p << "/key.pem;\n"
       << "    location = / { return 200 \"hello\\n\"; }\n"
       << "    location = /small { return 200 \"ok\"; }\n"
       << "    location = /json { default_type application/json; return 200 '{\"ok\":true}'; }\n"
       << "    location = /put { return 200 \"stored\\n\"; }\n"
       << "    location = /created { return 201 \"created\\n\"; }\n"
       << "    location = /missing { return 404; }\n"
       << "    location = /to-localhost { return 302 https://localhost:$server_port/small; }\n"
       << "    location /files/ { alias " << p << "/files/; }\n"
       << "    location = /nginx_status { stub_status; }\n"
       << "  }\n";
  if (m_options.mutualTlsBackend > 0)
    conf << "  server {\n    listen 127.0.0.1:" << m_mtlsPort << " ssl;\n"
         << "    ssl_certificate " << p << "/cert.pem;\n    ssl_certificate_key " << p << "/key.pem;\n"
         << "    ssl_client_certificate " << clientCertPath() << ";\n    ssl_verify_client on;\n"
         << "    location / { proxy_pass http://127.0.0.1:" << m_options.mutualTlsBackend << "; }\n  }\n";
  conf << "}\n";
  {
    std::ofstream out(p + "/nginx.conf");
    out << conf.str();
    if (!out)
      return fail("cannot write " + p + "/nginx.conf");
  }

  const std::string errPath = p + "/error.log";
  if ((m_pid = StartProgram({kNginx, "-p", p, "-c", p + "/nginx.conf", "-e", errPath}, p + "/nginx.out")) < 0)
    return fail(std::string("fork failed: ") + std::strerror(errno));

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
      m_pid = -1;
      return fail("nginx exited at start: " + readFile(errPath));
    }
    if (canConnect(m_httpPort) && canConnect(m_httpsPort)) {
      m_baseline = 0;
      m_statusCalls = 0;
      m_baseline = connectionCount();
      if (m_baseline >= 0)
        return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const std::string log = readFile(errPath);
  stop();
  return fail("nginx did not start listening within 10 s: " + log);
}

void NginxFixture::stop() {
  EndProgram(m_pid, SIGTERM, 30000);
  m_pid = -1;
  if (!m_prefix.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(m_prefix, ec);
    m_prefix.clear();
  }
}

std::string NginxFixture::httpUrl(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(m_httpPort) + path;
}

std::string NginxFixture::httpsUrl(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(m_httpsPort) + path;
}

long NginxFixture::connectionCount() const {
  ++m_statusCalls;
  httplib::Client cli("127.0.0.1", m_httpPort);
  auto res = cli.Get("/nginx_status");
  if (!res || res->status != 200)
    return -1;
  // "Active connections: N \nserver accepts handled requests\n A H R \n..."
  std::istringstream in(res->body);
  std::string line;
  std::getline(in, line);
  std::getline(in, line);
  long accepts = -1;
  if (!(in >> accepts))
    return -1;
  return accepts - m_baseline - m_statusCalls;
}

} // namespace qztest
