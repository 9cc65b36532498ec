#include "support/PouchDbFixture.h"

#include "support/Loopback.h"
#include "support/Process.h"
#include "support/SourcePaths.h"

#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace qztest {

namespace {

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
  m_port = uint16_t(FreeLoopbackPort());
  if (m_port == 0) {
    m_error = "no free port for pouchdb-server";
    return;
  }
  const std::string port = std::to_string(m_port);
  const std::string output = m_dir + "/output.txt";
  m_pid = StartProgram({program, "-m", "-o", "127.0.0.1", "-p", port, "-n", "--no-color"}, output, m_dir);
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
  EndProgram(m_pid);
  m_pid = -1;
  if (!m_dir.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(m_dir, ec);
    m_dir.clear();
  }
}

int PouchDbServer::request(const std::string& method, const std::string& path, const std::string& body,
                           std::string* response) const {
  httplib::Client client("127.0.0.1", m_port);
  client.set_url_encode(false); // the path as the caller wrote it
  client.set_read_timeout(10);
  httplib::Request req;
  req.method = method;
  req.path = path;
  req.body = body;
  req.set_header("Content-Type", "application/json");
  const auto res = client.send(req);
  if (res && response)
    *response = res->body;
  return res ? res->status : 0;
}

} // namespace qztest
