#include <HttpTools/http/HttpConnection.h>

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzStringUtils.h>
#include <HttpTools/platform/qzSystemUtils.h>
#include <HttpTools/url/Url_p.h>

#include <cstring>

namespace qz::http {

namespace {

const char* const kKeepAliveLine = "Connection: Keep-Alive";

int debugCallback(CURL*, curl_infotype type, char* data, size_t size, void* userPtr) {
  auto* d = static_cast<HttpConnection::HttpConnectionPrivate*>(userPtr);
  if (d->parameters.verbose == 0 || int(type) > 7)
    return 0;
  std::string entry;
  switch (type) {
  case CURLINFO_TEXT:
    entry.assign("* ").append(data, size);
    break;
  case CURLINFO_HEADER_IN:
    entry.assign("< ").append(data, size);
    break;
  case CURLINFO_HEADER_OUT:
    entry.assign("> ").append(data, size);
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
  return 0;
}

} // namespace

HttpConnection::HttpConnection(bool countConnections)
    : d(new HttpConnectionPrivate), m_countConnections(countConnections) {}

HttpConnection::~HttpConnection() { delete d; }

void HttpConnection::clearConnection() {
  d->easy.reset();
  d->forgetAppliedOptions();
}

bool HttpConnection::setupConnection(const qz::Url& url) {
  int rc = 0;
  if (!d->easy) {
    if (!qz::IsHttpToolsInitialized()) {
      qzLogObject(qzLog::Error, "http") << "HttpTools library not initialized.";
      d->internalErrorMsg = "HttpTools library not initialized.";
      return false;
    }
    d->easy.reset(curl_easy_init());
    d->forgetAppliedOptions();
    if (!d->easy)
      return false;
    CURL* h = d->easy.get();
    rc |= curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    rc |= curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 0L);
    rc |= curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 0L);
    rc |= curl_easy_setopt(h, CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
    rc |= curl_easy_setopt(h, CURLOPT_NOSIGNAL, 0L);
    rc |= curl_easy_setopt(h, CURLOPT_DEBUGFUNCTION, debugCallback);
    rc |= curl_easy_setopt(h, CURLOPT_DEBUGDATA, d);
    rc |= curl_easy_setopt(h, CURLOPT_ERRORBUFFER, d->errorBuffer);
    rc |= curl_easy_setopt(h, CURLOPT_COOKIEFILE, "/dev/null");
    rc |= curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, "");
  }
  // What applyParameters does, but an option already on the handle with the same value is not
  // set again: most requests on a kept handle change none, and most need not even resolve.
  const ResolvedParametersKey key = KeyOfParameters(d->parameters, url);
  if (rc == 0 && key.cacheable && d->appliedKeyValid && key == d->appliedKey)
    return true;
  d->appliedKeyValid = false;
  ResolveConnectionParameters(d->parameters, url, d->proxyFinder, d->resolvedOptions);
  rc |= ApplyCurlOptions(d->easy.get(), d->resolvedOptions, &d->appliedOptions);
  if (rc != 0) {
    clearConnection();
    return false;
  }
  d->appliedOptions.swap(d->resolvedOptions);
  d->appliedKey = key;
  d->appliedKeyValid = key.cacheable;
  return true;
}

bool HttpConnection::getHttpData(const qz::Url& url, const std::string& expectedContentType, long expectedHttpCode,
                                 SetupCallback setup, void* userData) {
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

  if (!setupConnection(url)) {
    d->internalErrorMsg = "Fail to setupconnection";
    clearConnection();
    return false;
  }

  bool retry = false;
  const bool ok = getHttpDataImpl(d->lastEncodedUrl, expectedContentType, expectedHttpCode, !url.ipAddress.isValid(),
                                  retry, setup, userData);
  if (!ok && retry) {
    // The preferred address family failed for this name: from now on take whatever resolves.
    d->parameters.hostNameResolutionPolicy = HNRP_Whatever;
    return getHttpData(url, expectedContentType, expectedHttpCode, setup, userData);
  }
  return ok;
}

bool HttpConnection::getHttpDataImpl(const std::string& encodedUrl, const std::string& expectedContentType,
                                     long expectedHttpCode, bool hostIsName, bool& retry, SetupCallback setup,
                                     void* userData) {
  retry = false;
  CURL* h = d->easy.get();
  std::list<std::string> extraHeaders;
  auto failWithReset = [&](const char* message) {
    if (message)
      d->internalErrorMsg = message;
    clearConnection();
    return false;
  };

  if (setup && setup(h, userData, extraHeaders) != 0)
    return failWithReset("User callback return and error");
  if (setup && !IsLibrarySetupCallback(setup))
    d->forgetAppliedOptions();

  int rc = 0;
  if (!d->userDataApplied || d->appliedUserData != userData) {
    d->userDataApplied = false;
    rc |= curl_easy_setopt(h, CURLOPT_PROGRESSDATA, userData);
    rc |= curl_easy_setopt(h, CURLOPT_WRITEDATA, userData);
    rc |= curl_easy_setopt(h, CURLOPT_READDATA, userData);
    d->appliedUserData = userData;
    d->userDataApplied = rc == 0;
  }

  // The header list is rebuilt only when its lines change.
  const size_t lineCount = d->commonHeaders.size() + extraHeaders.size() + 1;
  bool sameLines = d->headersApplied && d->headerLines.size() == lineCount;
  if (sameLines) {
    auto known = d->headerLines.begin();
    for (const std::string& line : d->commonHeaders)
      sameLines = sameLines && *known++ == line;
    for (const std::string& line : extraHeaders)
      sameLines = sameLines && *known++ == line;
    sameLines = sameLines && *known == kKeepAliveLine;
  }
  if (!sameLines) {
    d->headersApplied = false;
    d->headerLines.clear();
    d->headerLines.insert(d->headerLines.end(), d->commonHeaders.begin(), d->commonHeaders.end());
    d->headerLines.insert(d->headerLines.end(), extraHeaders.begin(), extraHeaders.end());
    d->headerLines.emplace_back(kKeepAliveLine);
    curl_slist* list = nullptr;
    for (const std::string& line : d->headerLines)
      if (curl_slist* next = curl_slist_append(list, line.c_str()))
        list = next;
    const CURLcode set = curl_easy_setopt(h, CURLOPT_HTTPHEADER, list);
    d->headerList.reset(list); // after the handle lets go of the old list
    rc |= set;
    d->headersApplied = set == CURLE_OK;
  }
  if (rc != 0)
    return failWithReset("Error while setting connection parameters");

  if (encodedUrl != d->appliedUrl) {
    d->appliedUrl.clear();
    if (curl_easy_setopt(h, CURLOPT_URL, encodedUrl.c_str()) != CURLE_OK)
      return failWithReset("Error while setting url");
    d->appliedUrl = encodedUrl;
  }

  const int64_t start = qzSystemUtils::GetTimeBaseMs();
  d->inTransfer = true;
  d->lastCurlCode = curl_easy_perform(h);
  d->inTransfer = false;

  if (!d->lastDebugInformations.empty() && d->parameters.verbose == 2)
    qzLogObject(qzLog::Debug, "curl") << "Curl debug output \n" << d->lastDebugInformations;

  long httpCode = 0;
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &httpCode);
  d->lastHttpReturnCode = httpCode;

  if (d->lastCurlCode != CURLE_OK) {
    const HostNameResolutionPolicy own = d->parameters.hostNameResolutionPolicy;
    const CURLcode c = d->lastCurlCode;
    if (hostIsName && (own == HNRP_PreferIpv6 || own == HNRP_PreferIpv4) &&
        (c == CURLE_COULDNT_RESOLVE_HOST || c == CURLE_PEER_FAILED_VERIFICATION || c == CURLE_SSL_CERTPROBLEM))
      retry = true;
    d->internalErrorMsg = TransferFailedText(qzSystemUtils::GetTimeBaseMs() - start, d->lastUrl);
    return failWithReset(nullptr);
  }

  char* type = nullptr;
  if (curl_easy_getinfo(h, CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type)
    d->lastReceivedType = type;

  if (expectedHttpCode > 0 && httpCode != expectedHttpCode) {
    d->internalErrorMsg = UnexpectedStatusText(httpCode, expectedHttpCode, d->lastUrl);
    return false;
  }
  if (!expectedContentType.empty() && expectedContentType != d->lastReceivedType) {
    d->internalErrorMsg = "bad content type, got " + d->lastReceivedType + ", expect " + expectedContentType + " " +
                          d->lastUrl.toDisplayableUrl();
    return false;
  }
  if (m_countConnections) {
    long connects = 0;
    curl_easy_getinfo(h, CURLINFO_NUM_CONNECTS, &connects);
  }
  return true;
}

std::string HttpConnection::getLastErrorMsg() const {
  d->errorBuffer[CURL_ERROR_SIZE - 1] = 0;
  return ComposeErrorMessage(d->internalErrorMsg, long(d->lastHttpReturnCode), d->lastCurlCode, d->errorBuffer);
}

std::string ComposeErrorMessage(const std::string& internalError, long httpCode, CURLcode code,
                                const char* curlErrorBuffer) {
  std::string out;
  if (!internalError.empty())
    out += "HttpConnection error : " + internalError + " ";
  if (httpCode != 0)
    out += "Http return code " + std::to_string(httpCode) + " ";
  if (code != CURLE_OK)
    out += "Curl error : " + std::to_string(int(code)) + " (" + curl_easy_strerror(code) + ") ";
  if (curlErrorBuffer && curlErrorBuffer[0] != 0)
    out += std::string("Curl internal error : ") + curlErrorBuffer;
  return out;
}

std::string TransferFailedText(int64_t elapsedMs, const qz::Url& url) {
  return "Curl easy perform error after " + qzStringUtils::humanizeDuration(elapsedMs, 1, true) + ", " +
         url.toDisplayableUrl();
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
