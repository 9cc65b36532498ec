#include "support/PouchDbFixture.h"
#include "support/SourcePaths.h"

#include <curl/curl.h>

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace qztest {

namespace {

uint16_t freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0)
    return 0;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  uint16_t port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    port = ntohs(addr.sin_port);
  ::close(fd);
  return port;
}

size_t appendBody(char* data, size_t size, size_t nmemb, void* out) {
  static_cast<std::string*>(out)->append(data, size * nmemb);
  return size * nmemb;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace

PouchDbServer::PouchDbServer() {
  const std::string program = SourceDir() + "/tests/pouchdb/node_modules/.bin/pouchdb-server";
  if (::access(program.c_str(), X_OK) != 0) {
    m_error = "pouchdb-server is not installed (" + program + "); run scripts/install-deps";
    return;
  }
  char dirTemplate[] = "/tmp/httptools-pouchdb-XXXXXX";
  if (!::mkdtemp(dirTemplate)) {
    m_error = "cannot create a scratch directory for pouchdb-server";
    return;
  }
  m_dir = dirTemplate;
  m_port = freePort();
  if (m_port == 0) {
    m_error = "no free port for pouchdb-server";
    return;
  }
  const std::string port = std::to_string(m_port);
  const std::string output = m_dir + "/output.txt";

  m_pid = ::fork();
  if (m_pid == 0) {
    if (::chdir(m_dir.c_str()) != 0)
      ::_exit(126);
    const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      ::dup2(fd, 1);
      ::dup2(fd, 2);
      ::close(fd);
    }
    ::execl(program.c_str(), program.c_str(), "-m", "-o", "127.0.0.1", "-p", port.c_str(), "-n", "--no-color",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  if (m_pid < 0) {
    m_error = "cannot fork pouchdb-server";
    return;
  }

  // It answers in about half a second; allow for a loaded machine.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
      m_pid = -1;
      m_error = "pouchdb-server exited at start (status " + std::to_string(status) + "): " + readFile(output);
      return;
    }
    std::string body;
    if (request("GET", "/", {}, &body) == 200 && body.find("Welcome") != std::string::npos)
      return;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  m_error = "pouchdb-server did not answer on port " + port + " within 30 s: " + readFile(output);
  stop();
}

PouchDbServer::~PouchDbServer() { stop(); }

void PouchDbServer::stop() {
  if (m_pid > 0) {
    ::kill(m_pid, SIGTERM);
    int status = 0;
    for (int i = 0; i < 100 && ::waitpid(m_pid, &status, WNOHANG) == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (::waitpid(m_pid, &status, WNOHANG) == 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, &status, 0);
    }
    m_pid = -1;
  }
  if (!m_dir.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(m_dir, ec);
    m_dir.clear();
  }
}

int PouchDbServer::request(const std::string& method, const std::string& path, const std::string& body,
                           std::string* response) const {
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
  if (!curl)
    return 0;
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
      curl_slist_append(nullptr, "Content-Type: application/json"), &curl_slist_free_all);
  std::string sink;
  const std::string url = baseUrl() + path;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
  if (!body.empty()) {
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, long(body.size()));
  }
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &appendBody);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, response ? response : &sink);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, 10000L);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  if (curl_easy_perform(curl.get()) != CURLE_OK)
    return 0;
  long status = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  return int(status);
}

} // namespace qztest
