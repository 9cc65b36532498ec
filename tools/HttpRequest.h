// get, head, put, post, delete: the options of one command line and the transfers they make.
#pragma once

#include "Commands.h"

#include <HttpTools/http/Transfer.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace httptools {

struct HttpOptions {
  std::string method; // get, head, put, post, delete
  std::vector<std::string> urls;
  std::vector<std::string> outputs; // -o, the i-th for the i-th URL
  bool remoteName = false;          // -O
  ConnectionOptions conn;
  // -d, --data-binary, --data-urlencode and --json in command-line order: (option, argument).
  std::vector<std::pair<std::string, std::string>> data;
  std::string customMethod; // -X
  std::string userAgent = "httptools/3.0.0";
  bool location = false;
  long maxRedirs = 50;
  bool include = false, headOnly = false;
  bool fail = false, failWithBody = false;
  bool netrc = false;
  std::string netrcFile;
  bool compressed = false;
  bool silent = false, showError = false, progressBar = false;
  unsigned retry = 0;
  double retryDelay = 0, retryMaxTime = 0;
  bool retryAllErrors = false;
  long speedLimit = 0, speedTime = 0;
  std::string proxy, noProxy;
  bool proxyGiven = false, noProxyGiven = false;
  std::string writeOut;
  bool parallel = false;
  unsigned parallelMax = 50;
  int expect = 0;
  long long maxFilesize = 0;

  std::string name() const { return "httptools " + method; }
  bool errorsShown() const { return !silent || showError; }
};

// Where a transfer's bytes go: a file opened at the first byte (so a failed -f request leaves
// none), standard output, or a buffer that a parallel run prints later in URL order.
class Output {
public:
  static Output File(std::string path);
  static Output Stdout();
  static Output Buffer(std::string* buffer);

  bool write(const char* data, size_t size);
  bool write(const std::string& text) { return write(text.data(), text.size()); }
  bool finish();   // creates an empty file for an empty body; false when it cannot
  void truncate(); // a repeated attempt starts the file over
  bool broken() const { return m_failed; }
  bool closedPipe() const { return m_errno == EPIPE; }
  const std::string& path() const { return m_path; }
  int errorNumber() const { return m_errno; }

  Output(Output&& other) noexcept;
  Output& operator=(Output&&) = delete;
  ~Output();

private:
  Output() = default;
  bool open();
  std::string m_path;
  int m_fd = -1;
  bool m_owned = false;
  std::string* m_buffer = nullptr;
  bool m_failed = false;
  int m_errno = 0;
};

// The request body of -d, --data-binary, --data-urlencode (joined by '&') or --json; false with
// a message when a file cannot be read.
bool AssembleBody(const HttpOptions& o, std::string& body, std::string& error);
// The header lines of -H, -A, -u or the netrc entry for `url`, and the content type the body
// implies when -H does not give one.
bool AssembleHeaders(const HttpOptions& o, const qz::Url& url, qz::http::RequestSpec& request, std::string& error);
// -x, --noproxy and the proxy variables of the environment for `url`.
void ApplyProxy(const HttpOptions& o, const qz::Url& url, qz::http::HttpConnection::ConnectionParameters& params);
// -w: %{variable}, %header{name}, %% and \n \r \t; unknown variables are reported on `err`.
std::string FormatWriteOut(const std::string& format, const std::map<std::string, std::string>& values,
                           const qz::http::TransferOutcome& outcome, std::string& err);
// The user and password of the netrc entry for `host`; false when there is none.
bool NetrcCredentials(const std::string& file, const std::string& host, std::string& login, std::string& password);

// One URL of the command line, with its retries; body and -w text go to `out` (or to the -o file),
// messages to `err`. Returns the exit code.
int RunTransfer(const HttpOptions& o, size_t index, Output& out, std::string& err);
// Every URL, up to `parallel` at once (1: one after the other); standard output keeps the order
// of the URLs. The exit code is the first failed URL's.
int RunTransfers(const HttpOptions& o, unsigned parallel);

} // namespace httptools
