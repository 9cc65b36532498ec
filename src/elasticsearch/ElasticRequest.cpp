#include <HttpTools/elasticsearch/ElasticRequest_p.h>

#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstring>
#include <strings.h>

namespace qz::elasticsearch {

namespace {

constexpr size_t kMaxErrorBody = 64 * 1024;

struct CallContext {
  CURL* handle = nullptr;
  const char* method = "GET";
  const std::string* body = nullptr;
  size_t bodyOffset = 0;
  const char* contentType = nullptr;
  ElasticResponse* out = nullptr;
  ResponseItemCutter* cutter = nullptr;
  const bool* cancel = nullptr;
  long status = -1;
  bool cutterFailed = false;
};

size_t writeCallback(char* data, size_t size, size_t nmemb, void* userData) {
  auto* c = static_cast<CallContext*>(userData);
  const size_t length = size * nmemb;
  try {
    if (*c->cancel)
      return length + 1;
    if (c->status < 0)
      curl_easy_getinfo(c->handle, CURLINFO_RESPONSE_CODE, &c->status);
    if (c->cutter && c->status >= 200 && c->status < 300) {
      if (!c->cutter->feed(data, length)) {
        c->cutterFailed = true;
        return length + 1;
      }
    } else if (c->out->body.size() < kMaxErrorBody || c->status < 300) {
      c->out->body.append(data, length);
    }
    return length;
  } catch (...) {
    return length + 1; // no exception crosses libcurl
  }
}

size_t readCallback(char* buffer, size_t size, size_t nitems, void* userData) {
  auto* c = static_cast<CallContext*>(userData);
  if (!c->body || *c->cancel)
    return CURL_READFUNC_ABORT;
  const size_t n = std::min(size * nitems, c->body->size() - c->bodyOffset);
  if (n)
    std::memcpy(buffer, c->body->data() + c->bodyOffset, n);
  c->bodyOffset += n;
  return n;
}

int seekCallback(void* userData, curl_off_t offset, int origin) {
  auto* c = static_cast<CallContext*>(userData);
  if (origin != SEEK_SET || !c->body || offset < 0 || size_t(offset) > c->body->size())
    return CURL_SEEKFUNC_CANTSEEK;
  c->bodyOffset = size_t(offset);
  return CURL_SEEKFUNC_OK;
}

size_t headerCallback(char* data, size_t size, size_t nitems, void* userData) {
  auto* c = static_cast<CallContext*>(userData);
  const size_t length = size * nitems;
  static const char kName[] = "x-elastic-product:";
  if (length >= 5 && std::memcmp(data, "HTTP/", 5) == 0) {
    c->out->product = false; // a new status line (after 100 Continue or a redirect)
    c->status = -1;
  } else if (length > sizeof kName - 1 && strncasecmp(data, kName, sizeof kName - 1) == 0) {
    std::string value(data + sizeof kName - 1, length - (sizeof kName - 1));
    value.erase(0, value.find_first_not_of(" \t"));
    value.erase(value.find_last_not_of(" \t\r\n") + 1);
    c->out->product = value == "Elasticsearch";
  }
  return length;
}

int transferInfo(void* userData, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return *static_cast<CallContext*>(userData)->cancel ? 1 : 0;
}

int installOptions(void* curlHandle, void* userData, std::list<std::string>& headers) {
  CURL* h = static_cast<CURL*>(curlHandle);
  auto* c = static_cast<CallContext*>(userData);
  c->handle = h;
  int rc = 0;
  rc |= curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &writeCallback);
  rc |= curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, &transferInfo);
  rc |= curl_easy_setopt(h, CURLOPT_XFERINFODATA, c);
  rc |= curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L); // the cancel flag is also read while waiting
  rc |= curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &headerCallback);
  rc |= curl_easy_setopt(h, CURLOPT_HEADERDATA, c);
  rc |= curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, &seekCallback);
  rc |= curl_easy_setopt(h, CURLOPT_SEEKDATA, c);
  rc |= curl_easy_setopt(h, CURLOPT_UPLOAD, 0L);
  const bool head = std::strcmp(c->method, "HEAD") == 0;
  rc |= curl_easy_setopt(h, CURLOPT_NOBODY, head ? 1L : 0L);
  if (c->body) {
    rc |= curl_easy_setopt(h, CURLOPT_POST, 1L);
    rc |= curl_easy_setopt(h, CURLOPT_READFUNCTION, &readCallback);
    rc |= curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(c->body->size()));
    headers.push_back(std::string("Content-Type: ") + (c->contentType ? c->contentType : "application/json"));
    // A large body goes at once rather than after a 1 s wait for "100 Continue".
    headers.push_back("Expect:");
  } else {
    rc |= curl_easy_setopt(h, CURLOPT_POST, 0L);
    rc |= curl_easy_setopt(h, CURLOPT_READFUNCTION, static_cast<curl_read_callback>(nullptr));
    rc |= curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, 0L);
    if (!head)
      rc |= curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
  }
  const bool plain = head || std::strcmp(c->method, c->body ? "POST" : "GET") == 0;
  rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, plain ? static_cast<const char*>(nullptr) : c->method);
  return rc;
}

} // namespace

bool ElasticCall(http::HttpConnection& connection, const char* method, const qz::Url& url, const std::string* body,
                 const char* contentType, ElasticResponse& out, ResponseItemCutter* cutter, const bool* cancel) {
  static const bool notCancelled = false;
  static std::atomic<bool> productWarned{false};
  out = ElasticResponse();
  CallContext c;
  static const std::string empty;
  c.method = method;
  // A POST or PUT without body still says so (Content-Length: 0): servers wait for one otherwise.
  c.body =
      body || std::strcmp(method, "POST") == 0 || std::strcmp(method, "PUT") == 0 ? (body ? body : &empty) : nullptr;
  c.contentType = contentType;
  c.out = &out;
  c.cutter = cutter;
  c.cancel = cancel ? cancel : &notCancelled;
  if (cutter)
    cutter->reset();
  const bool ok = connection.getHttpData(url, std::string(), 0, &installOptions, &c);
  out.status = connection.getLastHttpReturnCode();
  if (!ok) {
    if (*c.cancel)
      out.transportError = "cancelled";
    else if (c.cutterFailed && cutter && !cutter->stoppedByItem())
      out.transportError = "malformed answer from " + url.toDisplayableUrl();
    else if (c.cutterFailed)
      out.transportError = "stopped";
    else
      out.transportError = connection.getLastErrorMsg();
    return false;
  }
  if (cutter && out.status >= 200 && out.status < 300 && !cutter->complete() && std::strcmp(method, "HEAD") != 0) {
    out.transportError = "incomplete answer from " + url.toDisplayableUrl();
    return false;
  }
  if (out.status > 0 && !out.product && !productWarned.exchange(true))
    qzLogObject(qzLog::Warning, "elasticsearch")
        << "The answer from " << url.toDisplayableUrl()
        << " lacks the header X-Elastic-Product: Elasticsearch; the server may not be Elasticsearch";
  return true;
}

std::string ErrorText(const ElasticResponse& response) {
  if (!response.transportError.empty())
    return response.transportError;
  qzVariantMapImpl doc;
  if (json::Json2Variant::Convert(response.body, doc)) {
    auto e = doc.find("error");
    if (e != doc.end()) {
      if (e->second.isMap()) {
        const auto& m = e->second.toMap();
        auto type = m.find("type");
        auto reason = m.find("reason");
        std::string text = type != m.end() ? type->second.toString() : std::string("error");
        if (reason != m.end())
          text += ": " + reason->second.toString();
        return text + " (HTTP " + std::to_string(response.status) + ")";
      }
      return e->second.toString() + " (HTTP " + std::to_string(response.status) + ")";
    }
  }
  return "HTTP status " + std::to_string(response.status) + ": " + response.body.substr(0, 200);
}

void AppendJsonString(std::string& out, const std::string& s) {
  static const char hex[] = "0123456789abcdef";
  out.push_back('"');
  size_t run = 0; // start of the bytes that go as they are
  for (size_t i = 0; i < s.size(); ++i) {
    const auto u = static_cast<unsigned char>(s[i]);
    if (u >= 0x20 && u != '"' && u != '\\')
      continue;
    out.append(s, run, i - run);
    run = i + 1;
    switch (u) {
    case '"':
      out += "\\\"";
      break;
    case '\\':
      out += "\\\\";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      out += "\\u00";
      out.push_back(hex[u >> 4]);
      out.push_back(hex[u & 15]);
    }
  }
  out.append(s, run, std::string::npos);
  out.push_back('"');
}

void AppendJson(std::string& out, const qzVariant& v) {
  char number[32];
  switch (v.type()) {
  case qzVariant::Null:
    out += "null";
    break;
  case qzVariant::Bool:
    out += v.toBool() ? "true" : "false";
    break;
  case qzVariant::Int64: {
    const auto r = std::to_chars(number, number + sizeof number, v.toInt64());
    out.append(number, r.ptr);
    break;
  }
  case qzVariant::Double: {
    const double d = v.toDouble();
    if (!std::isfinite(d)) {
      out += "null"; // JSON has no NaN nor infinity
      break;
    }
    const auto r = std::to_chars(number, number + sizeof number, d);
    out.append(number, r.ptr);
    if (std::find_if(number, r.ptr, [](char c) { return c == '.' || c == 'e'; }) == r.ptr)
      out += ".0"; // stays a floating-point number for the server's type guess
    break;
  }
  case qzVariant::String:
    AppendJsonString(out, *v.stringPtr());
    break;
  case qzVariant::Map:
    AppendJson(out, v.toMap());
    break;
  case qzVariant::List: {
    out.push_back('[');
    bool first = true;
    for (const auto& e : v.toList()) {
      if (!first)
        out.push_back(',');
      first = false;
      AppendJson(out, e);
    }
    out.push_back(']');
    break;
  }
  }
}

void AppendJson(std::string& out, const qzVariantMapImpl& map) {
  out.push_back('{');
  bool first = true;
  for (const auto& [key, value] : map) {
    if (!first)
      out.push_back(',');
    first = false;
    AppendJsonString(out, key);
    out.push_back(':');
    AppendJson(out, value);
  }
  out.push_back('}');
}

} // namespace qz::elasticsearch
