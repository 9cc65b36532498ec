// Helpers shared by the command groups.

#include "Commands.h"

#include <HttpTools/HttpTools.h>
#include <HttpTools/http/Transfer.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace httptools {

CLI::App* Group(CLI::App& app, const std::string& name, const std::string& description) {
  for (CLI::App* sub : app.get_subcommands([&](CLI::App* s) { return s->get_name() == name; }))
    return sub;
  CLI::App* group = app.add_subcommand(name, description);
  group->require_subcommand(1);
  return group;
}

bool ReadFile(const std::string& path, std::string& content) {
  std::ifstream f(path, std::ios::binary);
  if (!f)
    return false;
  std::ostringstream s;
  s << f.rdbuf();
  content = s.str();
  return !f.bad();
}

bool ReadDataArgument(const std::string& argument, std::string& data, std::string& error) {
  if (argument == "@-") {
    data.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    return true;
  }
  if (argument.starts_with("@")) {
    if (!ReadFile(argument.substr(1), data)) {
      error = "cannot read " + argument.substr(1);
      return false;
    }
    return true;
  }
  data = argument;
  return true;
}

int ExitCodeOfTransferError(const qz::http::TransferError& error) {
  using qz::http::ErrorKind;
  switch (error.kind) {
  case ErrorKind::None:
    return kExitOk;
  case ErrorKind::Resolve:
    return kExitResolve;
  case ErrorKind::Connect:
    return kExitConnect;
  case ErrorKind::Timeout:
    return kExitTimeout;
  case ErrorKind::Tls: // curl tells a refused certificate from a failed handshake
    return error.curlCode == kExitCertificate ? kExitCertificate : kExitTls;
  case ErrorKind::HttpStatus:
    return kExitHttpStatus;
  case ErrorKind::Protocol: // a body shorter than announced is curl's "partial file"
    return error.curlCode == kExitPartial ? kExitPartial : kExitFailure;
  case ErrorKind::LocalIo:
    return kExitWrite;
  case ErrorKind::BodyTooLarge:
    return kExitFileSize;
  default:
    return kExitFailure;
  }
}

bool verbose = false;

void InstallLogSink() {
  qz::qzLog::SetSink([](int type, const std::string& category, const std::string& text) {
    if (verbose)
      std::fprintf(stderr, "[%s] %s%s%s\n", qz::qzLog::TypeName(type), category.c_str(), category.empty() ? "" : ": ",
                   text.c_str());
  });
}

bool CheckCommandLineUrl(std::string& text, std::string& error) {
  size_t schemeEnd = text.find("://");
  if (schemeEnd == std::string::npos || schemeEnd > text.find_first_of("/?#")) {
    text.insert(0, "http://");
    schemeEnd = 4;
  }
  const size_t end = std::min(text.find_first_of("/?#", schemeEnd + 3), text.size());
  const size_t at = text.rfind('@', end);
  const size_t begin = at != std::string::npos && at > schemeEnd ? at + 1 : schemeEnd + 3; // credentials may hold ':'
  size_t colon = std::string::npos;
  if (text.compare(begin, 1, "[") == 0) {
    const size_t close = text.find(']', begin);
    if (close != std::string::npos && close + 1 < end && text[close + 1] == ':')
      colon = close + 1;
  } else {
    colon = text.find(':', begin);
  }
  if (colon >= end || colon + 1 == end)
    return true; // no port, or an empty one: the scheme's
  const std::string port = text.substr(colon + 1, end - colon - 1);
  const size_t significant = port.find_first_not_of('0');
  const std::string value = significant == std::string::npos ? "" : port.substr(significant);
  if (port.find_first_not_of("0123456789") != std::string::npos || value.empty() || value.size() > 5 ||
      std::stol(value) > 65535) {
    error = "bad port '" + port + "' (1 to 65535, decimal)";
    return false;
  }
  text.replace(colon + 1, port.size(), value); // leading zeros are decimal ones, as curl reads them
  return true;
}

bool ParseCommandLineUrl(const std::string& command, std::string text, qz::Url& url) {
  std::string error;
  const std::string given = text;
  if (!CheckCommandLineUrl(text, error) || !url.fromEncodedUtf8String(text, &error, false) || !url.isValid()) {
    std::cerr << command << ": invalid URL '" << given << "': " << (error.empty() ? "no host" : error) << "\n";
    return false;
  }
  return true;
}

bool AppendHeaderFile(const std::string& at, std::vector<std::string>& lines, std::string& error) {
  std::string text;
  if (!ReadDataArgument(at, text, error))
    return false;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    if (!line.empty())
      lines.push_back(line);
  }
  return true;
}

bool ConnectionOptions::headerLines(std::vector<std::string>& lines, std::string& error) const {
  for (const std::string& h : headers) {
    if (!h.starts_with("@")) {
      lines.push_back(h);
      continue;
    }
    if (!AppendHeaderFile(h, lines, error))
      return false;
  }
  if (!user.empty()) {
    std::string token;
    qz::qzOpenSSL::base64Encode(user.find(':') == std::string::npos ? user + ":" : user, token,
                                qz::qzOpenSSL::B64_Standard);
    lines.push_back("Authorization: Basic " + token);
  }
  return true;
}

namespace {
// A libcurl debug line on standard error as it happens, marked as curl -v marks it: "* "
// information, "> " sent and "< " received header lines. One write per line, so that the lines of
// parallel transfers do not mix within a line.
void PrintDebugLine(qz::http::DebugLineKind kind, std::string_view line) {
  std::string text = kind == qz::http::DebugLineKind::Info       ? "* "
                     : kind == qz::http::DebugLineKind::HeaderIn ? "< "
                                                                 : "> ";
  text.append(line).push_back('\n');
  std::fwrite(text.data(), 1, text.size(), stderr);
}
} // namespace

void ConnectionOptions::apply(qz::http::HttpConnection::ConnectionParameters& params) const {
  if (insecure)
    params.sslValidatePolicy = qz::http::SVP_NoVerify;
  if (!caFile.empty())
    params.caFile = caFile;
  if (connectTimeout > 0)
    params.connectTimeoutSec = std::max(1, int(std::ceil(connectTimeout)));
  if (maxTime > 0)
    params.totalTimeoutMs = std::max(1L, long(std::ceil(maxTime * 1000)));
  if (verboseFlag)
    params.debugLines = PrintDebugLine;
}

void AddConnectionOptions(CLI::App* cmd, ConnectionOptions& o, bool withHeaders) {
  cmd->add_flag("-k,--insecure", o.insecure, "Do not check the server's certificate and host name");
  cmd->add_option("--cacert", o.caFile, "Verify the server against the CA certificates in FILE (PEM)")
      ->check(CLI::ExistingFile);
  if (withHeaders) {
    cmd->add_option("-H,--header", o.headers, "Extra header line \"Name: value\", or @FILE of such lines (repeatable)")
        ->allow_extra_args(false);
    cmd->add_option("-u,--user", o.user, "Basic authentication as USER:PASSWORD");
  }
  cmd->add_option("-m,--max-time", o.maxTime, "Give up a request after SECONDS")->check(CLI::PositiveNumber);
  cmd->add_option("--connect-timeout", o.connectTimeout, "Give up connecting after SECONDS")
      ->check(CLI::PositiveNumber);
  cmd->add_flag("-v,--verbose", o.verboseFlag,
                "Show request and response headers as they pass, and the library's log lines, on standard error");
}

bool UseConnectionOptions(const std::string& command, const ConnectionOptions& o) {
  verbose = verbose || o.verboseFlag;
  std::vector<std::string> lines;
  std::string error;
  if (!o.headerLines(lines, error)) {
    std::cerr << command << ": " << error << "\n";
    return false;
  }
  auto& setup = ConnectionSetup();
  setup.headers.assign(lines.begin(), lines.end());
  o.apply(setup.parameters);
  return true;
}

ConnectionSetupValues& ConnectionSetup() {
  static ConnectionSetupValues values;
  return values;
}

void Prepare(qz::http::HttpConnection& connection) {
  connection.setConnectionParameters(ConnectionSetup().parameters);
  connection.setCommonHeaders(ConnectionSetup().headers);
}

void Prepare(qz::http::HttpConnectionPool& pool) {
  pool.setConnectionSetup([](qz::http::HttpConnection& c, const std::string&, unsigned short) { Prepare(c); });
}

int ProbeServer(const std::string& command, const qz::Url& url,
                const std::function<void(qz::http::HttpConnection&)>& prepare) {
  qz::http::HttpConnection connection;
  if (prepare)
    prepare(connection);
  else
    Prepare(connection);
  qz::http::TransferRequest request;
  request.url = url;
  qz::http::StringSink sink;
  qz::http::TransferOutcome outcome;
  if (qz::http::PerformTransfer(connection, request, sink, outcome))
    return kExitOk;
  std::cerr << command << ": " << outcome.error.message() << "\n";
  return ExitCodeOfTransferError(outcome.error);
}

namespace {
bool g_interrupted = false;
void OnInterrupt(int) { std::atomic_ref<bool>(g_interrupted).store(true); }
} // namespace

const bool* InterruptFlag() {
  static const bool installed = [] {
    std::signal(SIGINT, &OnInterrupt);
    std::signal(SIGTERM, &OnInterrupt);
    return true;
  }();
  (void)installed;
  return &g_interrupted;
}

bool Interrupted() { return std::atomic_ref<bool>(g_interrupted).load(); }

} // namespace httptools
