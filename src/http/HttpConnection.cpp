#include <HttpTools/http/HttpConnection.h>

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzStringUtils.h>
#include <HttpTools/platform/qzSystemUtils.h>
#include <HttpTools/url/Url_p.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>
#include <strings.h>

namespace qz::http {

namespace {

const char* const kKeepAliveLine = "Connection: Keep-Alive";

int debugCallback(CURL*, curl_infotype type, char* data, size_t size, void* userPtr) {
  auto* d = static_cast<HttpConnection::HttpConnectionPrivate*>(userPtr);
  const auto& live = d->parameters.debugLines;
  if (live)
    ReportDebugLines(live, type, std::string_view(data, size));
  if (d->parameters.verbose == 0 || int(type) > 7 || (live && !d->inTransfer))
    return 0;
  try {
    std::string entry;
    switch (type) {
    case CURLINFO_TEXT:
      entry.assign("* ").append(data, size);
      break;
    case CURLINFO_HEADER_IN:
      entry.assign("< ").append(data, size);
      break;
    case CURLINFO_HEADER_OUT:
      entry.assign("> ").append(RedactedHeaders(std::string_view(data, size)));
      break;
    case CURLINFO_DATA_IN:
      entry = "DataIn " + std::to_string(size) + "B";
      break;
    case CURLINFO_DATA_OUT:
      entry = "DataOut " + std::to_string(size) + "B";
      break;
    case CURLINFO_SSL_DATA_IN:
      entry = "SSLIn " + std::to_string(size) + "B";
      break;
    case CURLINFO_SSL_DATA_OUT:
      entry = "SSLOut " + std::to_string(size) + "B";
      break;
    default:
      entry = "End";
      break;
    }
    if (d->inTransfer)
      d->lastDebugInformations += entry;
    else
      qzLogObject(qzLog::Debug, "curl") << entry;
  } catch (...) {
    // Losing a debug line is better than unwinding through libcurl.
  }
  return 0;
}

// With the threaded resolver libcurl needs no alarm signal to time out a name lookup, and it
// sends with MSG_NOSIGNAL: its signal handling then only costs a few sigaction calls per request.
bool signalsNeeded() {
  static const bool needed = !(curl_version_info(CURLVERSION_NOW)->features & CURL_VERSION_ASYNCHDNS);
  return needed;
}

// The connection's own options, set on a fresh or reset handle before the parameters.
int applyHandleOptions(CURL* h, HttpConnection::HttpConnectionPrivate* d) {
  int rc = ApplyConnectionOptions(h);
  rc |= curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  rc |= curl_easy_setopt(h, CURLOPT_DEBUGFUNCTION, debugCallback);
  rc |= curl_easy_setopt(h, CURLOPT_DEBUGDATA, d);
  rc |= curl_easy_setopt(h, CURLOPT_ERRORBUFFER, d->errorBuffer);
  return rc;
}

} // namespace

std::string RedactedHeaders(std::string_view block) {
  std::string out;
  out.reserve(block.size());
  while (!block.empty()) {
    const size_t eol = block.find('\n');
    std::string_view line = block.substr(0, eol == std::string_view::npos ? block.size() : eol + 1);
    block.remove_prefix(line.size());
    const size_t colon = line.find(':');
    const std::string_view name = line.substr(0, colon == std::string_view::npos ? 0 : colon);
    const auto is = [&](std::string_view secret) {
      return name.size() == secret.size() && strncasecmp(name.data(), secret.data(), name.size()) == 0;
    };
    if (!is("authorization") && !is("proxy-authorization") && !is("cookie")) {
      out.append(line);
      continue;
    }
    // The scheme stays (Basic, Bearer): it tells how the request was made, not the secret.
    std::string_view value = line.substr(colon + 1);
    const size_t start = value.find_first_not_of(' ');
    const size_t scheme =
        is("cookie") || start == std::string_view::npos ? std::string_view::npos : value.find(' ', start);
    out.append(name).append(": ");
    if (scheme != std::string_view::npos)
      out.append(value.substr(start, scheme - start)).append(" ");
    out.append("[redacted]").append(line.ends_with("\r\n") ? "\r\n" : line.ends_with("\n") ? "\n" : "");
  }
  return out;
}

bool ReportDebugLines(const decltype(HttpConnection::ConnectionParameters::debugLines)& to, curl_infotype type,
                      std::string_view text) {
  if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT)
    return false;
  const DebugLineKind kind = type == CURLINFO_TEXT        ? DebugLineKind::Info
                             : type == CURLINFO_HEADER_IN ? DebugLineKind::HeaderIn
                                                          : DebugLineKind::HeaderOut;
  try {
    std::string redacted;
    if (kind == DebugLineKind::HeaderOut) {
      redacted = RedactedHeaders(text);
      text = redacted;
    }
    // One block may hold several lines (the sent headers); each ends with LF or CR LF.
    while (!text.empty()) {
      const size_t eol = text.find('\n');
      std::string_view line = text.substr(0, eol);
      text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
      if (line.ends_with('\r'))
        line.remove_suffix(1);
      to(kind, line);
    }
  } catch (...) {
    // A caller's function that throws loses its line; libcurl is not unwound.
  }
  return true;
}

int ApplyConnectionOptions(CURL* h) {
  int rc = 0;
  rc |= curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 0L);
  rc |= curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 0L);
  rc |= curl_easy_setopt(h, CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
  rc |= curl_easy_setopt(h, CURLOPT_NOSIGNAL, signalsNeeded() ? 0L : 1L);
  rc |= curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, "");
  // Paths go out as rendered; "." and ".." segments are already escaped.
  rc |= curl_easy_setopt(h, CURLOPT_PATH_AS_IS, 1L);
  return rc;
}

namespace {

// Any case, ASCII only (no locale call: this runs for every request).
bool isHttpScheme(const std::string& scheme) {
  static const char kHttps[] = "https";
  if (scheme.size() != 4 && scheme.size() != 5)
    return false;
  for (size_t i = 0; i < scheme.size(); ++i)
    if ((scheme[i] | 0x20) != kHttps[i])
      return false;
  return true;
}

// Under a cancel token the transfer runs where cancel() can wake it; the connection keeps that
// multi handle (and the connections it holds) for its next calls with a token.
CURLcode performTransfer(HttpConnection::HttpConnectionPrivate& d, CURL* h) {
  const CancelToken* token = d.hooks.token;
  if (!token && !d.hooks.stopNow)
    return curl_easy_perform(h);
  if (!d.tokenTransfer)
    d.tokenTransfer = std::make_unique<InterruptibleTransfer>(
        [&d] {
          return (d.hooks.token && d.hooks.token->isCancelled()) || (d.hooks.stopNow && d.hooks.stopNow(d.hooks.data));
        },
        CancelToken::PollMs);
  InterruptibleTransfer& t = *d.tokenTransfer;
  // A caller's plain flag is only seen by polling; a token's cancel() wakes the wait itself.
  t.setPollMs(d.hooks.stopNow || (token && token->watchesFlag()) ? CancelToken::PollMs : 1000);
  if (!token)
    return t.perform(h);
  CancelRegistration wake(*token, [&t] { t.wakeup(); });
  return t.perform(h);
}

} // namespace

HttpConnection::HttpConnection(bool countConnections)
    : d(std::make_unique<HttpConnectionPrivate>()), m_countConnections(countConnections) {}

HttpConnection::~HttpConnection() = default;

void HttpConnection::clearConnection() {
  d->easy.reset();
  d->forgetHandleState();
}

bool HttpConnection::setupConnection(const qz::Url& url) {
  return prepareHandle(url, d->state.setup.callback, d->state.setup.shape);
}

bool HttpConnection::prepareHandle(const qz::Url& url, SetupCallback setup, unsigned long shape) {
  if (!d->easy) {
    if (!qz::IsHttpToolsInitialized()) {
      qzLogObject(qzLog::Error, "http") << "HttpTools library not initialized.";
      d->fail(ErrorKind::LocalIo, "HttpTools library not initialized.");
      return false;
    }
    d->easy.reset(curl_easy_init());
    d->forgetHandleState();
    if (!d->easy)
      return false;
  }
  ResolveConnectionParameters(d->parameters, url, d->proxyFinder, d->resolving);
  const HttpConnectionPrivate::HandleState::Setup wanted{setup, shape};
  if (d->state.valid && d->state.setup == wanted && d->state.parameters == d->resolving)
    return true;
  // Another set-up callback, request shape or parameters: start from libcurl's defaults so that
  // nothing an earlier request installed (callbacks, their data, methods) survives. Live
  // connections, DNS cache, TLS sessions and cookies stay.
  d->forgetHandleState();
  CURL* h = d->easy.get();
  curl_easy_reset(h);
  if ((applyHandleOptions(h, d.get()) | ApplyResolvedParameters(h, d->resolving)) != 0) {
    clearConnection();
    return false;
  }
  std::swap(d->state.parameters, d->resolving);
  d->state.setup = wanted;
  d->state.valid = true;
  return true;
}

bool HttpConnection::getHttpData(const qz::Url& url, const std::string& expectedContentType, long expectedHttpCode,
                                 SetupCallback setup, void* userData) {
  return getHttpData(url, expectedContentType, expectedHttpCode, setup, userData, 0);
}

bool HttpConnection::getHttpData(const qz::Url& url, const std::string& expectedContentType, long expectedHttpCode,
                                 SetupCallback setup, void* userData, unsigned long shape) {
  if (!d->lastUrl.host.empty() && (d->lastUrl.host != url.host || d->lastUrl.port != url.port))
    qzLogObject(qzLog::Warning, "http") << "Http connection was reused with a different host:port "
                                        << d->lastUrl.toDisplayableUrl() << " " << url.toDisplayableUrl();
  // Most calls on a kept connection repeat the last URL: the copy and its rendering are kept.
  if (!d->lastEncodedUrlValid || (&d->lastUrl != &url && !qz::url_impl::IsSameUrlValue(d->lastUrl, url))) {
    d->lastEncodedUrlValid = false;
    if (&d->lastUrl != &url)
      d->lastUrl = url;
    d->lastEncodedUrl = url.toEncodedUrl();
    d->lastEncodedUrlValid = true;
  }

  d->errorBuffer[0] = 0;
  d->lastCurlCode = CURLE_OK;
  d->internalErrorMsg.clear();
  d->lastHttpReturnCode = 0;
  d->lastReceivedType.clear();
  d->lastDebugInformations.clear();
  d->lastErrorKind = ErrorKind::None;

  if (!isHttpScheme(url.scheme)) {
    d->fail(ErrorKind::BadRequest, SchemeRefusal(url.scheme));
    return false;
  }
  if (!prepareHandle(url, setup, shape)) {
    d->fail(ErrorKind::LocalIo, "Fail to setupconnection");
    clearConnection();
    return false;
  }

  bool retry = false;
  const bool ok = getHttpDataImpl(d->lastEncodedUrl, expectedContentType, expectedHttpCode, !url.ipAddress.isValid(),
                                  retry, setup, userData);
  if (!ok && retry) {
    // The preferred address family failed for this name: from now on take whatever resolves.
    d->parameters.hostNameResolutionPolicy = HNRP_Whatever;
    return getHttpData(url, expectedContentType, expectedHttpCode, setup, userData, shape);
  }
  return ok;
}

bool HttpConnection::getHttpDataImpl(const std::string& encodedUrl, const std::string& expectedContentType,
                                     long expectedHttpCode, bool hostIsName, bool& retry, SetupCallback setup,
                                     void* userData) {
  retry = false;
  CURL* h = d->easy.get();
  auto failWithReset = [&](const std::string& message, ErrorKind kind = ErrorKind::LocalIo) {
    d->fail(kind, message);
    clearConnection();
    return false;
  };

  // The data pointers of this call, before the set-up callback, which may replace them.
  int rc = 0;
  rc |= curl_easy_setopt(h, CURLOPT_XFERINFODATA, userData);
  rc |= curl_easy_setopt(h, CURLOPT_WRITEDATA, userData);
  rc |= curl_easy_setopt(h, CURLOPT_READDATA, userData);
  if (rc != 0)
    return failWithReset("Error while setting connection parameters");

  std::list<std::string> extraHeaders;
  int setupResult = 0;
  try {
    setupResult = setup ? setup(h, userData, extraHeaders) : 0;
  } catch (const std::exception& e) {
    return failWithReset(std::string("Set-up callback failed: ") + e.what());
  } catch (...) {
    return failWithReset("Set-up callback failed");
  }
  if (setupResult != 0)
    return failWithReset("User callback return and error", ErrorKind::BadRequest);

  // The lines in the order they go out: the connection's, the transfer request's, the callback's.
  static const std::vector<std::string> kNoLines;
  const std::vector<std::string>& requestLines = d->hooks.headerLines ? *d->hooks.headerLines : kNoLines;
  auto eachLine = [&](auto&& f) {
    for (const std::string& line : d->commonHeaders)
      f(line);
    for (const std::string& line : requestLines)
      f(line);
    for (const std::string& line : extraHeaders)
      f(line);
  };
  const std::string* broken = nullptr;
  eachLine([&](const std::string& line) {
    if (!broken && (line.find('\r') != std::string::npos || line.find('\n') != std::string::npos))
      broken = &line;
  });
  if (broken) {
    // Nothing was sent; the callback's options are set again by the next call.
    d->forgetHandleState();
    d->fail(ErrorKind::BadRequest,
            "Header line with CR or LF refused, nothing sent: " + qz::qzLog::EscapeControls(*broken));
    return false;
  }

  // The header list is rebuilt only when its lines change.
  const size_t lineCount = d->commonHeaders.size() + requestLines.size() + extraHeaders.size() + 1;
  std::vector<std::string>& known = d->state.headerLines;
  bool sameLines = d->state.headersValid && known.size() == lineCount;
  if (sameLines) {
    auto k = known.begin();
    eachLine([&](const std::string& line) { sameLines = sameLines && *k++ == line; });
    sameLines = sameLines && *k == kKeepAliveLine;
  }
  if (!sameLines) {
    d->state.headersValid = false;
    known.clear();
    eachLine([&](const std::string& line) { known.push_back(line); });
    known.emplace_back(kKeepAliveLine);
    curl_slist* list = nullptr;
    for (const std::string& line : known)
      if (curl_slist* next = curl_slist_append(list, line.c_str()))
        list = next;
    const CURLcode set = curl_easy_setopt(h, CURLOPT_HTTPHEADER, list);
    d->headerList.reset(list); // after the handle lets go of the old list
    if (set != CURLE_OK)
      return failWithReset("Error while setting connection parameters");
    d->state.headersValid = true;
  }

  if (encodedUrl != d->state.url) {
    d->state.url.clear();
    if (curl_easy_setopt(h, CURLOPT_URL, encodedUrl.c_str()) != CURLE_OK)
      return failWithReset("Error while setting url", ErrorKind::BadRequest);
    d->state.url = encodedUrl;
  }

  const int64_t start = qzSystemUtils::GetTimeBaseMs();
  d->inTransfer = true;
  try {
    d->lastCurlCode = performTransfer(*d, h);
  } catch (...) {
    // Only a caller's own libcurl callback can get here; the handle is in no state to reuse.
    d->inTransfer = false;
    return failWithReset("A transfer callback threw an exception");
  }
  d->inTransfer = false;

  if (!d->lastDebugInformations.empty() && d->parameters.verbose == 2) {
    // One log line per line of output: the logger keeps each line on one line.
    qzLogObject(qzLog::Debug, "curl") << "Curl debug output";
    std::string_view rest = d->lastDebugInformations;
    while (!rest.empty()) {
      const size_t eol = rest.find('\n');
      std::string_view line = rest.substr(0, eol);
      rest = eol == std::string_view::npos ? std::string_view() : rest.substr(eol + 1);
      if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
      if (!line.empty())
        qzLogObject(qzLog::Debug, "curl") << line;
    }
  }

  long httpCode = 0;
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &httpCode);
  d->lastHttpReturnCode = httpCode;
  if (d->hooks.afterPerform)
    d->hooks.afterPerform(h, d->hooks.data);

  if (d->lastCurlCode != CURLE_OK) {
    const HostNameResolutionPolicy own = d->parameters.hostNameResolutionPolicy;
    const CURLcode c = d->lastCurlCode;
    if (hostIsName && (own == HNRP_PreferIpv6 || own == HNRP_PreferIpv4) &&
        (c == CURLE_COULDNT_RESOLVE_HOST || c == CURLE_PEER_FAILED_VERIFICATION || c == CURLE_SSL_CERTPROBLEM))
      retry = true;
    const ResolvedParameters& applied = d->state.parameters;
    return failWithReset(TransferFailedText(c, qzSystemUtils::GetTimeBaseMs() - start, applied.totalTimeoutMs,
                                            applied.maxBodyBytes, d->lastUrl),
                         TransferError::KindOfCurlCode(c));
  }

  char* type = nullptr;
  if (curl_easy_getinfo(h, CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type)
    d->lastReceivedType = type;

  if (expectedHttpCode > 0 && httpCode != expectedHttpCode) {
    d->fail(ErrorKind::HttpStatus, UnexpectedStatusText(httpCode, expectedHttpCode, d->lastUrl));
    return false;
  }
  if (!expectedContentType.empty() && expectedContentType != d->lastReceivedType) {
    d->fail(ErrorKind::Protocol, "bad content type, got " + d->lastReceivedType + ", expect " + expectedContentType +
                                     " " + d->lastUrl.toDisplayableUrl());
    return false;
  }
  if (m_countConnections) {
    long connects = 0;
    curl_easy_getinfo(h, CURLINFO_NUM_CONNECTS, &connects);
  }
  return true;
}

InterruptibleTransfer::InterruptibleTransfer(std::function<bool()> interrupted, int pollMs)
    : m_interrupted(std::move(interrupted)), m_pollMs(std::max(1, pollMs)), m_multi(curl_multi_init()) {}

CURLcode InterruptibleTransfer::perform(CURL* easy) {
  CURLM* m = m_multi.get();
  if (!m || curl_multi_add_handle(m, easy) != CURLM_OK)
    return curl_easy_perform(easy);
  // The codes curl_easy_perform gives for a failing multi handle.
  auto fromMulti = [](CURLMcode c) {
    return c == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_BAD_FUNCTION_ARGUMENT;
  };
  CURLcode result = CURLE_ABORTED_BY_CALLBACK;
  for (;;) {
    int running = 0;
    const CURLMcode performed = curl_multi_perform(m, &running);
    if (performed != CURLM_OK) {
      result = fromMulti(performed);
      break;
    }
    bool done = false;
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(m, &left))
      if (msg->msg == CURLMSG_DONE && msg->easy_handle == easy) {
        result = msg->data.result;
        done = true;
      }
    bool interrupted = true;
    try {
      interrupted = m_interrupted();
    } catch (...) {
    }
    if (done || interrupted)
      break;
    const CURLMcode polled = curl_multi_poll(m, nullptr, 0, m_pollMs, nullptr);
    if (polled != CURLM_OK) {
      result = fromMulti(polled);
      break;
    }
  }
  curl_multi_remove_handle(m, easy);
  return result;
}

void InterruptibleTransfer::wakeup() {
  if (m_multi)
    curl_multi_wakeup(m_multi.get());
}

std::string HttpConnection::getLastErrorMsg() const { return getLastError().message(); }

TransferError HttpConnection::getLastError() const {
  TransferError e;
  CopyLastError(*d, e);
  return e;
}

void CopyLastError(HttpConnection::HttpConnectionPrivate& d, TransferError& e) {
  d.errorBuffer[CURL_ERROR_SIZE - 1] = 0;
  e.kind = d.lastErrorKind;
  e.curlCode = int(d.lastCurlCode);
  e.httpStatus = long(d.lastHttpReturnCode);
  e.reason.clear();
  e.context = d.internalErrorMsg;
  e.curlText = d.errorBuffer;
}

void HttpConnection::addErrorDetail(const std::string& reason) {
  d->internalErrorMsg = d->internalErrorMsg.empty() ? reason : reason + ", " + d->internalErrorMsg;
}

std::string SchemeRefusal(const std::string& scheme) {
  if (isHttpScheme(scheme))
    return {};
  return scheme.empty()
             ? "Invalid URL without a scheme, nothing sent"
             : "Unsupported scheme '" + qz::qzLog::EscapeControls(scheme) + "', only http and https are requested";
}

std::string TransferFailedText(CURLcode code, int64_t elapsedMs, long totalTimeoutMs, long long maxBodyBytes,
                               const qz::Url& url) {
  std::string what;
  if (code == CURLE_OPERATION_TIMEDOUT && totalTimeoutMs > 0 && elapsedMs >= totalTimeoutMs)
    what = "Total time-out of " + std::to_string(totalTimeoutMs) + " ms reached";
  else if (code == CURLE_FILESIZE_EXCEEDED)
    what = BodyLimitMessage(maxBodyBytes);
  else
    what = "Curl easy perform error after " + qzStringUtils::humanizeDuration(elapsedMs, 1, true);
  return what + ", " + url.toDisplayableUrl();
}

std::string UnexpectedStatusText(long got, long expected, const qz::Url& url) {
  return "bad html response code, got " + std::to_string(got) + ", expect " + std::to_string(expected) + " " +
         url.toDisplayableUrl();
}

std::string HttpConnection::getLastReceivedType() const { return d->lastReceivedType; }
const qz::Url& HttpConnection::getLastUrl() const { return d->lastUrl; }
const std::string& HttpConnection::getLastDebugInformations() const { return d->lastDebugInformations; }
long HttpConnection::getLastHttpReturnCode() const { return long(d->lastHttpReturnCode); }
bool HttpConnection::isLastCallTimedOut() const { return d->lastCurlCode == CURLE_OPERATION_TIMEDOUT; }
bool HttpConnection::isLastCallUnableToVerifyPeer() const { return d->lastCurlCode == CURLE_PEER_FAILED_VERIFICATION; }

const HttpConnection::ConnectionParameters& HttpConnection::getConnectionParameters() const { return d->parameters; }
HttpConnection::ConnectionParameters& HttpConnection::editConnectionParameters() { return d->parameters; }
void HttpConnection::setConnectionParameters(const ConnectionParameters& params) {
  if (&params != &d->parameters)
    d->parameters = params;
}

const std::list<std::string>& HttpConnection::getCommonHeaders() const { return d->commonHeaders; }

void HttpConnection::addCommonHeader(const std::string& line) {
  for (const std::string& l : d->commonHeaders)
    if (l == line)
      return;
  d->commonHeaders.push_back(line);
}

void HttpConnection::setCommonHeaders(const std::list<std::string>& lines) { d->commonHeaders = lines; }

} // namespace qz::http
