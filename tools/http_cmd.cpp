// get, head, put, post, delete: one HTTP request, with curl's habits.

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <list>
#include <map>
#include <memory>

namespace {

struct HttpOptions {
  std::string method; // get, head, put, post, delete
  std::string url;
  std::vector<std::string> headers;
  std::string output;
  std::string data;
  std::string json;
  std::string writeOut;
  std::string caFile;
  int expect = 0;
  double connectTimeout = 0;
  double maxTime = 0;
  long long maxFilesize = 0;
  bool verbose = false;
  bool silent = false;
  bool showError = false;
  bool insecure = false;
  // get only: several URLs at once through the multi-request engine
  std::vector<std::string> urls, outputs;
  unsigned parallel = 0;
  bool parallelDefault = false;

  bool hasBody() const { return method == "put" || method == "post"; }
  bool errorsShown() const { return !silent || showError; }
};

std::string HumanBytes(double n) {
  static const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int u = 0;
  while (n >= 1024 && u < 4) {
    n /= 1024;
    ++u;
  }
  char text[32];
  std::snprintf(text, sizeof text, u == 0 ? "%.0f %s" : "%.1f %s", n, units[u]);
  return text;
}

// Writes the response body to a stream and, on a terminal, keeps a progress line on stderr for
// transfers that last over a second: bytes, total and percentage when the length is announced,
// rate and time left.
class BodyDevice : public qz::qzIoDevice {
public:
  BodyDevice(std::ostream& out, bool progress, const std::map<std::string, std::string>& headers)
      : m_out(out), m_progress(progress), m_headers(headers) {}
  ~BodyDevice() override {
    if (m_shown)
      std::cerr << "\n";
  }
  int64_t writeBytes(const char* data, unsigned long length) override {
    m_out.write(data, std::streamsize(length));
    m_received += length;
    const int64_t now = qz::qzSystemUtils::GetTimeBaseMs();
    if (m_progress && now - m_start >= 1000 && now - m_lastShown >= 250) {
      m_lastShown = now;
      m_shown = true;
      show(now);
    }
    return int64_t(length);
  }
  bool hasError() const override { return !m_out; }

private:
  void show(int64_t now) {
    const double seconds = double(now - m_start) / 1000.0;
    const double rate = double(m_received) / seconds;
    std::string line = "\r" + HumanBytes(double(m_received));
    auto length = m_headers.find("content-length");
    const double total = length == m_headers.end() ? 0 : std::strtod(length->second.c_str(), nullptr);
    if (total > 0) {
      char percent[16];
      std::snprintf(percent, sizeof percent, " %3.0f%%", 100.0 * double(m_received) / total);
      line += " of " + HumanBytes(total) + percent;
    }
    line += "  " + HumanBytes(rate) + "/s";
    if (total > double(m_received) && rate > 0)
      line += "  " + qz::qzStringUtils::humanizeDuration(int64_t((total - double(m_received)) / rate * 1000), 1, true) +
              " left";
    std::cerr << line << "    " << std::flush;
  }

  std::ostream& m_out;
  bool m_progress;
  const std::map<std::string, std::string>& m_headers;
  bool m_shown = false;
  uint64_t m_received = 0;
  int64_t m_start = qz::qzSystemUtils::GetTimeBaseMs();
  int64_t m_lastShown = 0;
};

// -w: %{name} variables and \n, \t, \r escapes; %% is a percent sign.
std::string WriteOut(const std::string& format, const std::map<std::string, std::string>& values) {
  std::string out;
  for (size_t i = 0; i < format.size(); ++i) {
    const char c = format[i];
    if (c == '\\' && i + 1 < format.size()) {
      const char e = format[++i];
      out += e == 'n' ? '\n' : e == 't' ? '\t' : e == 'r' ? '\r' : e;
    } else if (c == '%' && format.compare(i, 2, "%%") == 0) {
      out += '%';
      ++i;
    } else if (c == '%' && format.compare(i, 2, "%{") == 0 && format.find('}', i) != std::string::npos) {
      const size_t end = format.find('}', i);
      const std::string name = format.substr(i + 2, end - i - 2);
      auto v = values.find(name);
      if (v != values.end())
        out += v->second;
      else
        std::cerr << "httptools: -w: unknown variable %{" << name << "}\n";
      i = end;
    } else {
      out += c;
    }
  }
  return out;
}

// libcurl's debug lines as curl -v shows them: "* " information, "> " sent and "< " received
// header lines; the byte counts of data blocks are left out.
void PrintDebugLines(const std::string& text) {
  std::string line, last;
  char prefix = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    const char c = i < text.size() ? text[i] : '\n';
    if (c != '\n') {
      line += c;
      continue;
    }
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    // A block's first line carries its prefix; header blocks hold several lines.
    if (line.size() >= 2 && (line[0] == '*' || line[0] == '<' || line[0] == '>') && line[1] == ' ')
      prefix = line[0];
    else if (!line.empty() && prefix)
      line = std::string(1, prefix) + " " + line;
    // Data blocks are recorded as "DataIn 12B" without a line break of their own.
    for (const char* tag : {"DataIn ", "DataOut ", "SSLIn ", "SSLOut "}) {
      const size_t at = line.find(tag);
      if (at != std::string::npos && at > 0)
        line.erase(at);
      else if (at == 0)
        line.clear();
    }
    if (!line.empty() && !(line.size() == 2 && line == last))
      std::cerr << line << "\n";
    last = std::move(line);
    line.clear();
  }
}

// The transfer options shared by a single request and a parallel get.
void ApplyTransferOptions(const HttpOptions& o, qz::http::HttpConnection::ConnectionParameters& params) {
  if (o.insecure)
    params.sslValidatePolicy = qz::http::SVP_NoVerify;
  if (o.connectTimeout > 0)
    params.connectTimeoutSec = std::max(1, int(std::ceil(o.connectTimeout)));
  if (o.maxTime > 0)
    params.totalTimeoutMs = std::max(1L, long(std::ceil(o.maxTime * 1000)));
  if (o.maxFilesize > 0)
    params.maxBodyBytes = o.maxFilesize;
  params.caFile = o.caFile;
  if (o.verbose)
    params.verbose = 1;
}

int RunHttp(const HttpOptions& o) {
  namespace hh = qz::http::HttpHelpers;
  const std::string name = "httptools " + o.method;
  qz::Url url;
  std::string error;
  if (!url.fromEncodedUtf8String(o.url, &error, false) || !url.isValid()) {
    std::cerr << name << ": invalid URL '" << o.url << "' " << error << "\n";
    return httptools::kExitUsage;
  }
  std::string body;
  const bool json = !o.json.empty();
  if (!httptools::ReadDataArgument(json ? o.json : o.data, body, error)) {
    std::cerr << name << ": " << error << "\n";
    return httptools::kExitFailure;
  }
  std::list<std::string> headers(o.headers.begin(), o.headers.end());
  if (json) {
    bool accept = false;
    for (std::string h : headers) {
      std::transform(h.begin(), h.end(), h.begin(), [](unsigned char c) { return char(std::tolower(c)); });
      accept = accept || h.starts_with("accept:");
    }
    if (!accept)
      headers.push_back("Accept: application/json");
  }

  std::ofstream file;
  if (!o.output.empty()) {
    file.open(o.output, std::ios::binary);
    if (!file) {
      std::cerr << name << ": cannot write " << o.output << "\n";
      return httptools::kExitFailure;
    }
  }
  std::ostream& out = o.output.empty() ? std::cout : file;
  std::map<std::string, std::string> responseHeaders;
  BodyDevice device(out, !o.silent && isatty(2) != 0, responseHeaders);

  qz::http::HttpConnection conn;
  ApplyTransferOptions(o, conn.editConnectionParameters());

  hh::HttpResult result;
  result.errorMessage = &error;
  result.outputDevice = &device;
  result.headers = &responseHeaders;
  // The library checks codes up to 255; the tool checks the others itself.
  const unsigned char code = o.expect > 0 && o.expect <= 255 ? static_cast<unsigned char>(o.expect) : 0;
  const int64_t start = qz::qzSystemUtils::GetTimeBaseMs();
  bool ok = false;
  if (o.method == "get")
    ok = hh::HttpGet(conn, url, &result, nullptr, &headers);
  else if (o.method == "head")
    ok = hh::HttpHead(conn, url, &result, nullptr, &headers);
  else if (o.method == "delete")
    ok = hh::HttpDelete(conn, url, &result, nullptr, &headers);
  else if (o.method == "put")
    ok = json ? hh::HttpPutJson(conn, url, body.data(), static_cast<unsigned long>(body.size()), code, &result, nullptr,
                                &headers)
              : hh::HttpPut(conn, url, body, code, &result, nullptr, &headers);
  else
    ok = json ? hh::HttpPostJson(conn, url, body.data(), static_cast<unsigned long>(body.size()), code, &result,
                                 nullptr, &headers)
              : hh::HttpPost(conn, url, body, code, &result, nullptr, &headers);
  const int64_t elapsedMs = qz::qzSystemUtils::GetTimeBaseMs() - start;
  if (o.verbose)
    PrintDebugLines(conn.getLastDebugInformations());

  // A response arrived when there is a status and libcurl reported no error of its own; the
  // library's own status check is redone below against what the tool accepts.
  const bool answered = result.httpCode > 0 && result.error.curlCode == 0;
  if (!ok && answered && result.error.kind == qz::http::ErrorKind::HttpStatus)
    ok = true;
  int rc = httptools::kExitOk;
  if (!ok && !answered) {
    if (o.errorsShown())
      std::cerr << name << ": " << error << "\n";
    rc = httptools::ExitCodeOfTransferError(result.error);
  } else {
    // get, head and delete want 200, put and post any status below 400, unless --expect says.
    const int status = result.httpCode;
    const bool accepted = o.expect > 0 ? status == o.expect : o.hasBody() ? status < 400 : status == 200;
    if (!accepted) {
      if (o.errorsShown())
        std::cerr << name << ": HTTP status " << status << " from " << url.toDisplayableUrl() << ", expected "
                  << (o.expect > 0  ? std::to_string(o.expect)
                      : o.hasBody() ? "below 400"
                                    : "200")
                  << "\n";
      rc = httptools::kExitHttpStatus;
    } else if (!ok) {
      // Answered with the wanted status, yet the library failed the call for another reason.
      if (o.errorsShown())
        std::cerr << name << ": " << error << "\n";
      rc = httptools::kExitFailure;
    }
  }
  if (o.method == "head" && answered) {
    out << "HTTP " << result.httpCode << "\n";
    for (const auto& [header, value] : responseHeaders)
      out << header << ": " << value << "\n";
  }
  out.flush();
  if (!out && rc == httptools::kExitOk) {
    std::cerr << name << ": cannot write the response\n";
    rc = httptools::kExitFailure;
  }
  if (!o.writeOut.empty()) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.6f", double(elapsedMs) / 1000.0);
    auto type = responseHeaders.find("content-type");
    const std::map<std::string, std::string> values{
        {"http_code", std::to_string(result.httpCode)},
        {"response_code", std::to_string(result.httpCode)},
        {"size_download", std::to_string(result.receivedBytes)},
        {"size_upload", std::to_string(o.hasBody() ? body.size() : 0)},
        {"content_type", type == responseHeaders.end() ? "" : type->second},
        {"time_total", seconds},
        {"url_effective", url.toDisplayableUrl()},
        {"exitcode", std::to_string(rc)},
    };
    std::cout << WriteOut(o.writeOut, values) << std::flush;
  }
  return rc;
}

void AddRequestCommand(CLI::App& app, const std::string& method, const std::string& description) {
  auto o = std::make_shared<HttpOptions>();
  o->method = method;
  CLI::App* cmd = app.add_subcommand(method, description);
  if (method == "get") {
    cmd->add_option("URL", o->urls, "The URL, percent-encoded as on the wire; several with --parallel or -Z")
        ->required();
    cmd->add_option("-o,--output", o->outputs,
                    "Write the response body to FILE instead of standard output (the i-th -o for the i-th URL)")
        ->allow_extra_args(false); // one FILE per -o; the URLs after it stay URLs
    cmd->add_option("--parallel", o->parallel, "Fetch the URLs with up to N transfers at once")
        ->check(CLI::Range(1, 1000));
    cmd->add_flag("-Z", o->parallelDefault, "Fetch the URLs in parallel (up to 50 at once, as curl -Z)");
  } else {
    cmd->add_option("URL", o->url, "The URL, percent-encoded as on the wire")->required();
    cmd->add_option("-o,--output", o->output, "Write the response body to FILE instead of standard output");
  }
  cmd->add_option("-H,--header", o->headers, "Extra header line \"Name: value\" (repeatable)")->allow_extra_args(false);
  if (o->hasBody()) {
    CLI::Option* data =
        cmd->add_option("-d,--data", o->data, "Request body: the text itself, @FILE, or @- for standard input");
    cmd->add_option("--json", o->json, "JSON request body (forms as -d); sends the JSON content type and accepts JSON")
        ->excludes(data);
  }
  cmd->add_option("--expect", o->expect,
                  std::string("Accept only this status (default: ") + (o->hasBody() ? "below 400" : "200") + ")")
      ->check(CLI::Range(100, 599));
  cmd->add_option("-w,--write-out", o->writeOut,
                  "After the transfer print FORMAT to standard output: %{http_code}, %{size_download}, "
                  "%{size_upload}, %{content_type}, %{time_total}, %{url_effective}, %{exitcode}, \\n");
  cmd->add_flag("-v,--verbose", o->verbose, "Show the connection's debug lines on standard error");
  cmd->add_flag("-s,--silent", o->silent, "No progress line and no error messages");
  cmd->add_flag("-S,--show-error", o->showError, "With -s, still show error messages");
  cmd->add_flag("-k,--insecure", o->insecure, "Do not check the server's certificate and host name");
  cmd->add_option("--connect-timeout", o->connectTimeout, "Give up connecting after SECONDS")
      ->check(CLI::PositiveNumber);
  cmd->add_option("--max-time", o->maxTime, "Give up the whole transfer after SECONDS")->check(CLI::PositiveNumber);
  cmd->add_option("--max-filesize", o->maxFilesize, "Fail (exit 63) when a response body is larger than BYTES")
      ->check(CLI::PositiveNumber);
  cmd->add_option("--cacert", o->caFile, "Verify the server against the CA certificates in FILE (PEM)")
      ->check(CLI::ExistingFile);
  cmd->callback([o] {
    if (o->method == "get" && (o->parallel > 0 || o->parallelDefault || o->urls.size() > 1)) {
      httptools::ParallelGetOptions options;
      options.headers.assign(o->headers.begin(), o->headers.end());
      ApplyTransferOptions(*o, options.parameters);
      httptools::exitCode = httptools::RunParallelGet(o->urls, o->outputs, o->parallel > 0 ? o->parallel : 50, options);
      return;
    }
    if (o->method == "get") {
      if (o->outputs.size() > 1) {
        std::cerr << "httptools get: one -o per URL\n";
        httptools::exitCode = httptools::kExitUsage;
        return;
      }
      o->url = o->urls.front();
      o->output = o->outputs.empty() ? std::string() : o->outputs.front();
    }
    httptools::exitCode = RunHttp(*o);
  });
}

} // namespace

namespace httptools {

void AddHttpCommands(CLI::App& app) {
  AddRequestCommand(app, "get", "GET a URL; the body goes to standard output (status 200 expected)");
  AddRequestCommand(app, "head", "HEAD a URL; prints the status and the header fields (status 200 expected)");
  AddRequestCommand(app, "put", "PUT a body to a URL (any status below 400 expected)");
  AddRequestCommand(app, "post", "POST a body to a URL (any status below 400 expected)");
  AddRequestCommand(app, "delete", "DELETE a URL (status 200 expected)");
}

} // namespace httptools
