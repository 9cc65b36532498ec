#include <HttpTools/http/HttpConnection.h>

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/platform/qzLog.h>

namespace qz::http {

namespace {

long nonNegative(int v) { return v < 0 ? 0 : v; }

CurlOptionValue number(CURLoption o, long long v) { return {o, CurlOptionValue::Long, v, {}}; }
CurlOptionValue offT(CURLoption o, long long v) { return {o, CurlOptionValue::OffT, v, {}}; }
CurlOptionValue text(CURLoption o, std::string v) { return {o, CurlOptionValue::Text, 0, std::move(v)}; }
CurlOptionValue null(CURLoption o) { return {o, CurlOptionValue::Null, 0, {}}; }

} // namespace

HttpConnection::ConnectionParameters::ConnectionParameters() : manualProxyUrl(qz::Url::ClearAll) {}

bool ResolveVerifyPeer(SSLValidatePolicy policy, const qz::Url& target) {
  const bool verify = policy == SVP_DefaultBehavior ? qz::IsVerifySSLCertByDefault() : policy != SVP_NoVerify;
  // Exact text on purpose: "localhost" and "[::1]" are still checked.
  return verify && target.host != "127.0.0.1";
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

std::vector<CurlOptionValue> ResolveConnectionParameters(const HttpConnection::ConnectionParameters& p,
                                                         const qz::Url& target, HttpProxyFinder& proxyFinder) {
  std::vector<CurlOptionValue> o;
  o.reserve(22);
  o.push_back(number(CURLOPT_FOLLOWLOCATION, p.followLocation ? 1 : 0));
  o.push_back(number(CURLOPT_MAXREDIRS, nonNegative(p.maxRedirects)));
  o.push_back(text(CURLOPT_REDIR_PROTOCOLS_STR, "http,https"));
  o.push_back(number(CURLOPT_CONNECTTIMEOUT, nonNegative(p.connectTimeoutSec)));
  o.push_back(offT(CURLOPT_MAX_RECV_SPEED_LARGE, nonNegative(p.maxRecvSpeed)));
  o.push_back(offT(CURLOPT_MAX_SEND_SPEED_LARGE, nonNegative(p.maxSendSpeed)));
  if (p.keepCookies) {
    // The cookie engine keeps cookies in memory; the jar path means nothing survives the handle.
    o.push_back(number(CURLOPT_COOKIESESSION, 0));
    o.push_back(text(CURLOPT_COOKIEJAR, "/dev/null"));
  } else {
    o.push_back(number(CURLOPT_COOKIESESSION, 1));
    o.push_back(null(CURLOPT_COOKIEJAR));
  }
  const bool lowSpeed = p.lowSpeedLimit > 0 && p.lowSpeedTime > 0;
  o.push_back(number(CURLOPT_LOW_SPEED_LIMIT, lowSpeed ? p.lowSpeedLimit : 0));
  o.push_back(number(CURLOPT_LOW_SPEED_TIME, lowSpeed ? p.lowSpeedTime : 0));
  if (p.tcpKeepAlive > 0) {
    o.push_back(number(CURLOPT_TCP_KEEPALIVE, 1));
    o.push_back(number(CURLOPT_TCP_KEEPIDLE, p.tcpKeepAlive));
    o.push_back(number(CURLOPT_TCP_KEEPINTVL, p.tcpKeepAlive));
  } else {
    o.push_back(number(CURLOPT_TCP_KEEPALIVE, 0));
    o.push_back(number(CURLOPT_TCP_KEEPIDLE, 10));
    o.push_back(number(CURLOPT_TCP_KEEPINTVL, 10));
  }
  o.push_back(number(CURLOPT_VERBOSE, p.verbose != 0 ? 1 : 0));
  o.push_back(number(CURLOPT_IPRESOLVE, ResolveIpResolve(p.hostNameResolutionPolicy)));
  const bool verify = ResolveVerifyPeer(p.sslValidatePolicy, target);
  o.push_back(number(CURLOPT_SSL_VERIFYPEER, verify ? 1 : 0));
  o.push_back(number(CURLOPT_SSL_VERIFYHOST, verify ? 2 : 0));

  const ProxyPolicy proxy = p.proxyPolicy == PP_Default ? qz::GetDefaultProxyPolicy() : p.proxyPolicy;
  if (proxy == PP_AutomaticProxy) {
    std::string found;
    if (proxyFinder.getProxyUrl(target, found))
      o.push_back(text(CURLOPT_PROXY, std::move(found)));
    else
      o.push_back(null(CURLOPT_PROXY)); // libcurl's own default: the proxy environment variables
  } else if (proxy == PP_ManualProxy) {
    if (p.manualProxyUrl.isValid()) {
      o.push_back(text(CURLOPT_PROXY, p.manualProxyUrl.toEncodedUrl()));
    } else {
      qzLogObject(qzLog::Warning, "http")
          << "Manual proxy url is invalid " << p.manualProxyUrl.toDisplayableUrl() << " disable proxy for this call";
      o.push_back(text(CURLOPT_PROXY, ""));
    }
  } else {
    o.push_back(text(CURLOPT_PROXY, "")); // no proxy at all, environment included
  }
  return o;
}

int HttpConnection::ConnectionParameters::applyParameters(void* curlHandle, const qz::Url& target,
                                                          HttpProxyFinder& proxyFinder) const {
  CURL* h = static_cast<CURL*>(curlHandle);
  int result = 0;
  for (const CurlOptionValue& v : ResolveConnectionParameters(*this, target, proxyFinder)) {
    switch (v.kind) {
    case CurlOptionValue::Long:
      result |= curl_easy_setopt(h, v.option, static_cast<long>(v.number));
      break;
    case CurlOptionValue::OffT:
      result |= curl_easy_setopt(h, v.option, static_cast<curl_off_t>(v.number));
      break;
    case CurlOptionValue::Text:
      result |= curl_easy_setopt(h, v.option, v.text.c_str());
      break;
    case CurlOptionValue::Null:
      result |= curl_easy_setopt(h, v.option, static_cast<char*>(nullptr));
      break;
    }
  }
  return result;
}

} // namespace qz::http
