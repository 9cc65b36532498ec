#include <HttpTools/http/HttpConnection.h>

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/platform/qzLog.h>

#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>

namespace qz::http {

namespace {

long nonNegative(long v) { return v < 0 ? 0 : v; }

// libcurl's built-in CA bundle path, so that an empty caFile puts it back on a used handle.
const std::string& defaultCaFile() {
  static const std::string path = [] {
    std::string found;
    std::unique_ptr<CURL, CurlEasyDeleter> h(curl_easy_init());
    char* p = nullptr;
    if (h && curl_easy_getinfo(h.get(), CURLINFO_CAINFO, &p) == CURLE_OK && p)
      found = p;
    return found;
  }();
  return path;
}

int acceptAnyCertificate(X509_STORE_CTX*, void*) { return 1; }

// Installed when the request's target is the exempt loopback host: libcurl then checks the
// peer, and this callback, run for every new TLS connection (a redirect's included), switches
// the chain check off for 127.0.0.1 only and makes OpenSSL check the name of any other host.
CURLcode loopbackAwareTlsSetup(CURL* curl, void* sslCtx, void*) {
  try {
    auto* ctx = static_cast<SSL_CTX*>(sslCtx);
    char* effective = nullptr;
    if (curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &effective) != CURLE_OK || !effective)
      return CURLE_SSL_CERTPROBLEM;
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> u(curl_url(), curl_url_cleanup);
    char* host = nullptr;
    if (!u || curl_url_set(u.get(), CURLUPART_URL, effective, 0) != CURLUE_OK ||
        curl_url_get(u.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK || !host)
      return CURLE_SSL_CERTPROBLEM;
    std::string name(host);
    curl_free(host);
    if (name == "127.0.0.1" && qz::IsLoopbackCertificateExemption()) {
      SSL_CTX_set_cert_verify_callback(ctx, acceptAnyCertificate, nullptr);
      return CURLE_OK;
    }
    X509_VERIFY_PARAM* param = SSL_CTX_get0_param(ctx);
    int ok = 0;
    if (name.size() > 2 && name.front() == '[' && name.back() == ']')
      ok = X509_VERIFY_PARAM_set1_ip_asc(param, name.substr(1, name.size() - 2).c_str());
    else if (X509_VERIFY_PARAM_set1_ip_asc(param, name.c_str()) == 1)
      ok = 1;
    else
      ok = X509_VERIFY_PARAM_set1_host(param, name.c_str(), name.size());
    return ok == 1 ? CURLE_OK : CURLE_SSL_CERTPROBLEM;
  } catch (...) {
    return CURLE_SSL_CERTPROBLEM;
  }
}

} // namespace

HttpConnection::ConnectionParameters::ConnectionParameters() : manualProxyUrl(qz::Url::ClearAll) {}

bool ResolveVerifyPeer(SSLValidatePolicy policy) {
  return policy == SVP_DefaultBehavior ? qz::IsVerifySSLCertByDefault() : policy != SVP_NoVerify;
}

long ResolveIpResolve(HostNameResolutionPolicy policy) {
  if (policy == HNRP_Default)
    policy = qz::GetDefaultHostNameResolutionPolicy();
  switch (policy) {
  case HNRP_PreferIpv6:
    return CURL_IPRESOLVE_V6;
  case HNRP_PreferIpv4:
    return CURL_IPRESOLVE_V4;
  default:
    return CURL_IPRESOLVE_WHATEVER;
  }
}

std::string BodyLimitMessage(long long maxBodyBytes) {
  return "Response body larger than the limit of " + std::to_string(maxBodyBytes) + " bytes";
}

ProcessDefaults ProcessDefaults::Current() {
  return {qz::IsVerifySSLCertByDefault(), qz::IsLoopbackCertificateExemption(),
          int(qz::GetDefaultHostNameResolutionPolicy()), int(qz::GetDefaultProxyPolicy())};
}

void ResolveConnectionParameters(const HttpConnection::ConnectionParameters& p, const qz::Url& target,
                                 HttpProxyFinder& proxyFinder, ResolvedParameters& r) {
  r.followLocation = p.followLocation ? 1 : 0;
  r.maxRedirects = nonNegative(p.maxRedirects);
  r.connectTimeoutSec = nonNegative(p.connectTimeoutSec);
  r.maxRecvSpeed = nonNegative(p.maxRecvSpeed);
  r.maxSendSpeed = nonNegative(p.maxSendSpeed);
  r.keepCookies = p.keepCookies;
  const bool lowSpeed = p.lowSpeedLimit > 0 && p.lowSpeedTime > 0;
  r.lowSpeedLimit = lowSpeed ? p.lowSpeedLimit : 0;
  r.lowSpeedTime = lowSpeed ? p.lowSpeedTime : 0;
  r.tcpKeepAlive = p.tcpKeepAlive > 0 ? p.tcpKeepAlive : 0;
  r.verbose = p.verbose != 0 || p.debugLines ? 1 : 0;
  r.ipResolve = ResolveIpResolve(p.hostNameResolutionPolicy);
  r.verifyPeer = ResolveVerifyPeer(p.sslValidatePolicy);
  // Exact text on purpose: "localhost" and "[::1]" are still checked.
  r.loopbackExempt = r.verifyPeer && target.host == "127.0.0.1" && qz::IsLoopbackCertificateExemption();
  r.caFile = p.caFile;
  r.clientCertFile = p.clientCertFile;
  r.clientKeyFile = p.clientKeyFile;
  r.maxBodyBytes = static_cast<long long>(std::min<size_t>(p.maxBodyBytes, size_t(INT64_MAX)));
  r.totalTimeoutMs = nonNegative(p.totalTimeoutMs);

  r.proxyNull = false;
  const ProxyPolicy proxy = p.proxyPolicy == PP_Default ? qz::GetDefaultProxyPolicy() : p.proxyPolicy;
  if (proxy == PP_AutomaticProxy) {
    r.proxy.clear();
    r.proxyNull = !proxyFinder.getProxyUrl(target, r.proxy);
  } else if (proxy == PP_ManualProxy && p.manualProxyUrl.isValid()) {
    r.proxy = p.manualProxyUrl.toEncodedUrl();
  } else {
    if (proxy == PP_ManualProxy)
      qzLogObject(qzLog::Warning, "http")
          << "Manual proxy url is invalid " << p.manualProxyUrl.toDisplayableUrl() << " disable proxy for this call";
    r.proxy.clear(); // no proxy at all, environment included
  }
}

int ApplyResolvedParameters(CURL* h, const ResolvedParameters& r) {
  int rc = 0;
  rc |= curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, r.followLocation);
  rc |= curl_easy_setopt(h, CURLOPT_MAXREDIRS, r.maxRedirects);
  rc |= curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  rc |= curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  rc |= curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, r.connectTimeoutSec);
  rc |= curl_easy_setopt(h, CURLOPT_MAX_RECV_SPEED_LARGE, curl_off_t(r.maxRecvSpeed));
  rc |= curl_easy_setopt(h, CURLOPT_MAX_SEND_SPEED_LARGE, curl_off_t(r.maxSendSpeed));
  // The jar option starts the cookie engine, which keeps cookies in memory; its path means that
  // nothing survives the handle. No cookie file is named: libcurl 7.88 opens a named one again
  // at every transfer, and its list of names is lost (leaked) when the handle is reset.
  rc |= curl_easy_setopt(h, CURLOPT_COOKIESESSION, r.keepCookies ? 0L : 1L);
  rc |= curl_easy_setopt(h, CURLOPT_COOKIEJAR, r.keepCookies ? "/dev/null" : static_cast<const char*>(nullptr));
  rc |= curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, r.lowSpeedLimit);
  rc |= curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, r.lowSpeedTime);
  rc |= curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, r.tcpKeepAlive > 0 ? 1L : 0L);
  rc |= curl_easy_setopt(h, CURLOPT_TCP_KEEPIDLE, r.tcpKeepAlive > 0 ? r.tcpKeepAlive : 10L);
  rc |= curl_easy_setopt(h, CURLOPT_TCP_KEEPINTVL, r.tcpKeepAlive > 0 ? r.tcpKeepAlive : 10L);
  rc |= curl_easy_setopt(h, CURLOPT_VERBOSE, r.verbose);
  rc |= curl_easy_setopt(h, CURLOPT_IPRESOLVE, r.ipResolve);
  rc |= curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, r.verifyPeer ? 1L : 0L);
  // Under the exemption the host name is checked by the TLS set-up callback instead.
  rc |= curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, r.verifyPeer && !r.loopbackExempt ? 2L : 0L);
  rc |= curl_easy_setopt(h, CURLOPT_SSL_CTX_FUNCTION,
                         r.loopbackExempt ? loopbackAwareTlsSetup : static_cast<curl_ssl_ctx_callback>(nullptr));
  rc |= curl_easy_setopt(h, CURLOPT_CAINFO, r.caFile.empty() ? defaultCaFile().c_str() : r.caFile.c_str());
  auto orNull = [](const std::string& s) { return s.empty() ? static_cast<const char*>(nullptr) : s.c_str(); };
  rc |= curl_easy_setopt(h, CURLOPT_SSLCERT, orNull(r.clientCertFile));
  rc |= curl_easy_setopt(h, CURLOPT_SSLKEY, orNull(r.clientKeyFile));
  rc |= curl_easy_setopt(h, CURLOPT_PROXY, r.proxyNull ? static_cast<const char*>(nullptr) : r.proxy.c_str());
  rc |= curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, r.totalTimeoutMs);
  // Refuses an announced length at once; writers count the decoded bytes themselves.
  rc |= curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, curl_off_t(r.maxBodyBytes));
  return rc;
}

int HttpConnection::ConnectionParameters::applyParameters(void* curlHandle, const qz::Url& target,
                                                          HttpProxyFinder& proxyFinder) const {
  ResolvedParameters r;
  ResolveConnectionParameters(*this, target, proxyFinder, r);
  return ApplyResolvedParameters(static_cast<CURL*>(curlHandle), r);
}

int BodyReader::install(CURL* h) {
  int rc = 0;
  rc |= curl_easy_setopt(h, CURLOPT_READFUNCTION, &BodyReader::Read);
  rc |= curl_easy_setopt(h, CURLOPT_READDATA, this);
  rc |= curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, &BodyReader::Seek);
  rc |= curl_easy_setopt(h, CURLOPT_SEEKDATA, this);
  return rc;
}

size_t BodyReader::Read(char* buffer, size_t size, size_t count, void* reader) {
  auto* r = static_cast<BodyReader*>(reader);
  if (CancelToken::IsSet(r->cancel))
    return CURL_READFUNC_ABORT;
  const size_t n = std::min(size * count, r->size - std::min(r->offset, r->size));
  if (n)
    std::memcpy(buffer, r->data + r->offset, n);
  r->offset += n;
  return n;
}

// libcurl rewinds the body when it must send it again (redirect, authentication).
int BodyReader::Seek(void* reader, curl_off_t offset, int origin) {
  auto* r = static_cast<BodyReader*>(reader);
  if (origin != SEEK_SET || offset < 0 || size_t(offset) > r->size)
    return CURL_SEEKFUNC_CANTSEEK;
  r->offset = size_t(offset);
  return CURL_SEEKFUNC_OK;
}

} // namespace qz::http
