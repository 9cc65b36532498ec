#include <HttpTools/elasticsearch/ElasticRequest_p.h>

#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/Transfer_p.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <strings.h>

namespace qz::elasticsearch {

namespace {

constexpr size_t kMaxErrorBody = 64 * 1024;

// A 2xx body goes to the cutter when there is one; any other body is kept (an error body up to
// kMaxErrorBody) for its text.
class ElasticSink : public http::ResponseSink {
public:
  ElasticSink(ElasticResponse& out, ResponseItemCutter* cutter) : m_out(out), m_cutter(cutter) {}
  void onStatus(long status, std::string_view) override {
    m_status = status;
    m_out.product = false; // a new answer (after 100 Continue or a redirect)
  }
  void onHeader(std::string_view line) override {
    static constexpr std::string_view kName = "x-elastic-product:";
    if (line.size() <= kName.size() || strncasecmp(line.data(), kName.data(), kName.size()) != 0)
      return;
    std::string_view value = line.substr(kName.size());
    value.remove_prefix(std::min(value.size(), value.find_first_not_of(" \t")));
    value = value.substr(0, value.find_last_not_of(" \t\r\n") + 1);
    m_out.product = value == "Elasticsearch";
  }
  bool onBody(const char* data, size_t size) override {
    if (m_cutter && m_status >= 200 && m_status < 300) {
      cutterFailed = !m_cutter->feed(data, size);
      return !cutterFailed;
    }
    if (m_out.body.size() < kMaxErrorBody || m_status < 300)
      m_out.body.append(data, size);
    return true;
  }
  bool cutterFailed = false;

private:
  ElasticResponse& m_out;
  ResponseItemCutter* m_cutter;
  long m_status = 0;
};

http::Method methodOf(const char* name, bool& known) {
  static const std::pair<const char*, http::Method> methods[] = {
      {"GET", http::Method::Get},        {"HEAD", http::Method::Head},     {"PUT", http::Method::Put},
      {"POST", http::Method::Post},      {"DELETE", http::Method::Delete}, {"PATCH", http::Method::Patch},
      {"OPTIONS", http::Method::Options}};
  for (const auto& [text, m] : methods)
    if (std::strcmp(name, text) == 0) {
      known = true;
      return m;
    }
  known = false;
  return http::Method::Post;
}

// Puts the server's TLS files on the connection for one request, and its own back afterwards.
class TlsFiles {
public:
  TlsFiles(http::HttpConnection& connection, const ElasticConnectionParameters& server) : m_connection(connection) {
    m_set = !server.caFile.empty() || !server.clientCertFile.empty();
    if (!m_set)
      return;
    m_saved = connection.getConnectionParameters();
    auto& p = connection.editConnectionParameters();
    if (!server.caFile.empty())
      p.caFile = server.caFile;
    if (!server.clientCertFile.empty()) {
      p.clientCertFile = server.clientCertFile;
      p.clientKeyFile = server.clientKeyFile;
    }
  }
  ~TlsFiles() {
    if (m_set)
      m_connection.setConnectionParameters(m_saved);
  }
  TlsFiles(const TlsFiles&) = delete;
  TlsFiles& operator=(const TlsFiles&) = delete;

private:
  http::HttpConnection& m_connection;
  http::HttpConnection::ConnectionParameters m_saved;
  bool m_set = false;
};

// True the first time a server (scheme, host, port) answers without the product header: the
// warning is given once per server, so that a second server is not hidden behind the first.
bool FirstWithoutProduct(const qz::Url& url) {
  static std::mutex mutex;
  static std::set<std::string> warned;
  std::lock_guard<std::mutex> lock(mutex);
  return warned.insert(url.scheme + "://" + url.host + ":" + std::to_string(url.port)).second;
}

// Wipes the header lines (they may hold secrets) when the request is over.
struct WipedLines {
  std::vector<std::string>& lines;
  ~WipedLines() {
    for (auto& l : lines)
      OPENSSL_cleanse(l.data(), l.size());
  }
};

} // namespace

bool ElasticCall(http::HttpConnection& connection, const char* method, const ElasticConnectionParameters& url,
                 const std::string* body, const char* contentType, ElasticResponse& out, ResponseItemCutter* cutter,
                 const bool* cancel) {
  if (!cancel)
    return ElasticCall(connection, method, url, body, contentType, out, cutter);
  const http::CancelToken token = http::CancelToken::Watching(cancel);
  return ElasticCall(connection, method, url, body, contentType, out, cutter, &token);
}

bool ElasticCall(http::HttpConnection& connection, const char* method, const ElasticConnectionParameters& url,
                 const std::string* body, const char* contentType, ElasticResponse& out, ResponseItemCutter* cutter,
                 const http::CancelToken* cancel) {
  out = ElasticResponse();
  if (cutter)
    cutter->reset();
  http::RequestSpec request;
  bool known = false;
  request.method = methodOf(method, known);
  if (!known)
    request.customMethod = method;
  if (body)
    request.setBodyView(*body);
  // A POST or PUT without body still says so (Content-Length: 0): servers wait for one otherwise.
  if (request.hasBody() || request.method == http::Method::Post || request.method == http::Method::Put)
    request.contentType = contentType ? contentType : "application/json";
  request.headers = url.headerLines();
  const WipedLines wiped{request.headers};
  const TlsFiles tls(connection, url);
  ElasticSink sink(out, cutter);
  http::TransferOutcome outcome;
  // Credentials go in the header above only: libcurl would add a second one from the user-info.
  std::optional<qz::Url> bare;
  if (!url.user.empty()) {
    bare.emplace(url);
    bare->clearCredentials();
  }
  const bool ok = http::transfer_impl::Perform(connection, bare ? *bare : static_cast<const qz::Url&>(url), request,
                                               sink, outcome, cancel, http::transfer_impl::HeaderLines);
  out.status = outcome.status;
  if (!ok) {
    if (outcome.error.kind == http::ErrorKind::Cancelled)
      out.transportError = "cancelled";
    else if (sink.cutterFailed && !cutter->stoppedByItem())
      out.transportError = "malformed answer from " + url.toDisplayableUrl();
    else if (sink.cutterFailed)
      out.transportError = "stopped";
    else
      out.transportError = outcome.error.message();
    return false;
  }
  if (cutter && out.status >= 200 && out.status < 300 && !cutter->complete() && request.method != http::Method::Head) {
    out.transportError = "incomplete answer from " + url.toDisplayableUrl();
    return false;
  }
  if (out.status > 0 && !out.product && FirstWithoutProduct(url))
    qzLogObject(qzLog::Warning, "elasticsearch")
        << "The answer from " << url.toDisplayableUrl()
        << " lacks the header X-Elastic-Product: Elasticsearch; the server may not be Elasticsearch (OpenSearch "
           "never sends it)";
  return true;
}

std::string ErrorText(const ElasticResponse& response) {
  if (!response.transportError.empty())
    return response.transportError;
  qzVariantMapImpl doc;
  if (json::Json2Variant::Convert(response.body, doc) && doc.count("error"))
    return json::ErrorReasonOf(doc) + " (HTTP " + std::to_string(response.status) + ")";
  return "HTTP status " + std::to_string(response.status) + ": " + response.body.substr(0, 200);
}

} // namespace qz::elasticsearch
