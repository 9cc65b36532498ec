#include <HttpTools/http/HttpMultiConnection_p.h>

#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzOpenSSL.h>
#include <HttpTools/url/Url_p.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <strings.h>

// The engine's easy handles: made once with the fixed options, given each request's options, and
// their data callbacks.

namespace qz::http {

namespace {

// The C locale's white space, without a locale lookup per byte: this runs for every header line.
inline bool blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

inline void trim(const char*& begin, const char*& end) {
  while (begin < end && blank(*begin))
    ++begin;
  while (end > begin && blank(end[-1]))
    --end;
}

// "Name: value\r\n" split at the first ':', both parts trimmed; false without a ':'.
bool splitHeader(const char* line, size_t length, const char* (&name)[2], const char* (&value)[2]) {
  const char* colon = line ? static_cast<const char*>(std::memchr(line, ':', length)) : nullptr;
  if (!colon)
    return false;
  name[0] = line;
  name[1] = colon;
  value[0] = colon + 1;
  value[1] = line + length;
  trim(name[0], name[1]);
  trim(value[0], value[1]);
  return true;
}

void assignLowered(std::string& out, const char* begin, const char* end) {
  out.assign(begin, end);
  for (char& c : out) // ASCII only, as header names are
    if (c >= 'A' && c <= 'Z')
      c = char(c - 'A' + 'a');
}

// Mostly the same length as the value it writes over: then a copy, no reallocation.
void assignValue(std::string& out, const char* begin, const char* end) {
  const size_t length = size_t(end - begin);
  if (length == out.size())
    std::copy(begin, end, out.begin());
  else
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
  StartHeaders(h);
  const ProcessDefaults defaults = ProcessDefaults::Current();
  if (!(h.urlValid && h.urlGeneration == parametersGeneration && h.urlAnyFamily == job.anyFamily &&
        h.urlDefaults == defaults && qz::url_impl::IsSameUrlValue(h.url, r.url))) {
    h.urlValid = false;
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
    std::string encoded = r.url.toEncodedUrl();
    const CURLcode set = curl_easy_setopt(e, CURLOPT_URL, encoded.c_str()); // libcurl keeps a copy
    qzOpenSSL::WipeString(encoded);
    rc |= set;
    if (set == CURLE_OK) {
      h.url = r.url;
      h.urlGeneration = parametersGeneration;
      h.urlAnyFamily = job.anyFamily;
      h.urlDefaults = defaults;
      h.urlValid = true;
    }
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
    loose.error.context = "Unknown method " + std::to_string(r.method);
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
  // The request's own time-out replaces the parameters' one, so the handle never keeps a
  // previous request's value.
  const long timeoutMs = r.timeoutMs > 0 ? r.timeoutMs : std::max(0L, parameters.totalTimeoutMs);
  if (timeoutMs != h.timeoutApplied) {
    const CURLcode set = curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, timeoutMs);
    h.timeoutApplied = set == CURLE_OK ? timeoutMs : -1;
    rc |= set;
  }
  h.maxBodyBytes = parameters.maxBodyBytes;
  if (rc != 0)
    h.plainGet = false;
  if (rc != 0 && loose.error.context.empty()) {
    loose.error.context = "Error while setting connection parameters";
    loose.error.curlText = h.errorBuffer;
  }
  return rc == 0;
}

size_t HttpMultiConnection::Private::onWrite(char* data, size_t size, size_t count, void* user) {
  auto* h = static_cast<Handle*>(user);
  const size_t n = size * count;
  std::string& body = h->response.body;
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
  auto& order = h->order;
  if (h->inOrder && h->received < order.size()) {
    // The next line of the last response's order: "<name>:" as sent then. Entries in `order`
    // are distinct, so there is no repeated name to check.
    const std::string& expected = order[h->received].name;
    const size_t length = expected.size();
    if (n > length && data[length] == ':' && std::memcmp(data, expected.data(), length) == 0) {
      const char *value = data + length + 1, *end = data + n;
      trim(value, end);
      assignValue(order[h->received++].entry->second, value, end);
      return n;
    }
  }
  if (n >= 5 && std::memcmp(data, "HTTP/", 5) == 0) {
    StartHeaders(*h);
    return n;
  }
  const char *name[2], *value[2];
  if (!splitHeader(data, n, name, value) || name[0] == name[1])
    return n;
  try {
    h->inOrder = false;
    order.resize(h->received);
    assignLowered(h->headerName, name[0], name[1]);
    auto it = h->response.headers.find(h->headerName);
    if (it == h->response.headers.end()) {
      it = h->response.headers.emplace(h->headerName, std::string(value[0], value[1])).first;
    } else {
      for (const auto& r : order)
        if (r.entry == it)
          return n; // a repeated name: the first one stays
      assignValue(it->second, value[0], value[1]);
    }
    order.push_back({it, std::string(name[0], name[1])});
    ++h->received;
  } catch (const std::exception& e) {
    h->callbackError = std::string("cannot keep the headers: ") + e.what();
    return 0;
  }
  return n;
}

void HttpMultiConnection::Private::SettleHeaders(Handle& h) {
  h.order.resize(h.received); // the last response's entries this one did not set go
  if (h.order.size() != h.response.headers.size()) {
    for (auto it = h.response.headers.begin(); it != h.response.headers.end();) {
      if (std::any_of(h.order.begin(), h.order.end(), [&](const Handle::Received& r) { return r.entry == it; })) {
        ++it;
        continue;
      }
      std::fill(it->second.begin(), it->second.end(), '\0');
      it = h.response.headers.erase(it);
    }
  }
  h.nodes.clear();
  for (const Handle::Received& r : h.order)
    h.nodes.push_back(&*r.entry);
}

void HttpMultiConnection::Private::WipeAndKeepOrder(Handle& h) {
  // The callback may have moved, cleared or edited the map: `order` is only trusted when the map
  // holds the very nodes it had.
  bool same = h.response.headers.size() == h.nodes.size(); // and `nodes` are distinct
  for (auto& entry : h.response.headers) {
    std::fill(entry.second.begin(), entry.second.end(), '\0'); // a cookie stays nowhere
    same = same && std::find(h.nodes.begin(), h.nodes.end(), &entry) != h.nodes.end();
  }
  if (!same)
    h.order.clear();
}

void HttpMultiConnection::Private::WipeValues(HeaderMap& headers) {
  // Each value's tail beyond its size was wiped after the callback of the value it held then.
  for (auto& entry : headers)
    std::fill(entry.second.begin(), entry.second.end(), '\0');
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
  const char *n[2], *v[2];
  if (!splitHeader(line, length, n, v))
    return;
  assignLowered(name, n[0], n[1]);
  value.assign(v[0], v[1]);
}

} // namespace qz::http
