#include <HttpTools/http/HttpMultiConnection_p.h>

#include <HttpTools/platform/qzLog.h>

#include <cctype>
#include <cstring>
#include <strings.h>

// The engine's easy handles: made once with the fixed options, given each request's options, and
// their data callbacks.

namespace qz::http {

namespace {

// The C locale's white space, without a locale lookup per byte: this runs for every header line.
inline bool blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

void assignTrimmed(std::string& out, const char* begin, const char* end) {
  while (begin < end && blank(*begin))
    ++begin;
  while (end > begin && blank(end[-1]))
    --end;
  out.assign(begin, end);
}

enum MultiMethod { MethodGet = 1, MethodPut = 2, MethodPost = 3, MethodDelete = 4, MethodHead = 5 };

const char* const kOctetContentType = "Content-Type: application/octet-stream";

bool hasContentType(const std::list<std::string>& lines) {
  for (const std::string& line : lines)
    if (line.size() >= 13 && strncasecmp(line.c_str(), "Content-Type:", 13) == 0)
      return true;
  return false;
}

} // namespace

HttpMultiConnection::Private::Handle* HttpMultiConnection::Private::takeHandle() {
  if (!idle.empty()) {
    Handle* h = idle.back();
    idle.pop_back();
    return h;
  }
  auto h = std::make_unique<Handle>();
  h->engine = this;
  h->easy.reset(curl_easy_init());
  if (!h->easy)
    return nullptr;
  CURL* e = h->easy.get();
  // The options of HttpConnection's handle, except the progress machinery: a cancel here takes
  // the handle out of the multi handle at once instead of waiting for a progress call.
  int rc = ApplyConnectionOptions(e);
  rc |= curl_easy_setopt(e, CURLOPT_NOPROGRESS, 1L);
  rc |= curl_easy_setopt(e, CURLOPT_DEBUGFUNCTION, onDebug);
  rc |= curl_easy_setopt(e, CURLOPT_DEBUGDATA, h.get());
  rc |= curl_easy_setopt(e, CURLOPT_ERRORBUFFER, h->errorBuffer);
  rc |= curl_easy_setopt(e, CURLOPT_COOKIEFILE, ""); // cookie engine on, no file read
  rc |= curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
  rc |= curl_easy_setopt(e, CURLOPT_SHARE, share.get());
  rc |= curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onWrite);
  rc |= curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
  rc |= curl_easy_setopt(e, CURLOPT_WRITEDATA, h.get());
  rc |= curl_easy_setopt(e, CURLOPT_HEADERDATA, h.get());
  rc |= curl_easy_setopt(e, CURLOPT_PRIVATE, h.get());
  if (rc != 0)
    return nullptr;
  owned.push_back(std::move(h));
  return owned.back().get();
}

// Puts the request on the handle: the connection parameters as HttpConnection resolves them
// (only what changed since the handle's last request), then the request's own options.
bool HttpMultiConnection::Private::prepare(Handle& h, Job& job) {
  CURL* e = h.easy.get();
  const Request& r = job.request;
  int rc = 0;
  ResolveConnectionParameters(parameters, r.url, proxyFinder, h.resolving);
  if (job.anyFamily)
    h.resolving.ipResolve = CURL_IPRESOLVE_WHATEVER;
  if (!(h.appliedValid && h.resolving == h.applied)) {
    h.appliedValid = false;
    rc |= ApplyResolvedParameters(e, h.resolving);
    if (rc != 0)
      return false;
    std::swap(h.applied, h.resolving);
    h.appliedValid = true;
  }
  if (h.multiplexApplied != int(multiplexing)) {
    rc |=
        curl_easy_setopt(e, CURLOPT_HTTP_VERSION, long(multiplexing ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
    rc |= curl_easy_setopt(e, CURLOPT_PIPEWAIT, multiplexing ? 1L : 0L);
    h.multiplexApplied = rc == 0 ? int(multiplexing) : -1;
  }

  // Back to a plain GET (unless the handle's last request was one), then the method.
  const bool plainGet = r.method == MethodGet && r.body.empty();
  if (!(plainGet && h.plainGet)) {
    rc |= curl_easy_setopt(e, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr));
    rc |= curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(-1));
    rc |= curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
    rc |= curl_easy_setopt(e, CURLOPT_NOBODY, 0L);
    rc |= curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
  }
  h.plainGet = plainGet;
  const char* custom = nullptr;
  bool sendBody = !r.body.empty();
  switch (r.method) {
  case MethodGet:
    custom = sendBody ? "GET" : nullptr;
    break;
  case MethodPut:
    custom = "PUT";
    sendBody = true;
    break;
  case MethodPost:
    sendBody = true;
    break;
  case MethodDelete:
    custom = "DELETE";
    break;
  case MethodHead:
    rc |= curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    sendBody = false;
    break;
  default:
    job.response.error.context = "Unknown method " + std::to_string(r.method);
    return false;
  }
  if (sendBody) {
    rc |= curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(r.body.size()));
    rc |= curl_easy_setopt(e, CURLOPT_POSTFIELDS, r.body.data());
  }
  if (custom)
    rc |= curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, custom);

  // The header list is rebuilt only when its lines change.
  const bool addType = sendBody && !hasContentType(r.headers);
  const size_t lineCount = r.headers.size() + (addType ? 1 : 0);
  bool same =
      h.headerLines.size() == lineCount && std::equal(r.headers.begin(), r.headers.end(), h.headerLines.begin());
  same = same && (!addType || h.headerLines.back() == kOctetContentType);
  if (!same) {
    h.headerLines.assign(r.headers.begin(), r.headers.end());
    if (addType)
      h.headerLines.emplace_back(kOctetContentType);
    curl_slist* list = nullptr;
    for (const std::string& line : h.headerLines)
      if (curl_slist* next = curl_slist_append(list, line.c_str()))
        list = next;
    const CURLcode set = curl_easy_setopt(e, CURLOPT_HTTPHEADER, list);
    h.headerList.reset(list); // after the handle lets go of the old list
    if (set != CURLE_OK)
      h.headerLines.clear();
    rc |= set;
  }
  // The request's own time-out replaces the parameters' one; set on every request, so the
  // handle never keeps a previous request's value.
  const long timeoutMs = r.timeoutMs > 0 ? r.timeoutMs : std::max(0L, parameters.totalTimeoutMs);
  rc |= curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, timeoutMs);
  h.maxBodyBytes = parameters.maxBodyBytes;
  if (job.encodedUrl != h.appliedUrl) {
    h.appliedUrl.clear();
    rc |= curl_easy_setopt(e, CURLOPT_URL, job.encodedUrl.c_str());
    h.appliedUrl = job.encodedUrl;
  }
  if (rc != 0) {
    h.plainGet = false;
    h.appliedUrl.clear();
  }
  if (rc != 0 && job.response.error.context.empty()) {
    job.response.error.context = "Error while setting connection parameters";
    job.response.error.curlText = h.errorBuffer;
  }
  return rc == 0;
}

size_t HttpMultiConnection::Private::onWrite(char* data, size_t size, size_t count, void* user) {
  auto* h = static_cast<Handle*>(user);
  const size_t n = size * count;
  std::string& body = h->job->response.body;
  if (h->maxBodyBytes > 0 && body.size() + n > h->maxBodyBytes) {
    h->callbackError = BodyLimitMessage(static_cast<long long>(h->maxBodyBytes));
    return 0;
  }
  try {
    body.append(data, n);
  } catch (const std::exception& e) {
    h->callbackError = std::string("cannot keep the body: ") + e.what();
    return 0;
  }
  return n;
}

// Headers of the last response only: a redirect or an interim 100 starts the map again.
size_t HttpMultiConnection::Private::onHeader(char* data, size_t size, size_t count, void* user) {
  auto* h = static_cast<Handle*>(user);
  const size_t n = size * count;
  try {
    Job& job = *h->job;
    if (n >= 5 && std::memcmp(data, "HTTP/", 5) == 0) {
      h->engine->keepHeaderNodes(job.response.headers);
      return n;
    }
    // Parsed straight into a node kept from an earlier response when there is one.
    std::vector<HeaderNode>& spares = h->engine->spareHeaders;
    HeaderNode node = spares.empty() ? HeaderNode() : std::move(spares.back());
    if (!spares.empty())
      spares.pop_back();
    if (node.empty()) {
      std::string name, value;
      ParseHttpHeader(data, static_cast<unsigned long>(n), name, value);
      if (!name.empty())
        job.response.headers.emplace(std::move(name), std::move(value));
      return n;
    }
    ParseHttpHeader(data, static_cast<unsigned long>(n), node.key(), node.mapped());
    if (node.key().empty()) {
      spares.push_back(std::move(node));
      return n;
    }
    auto inserted = job.response.headers.insert(std::move(node));
    if (!inserted.inserted) // a repeated name: the first one stays
      spares.push_back(std::move(inserted.node));
  } catch (const std::exception& e) {
    h->callbackError = std::string("cannot keep the headers: ") + e.what();
    return 0;
  }
  return n;
}

int HttpMultiConnection::Private::onDebug(CURL*, curl_infotype type, char* data, size_t size, void* handle) {
  const std::string_view text(data, size);
  const auto& live = static_cast<Handle*>(handle)->engine->parameters.debugLines;
  if (live) {
    ReportDebugLines(live, type, text);
    return 0;
  }
  if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT)
    return 0;
  try {
    const char* mark = type == CURLINFO_TEXT ? "* " : type == CURLINFO_HEADER_IN ? "< " : "> ";
    qzLogObject(qzLog::Debug, "curl") << mark
                                      << (type == CURLINFO_HEADER_OUT ? RedactedHeaders(text) : std::string(text));
  } catch (...) {
  }
  return 0;
}

void HttpMultiConnection::ParseHttpHeader(const char* line, unsigned long length, std::string& name,
                                          std::string& value) {
  name.clear();
  value.clear();
  if (!line)
    return;
  const char* colon = static_cast<const char*>(std::memchr(line, ':', length));
  if (!colon)
    return;
  assignTrimmed(name, line, colon);
  for (char& c : name) // ASCII only, as header names are
    if (c >= 'A' && c <= 'Z')
      c = char(c - 'A' + 'a');
  assignTrimmed(value, colon + 1, line + length);
}

} // namespace qz::http
