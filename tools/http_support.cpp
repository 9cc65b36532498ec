// The pieces of a curl-like request: output targets, body, header lines, proxy, netrc and -w.

#include "HttpRequest.h"

#include <HttpTools/HttpTools.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

namespace httptools {

namespace {

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  return s;
}

bool HasHeader(const std::vector<std::string>& lines, const std::string& name) {
  const std::string prefix = Lower(name) + ":";
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return Lower(l).starts_with(prefix); });
}

std::string Env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

// no_proxy: "*" or names that match the host or one of its parent domains.
bool Bypassed(const std::string& list, const std::string& host) {
  std::istringstream in(list);
  for (std::string entry; std::getline(in, entry, ',');) {
    entry.erase(0, entry.find_first_not_of(" \t"));
    entry.erase(entry.find_last_not_of(" \t") + 1);
    if (entry == "*")
      return true;
    if (entry.starts_with("."))
      entry.erase(0, 1);
    entry = Lower(entry);
    const std::string h = Lower(host);
    if (!entry.empty() && (h == entry || (h.size() > entry.size() && h.ends_with("." + entry))))
      return true;
  }
  return false;
}

} // namespace

Output Output::File(std::string path) {
  Output o;
  o.m_path = std::move(path);
  return o;
}

Output Output::Stdout() {
  Output o;
  o.m_fd = 1;
  return o;
}

Output Output::Buffer(std::string* buffer) {
  Output o;
  o.m_buffer = buffer;
  return o;
}

Output::Output(Output&& other) noexcept
    : m_path(std::move(other.m_path)), m_fd(other.m_fd), m_owned(other.m_owned), m_buffer(other.m_buffer),
      m_failed(other.m_failed), m_errno(other.m_errno) {
  other.m_owned = false;
}

Output::~Output() {
  if (m_owned)
    ::close(m_fd);
}

bool Output::open() {
  m_fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  m_owned = m_fd >= 0;
  if (!m_owned) {
    m_failed = true;
    m_errno = errno;
  }
  return m_owned;
}

bool Output::write(const char* data, size_t size) {
  if (m_failed)
    return false;
  if (m_buffer) {
    m_buffer->append(data, size);
    return true;
  }
  if (m_fd < 0 && !open())
    return false;
  while (size > 0) {
    const ssize_t n = ::write(m_fd, data, size);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      m_failed = true;
      m_errno = errno;
      return false;
    }
    data += n;
    size -= size_t(n);
  }
  return true;
}

bool Output::finish() { return m_failed ? false : m_fd >= 0 || m_buffer || open(); }

void Output::truncate() {
  if (m_owned && ::ftruncate(m_fd, 0) == 0)
    ::lseek(m_fd, 0, SEEK_SET);
}

bool AssembleBody(const HttpOptions& o, std::string& body, std::string& error) {
  body.clear();
  bool first = true;
  for (const auto& [option, argument] : o.data) {
    std::string piece;
    if (option == "--data-urlencode") {
      size_t at = argument.find('=');
      if (at == std::string::npos)
        at = argument.find('@');
      const std::string name = at == std::string::npos ? "" : argument.substr(0, at);
      std::string content = at == std::string::npos ? argument : argument.substr(at + 1);
      if (at != std::string::npos && argument[at] == '@' && !ReadDataArgument("@" + content, content, error))
        return false;
      std::string encoded = qz::Url::UrlEncodeFromUtf8String(content);
      for (size_t space; (space = encoded.find("%20")) != std::string::npos;)
        encoded.replace(space, 3, "+"); // a form's blank, as curl writes it
      piece = (name.empty() ? "" : name + "=") + encoded;
    } else if (!ReadDataArgument(argument, piece, error)) {
      return false;
    } else if (option == "--data" && argument.starts_with("@")) {
      // -d @FILE drops line breaks, as curl does; --data-binary keeps them.
      std::erase_if(piece, [](char c) { return c == '\r' || c == '\n'; });
    }
    body += (first || option == "--json" ? "" : "&") + piece;
    first = false;
  }
  return true;
}

bool AssembleHeaders(const HttpOptions& o, const qz::Url& url, qz::http::RequestSpec& request, std::string& error) {
  std::vector<std::string> lines;
  if (!o.conn.headerLines(lines, error))
    return false;
  if (o.conn.user.empty() && (o.netrc || !o.netrcFile.empty())) {
    const std::string file = o.netrcFile.empty() ? Env("HOME") + "/.netrc" : o.netrcFile;
    std::string login, password, token;
    if (NetrcCredentials(file, url.host, login, password)) {
      qz::qzOpenSSL::base64Encode(login + ":" + password, token, qz::qzOpenSSL::B64_Standard);
      lines.push_back("Authorization: Basic " + token);
    }
  }
  if (!o.compressed && !HasHeader(lines, "Accept-Encoding"))
    lines.push_back("Accept-Encoding:"); // the body as stored, as curl asks for it without --compressed
  if (!HasHeader(lines, "User-Agent"))
    lines.push_back("User-Agent:" + (o.userAgent.empty() ? "" : " " + o.userAgent));
  const bool json = std::any_of(o.data.begin(), o.data.end(), [](const auto& d) { return d.first == "--json"; });
  if (json && !HasHeader(lines, "Accept"))
    lines.push_back("Accept: application/json");
  if (!o.data.empty() && !HasHeader(lines, "Content-Type"))
    request.contentType = json ? "application/json" : "application/x-www-form-urlencoded";
  request.headers = std::move(lines);
  return true;
}

void ApplyProxy(const HttpOptions& o, const qz::Url& url, qz::http::HttpConnection::ConnectionParameters& params) {
  std::string proxy = o.proxy;
  if (!o.proxyGiven) {
    proxy = url.scheme == "https" ? Env("https_proxy") : Env("http_proxy");
    if (proxy.empty() && url.scheme == "https")
      proxy = Env("HTTPS_PROXY");
    for (const char* name : {"all_proxy", "ALL_PROXY"})
      if (proxy.empty())
        proxy = Env(name);
  }
  const std::string noProxy = o.noProxyGiven ? o.noProxy : !Env("no_proxy").empty() ? Env("no_proxy") : Env("NO_PROXY");
  params.proxyPolicy = qz::http::PP_NoProxy;
  if (proxy.empty() || Bypassed(noProxy, url.host))
    return;
  if (proxy.find("://") == std::string::npos)
    proxy = "http://" + proxy;
  qz::Url proxyUrl;
  std::string error;
  if (proxyUrl.fromEncodedUtf8String(proxy, &error, false) && proxyUrl.isValid()) {
    params.proxyPolicy = qz::http::PP_ManualProxy;
    params.manualProxyUrl = proxyUrl;
  }
}

std::string FormatWriteOut(const std::string& format, const std::map<std::string, std::string>& values,
                           const qz::http::TransferOutcome& outcome, std::string& err) {
  std::string out;
  for (size_t i = 0; i < format.size(); ++i) {
    const char c = format[i];
    if (c == '\\' && i + 1 < format.size()) {
      const char e = format[++i];
      out += e == 'n' ? std::string("\n") : e == 't' ? "\t" : e == 'r' ? "\r" : e == '\\' ? "\\" : std::string{'\\', e};
    } else if (c == '%' && format.compare(i, 2, "%%") == 0) {
      out += '%';
      ++i;
    } else if (c == '%' && format.compare(i, 8, "%header{") == 0 && format.find('}', i) != std::string::npos) {
      const size_t end = format.find('}', i);
      out += outcome.header(format.substr(i + 8, end - i - 8));
      i = end;
    } else if (c == '%' && format.compare(i, 2, "%{") == 0 && format.find('}', i) != std::string::npos) {
      const size_t end = format.find('}', i);
      const std::string name = format.substr(i + 2, end - i - 2);
      if (auto v = values.find(name); v != values.end())
        out += v->second;
      else
        err += "httptools: unknown --write-out variable: '" + name + "'\n";
      i = end;
    } else {
      out += c;
    }
  }
  return out;
}

bool NetrcCredentials(const std::string& file, const std::string& host, std::string& login, std::string& password) {
  std::ifstream in(file);
  bool inEntry = false, found = false;
  for (std::string word; in >> word;) {
    if (word == "machine" || word == "default") {
      if (found)
        return true;
      std::string name;
      if (word == "machine")
        in >> name;
      inEntry = word == "default" || name == host;
      found = inEntry;
    } else if (inEntry && word == "login") {
      in >> login;
    } else if (inEntry && word == "password") {
      in >> password;
    }
  }
  return found;
}

} // namespace httptools
