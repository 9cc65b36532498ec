#include <HttpTools/http/HttpConnection.h>

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/platform/qzLog.h>

namespace qz::http {

namespace {

// libcurl's built-in CA bundle path, so that an empty caFile puts it back on a kept handle.
const std::string& DefaultCaFile() {
  static const std::string path = [] {
    std::string found;
    if (CURL* h = curl_easy_init()) {
      char* p = nullptr;
      if (curl_easy_getinfo(h, CURLINFO_CAINFO, &p) == CURLE_OK && p)
        found = p;
      curl_easy_cleanup(h);
    }
    return found;
  }();
  return path;
}

long nonNegative(int v) { return v < 0 ? 0 : v; }

// Writes the option list over the entries already there, so that a reused vector keeps its
// strings' buffers.
class OptionWriter {
public:
  explicit OptionWriter(std::vector<CurlOptionValue>& out) : m_out(out) {}
  ~OptionWriter() { m_out.resize(m_count); }
  OptionWriter(const OptionWriter&) = delete;
  OptionWriter& operator=(const OptionWriter&) = delete;

  void number(CURLoption o, long long v) { next(o, CurlOptionValue::Long, v).text.clear(); }
  void offT(CURLoption o, long long v) { next(o, CurlOptionValue::OffT, v).text.clear(); }
  void text(CURLoption o, const char* v) { next(o, CurlOptionValue::Text, 0).text.assign(v); }
  void text(CURLoption o, std::string&& v) { next(o, CurlOptionValue::Text, 0).text = std::move(v); }
  void text(CURLoption o, const std::string& v) { next(o, CurlOptionValue::Text, 0).text.assign(v); }
  void null(CURLoption o) { next(o, CurlOptionValue::Null, 0).text.clear(); }

private:
  CurlOptionValue& next(CURLoption o, CurlOptionValue::Kind kind, long long number) {
    if (m_count == m_out.size())
      m_out.push_back(CurlOptionValue{o, kind, number, {}});
    CurlOptionValue& v = m_out[m_count++];
    v.option = o;
    v.kind = kind;
    v.number = number;
    return v;
  }

  std::vector<CurlOptionValue>& m_out;
  size_t m_count = 0;
};

} // namespace

HttpConnection::ConnectionParameters::ConnectionParameters() : manualProxyUrl(qz::Url::ClearAll) {}

bool ResolveVerifyPeer(SSLValidatePolicy policy, const qz::Url& target) {
  const bool verify = policy == SVP_DefaultBehavior ? qz::IsVerifySSLCertByDefault() : policy != SVP_NoVerify;
  // Exact text on purpose: "localhost" and "[::1]" are still checked.
  return verify && !(target.host == "127.0.0.1" && qz::IsLoopbackCertificateExemption());
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

ResolvedParametersKey KeyOfParameters(const HttpConnection::ConnectionParameters& p, const qz::Url& target) {
  const ProxyPolicy proxy = p.proxyPolicy == PP_Default ? qz::GetDefaultProxyPolicy() : p.proxyPolicy;
  ResolvedParametersKey k{};
  k.connectTimeoutSec = p.connectTimeoutSec;
  k.maxSendSpeed = p.maxSendSpeed;
  k.maxRecvSpeed = p.maxRecvSpeed;
  k.lowSpeedLimit = p.lowSpeedLimit;
  k.lowSpeedTime = p.lowSpeedTime;
  k.tcpKeepAlive = p.tcpKeepAlive;
  k.maxRedirects = p.maxRedirects;
  k.verbose = p.verbose;
  k.ipResolve = ResolveIpResolve(p.hostNameResolutionPolicy);
  k.totalTimeoutMs = p.totalTimeoutMs;
  k.caFile = p.caFile;
  k.followLocation = p.followLocation;
  k.keepCookies = p.keepCookies;
  k.verifyPeer = ResolveVerifyPeer(p.sslValidatePolicy, target);
  k.cacheable = proxy != PP_AutomaticProxy && proxy != PP_ManualProxy;
  return k;
}

void ResolveConnectionParameters(const HttpConnection::ConnectionParameters& p, const qz::Url& target,
                                 HttpProxyFinder& proxyFinder, std::vector<CurlOptionValue>& out) {
  OptionWriter o(out);
  o.number(CURLOPT_FOLLOWLOCATION, p.followLocation ? 1 : 0);
  o.number(CURLOPT_MAXREDIRS, nonNegative(p.maxRedirects));
  o.text(CURLOPT_PROTOCOLS_STR, "http,https");
  o.text(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  o.number(CURLOPT_TIMEOUT_MS, p.totalTimeoutMs > 0 ? p.totalTimeoutMs : 0);
  o.number(CURLOPT_CONNECTTIMEOUT, nonNegative(p.connectTimeoutSec));
  o.offT(CURLOPT_MAX_RECV_SPEED_LARGE, nonNegative(p.maxRecvSpeed));
  o.offT(CURLOPT_MAX_SEND_SPEED_LARGE, nonNegative(p.maxSendSpeed));
  if (p.keepCookies) {
    // The cookie engine keeps cookies in memory; the jar path means nothing survives the handle.
    o.number(CURLOPT_COOKIESESSION, 0);
    o.text(CURLOPT_COOKIEJAR, "/dev/null");
  } else {
    o.number(CURLOPT_COOKIESESSION, 1);
    o.null(CURLOPT_COOKIEJAR);
  }
  const bool lowSpeed = p.lowSpeedLimit > 0 && p.lowSpeedTime > 0;
  o.number(CURLOPT_LOW_SPEED_LIMIT, lowSpeed ? p.lowSpeedLimit : 0);
  o.number(CURLOPT_LOW_SPEED_TIME, lowSpeed ? p.lowSpeedTime : 0);
  if (p.tcpKeepAlive > 0) {
    o.number(CURLOPT_TCP_KEEPALIVE, 1);
    o.number(CURLOPT_TCP_KEEPIDLE, p.tcpKeepAlive);
    o.number(CURLOPT_TCP_KEEPINTVL, p.tcpKeepAlive);
  } else {
    o.number(CURLOPT_TCP_KEEPALIVE, 0);
    o.number(CURLOPT_TCP_KEEPIDLE, 10);
    o.number(CURLOPT_TCP_KEEPINTVL, 10);
  }
  o.number(CURLOPT_VERBOSE, p.verbose != 0 ? 1 : 0);
  o.number(CURLOPT_IPRESOLVE, ResolveIpResolve(p.hostNameResolutionPolicy));
  const bool verify = ResolveVerifyPeer(p.sslValidatePolicy, target);
  o.number(CURLOPT_SSL_VERIFYPEER, verify ? 1 : 0);
  o.number(CURLOPT_SSL_VERIFYHOST, verify ? 2 : 0);
  o.text(CURLOPT_CAINFO, p.caFile.empty() ? DefaultCaFile() : p.caFile);

  const ProxyPolicy proxy = p.proxyPolicy == PP_Default ? qz::GetDefaultProxyPolicy() : p.proxyPolicy;
  if (proxy == PP_AutomaticProxy) {
    std::string found;
    if (proxyFinder.getProxyUrl(target, found))
      o.text(CURLOPT_PROXY, std::move(found));
    else
      o.null(CURLOPT_PROXY); // libcurl's own default: the proxy environment variables
  } else if (proxy == PP_ManualProxy) {
    if (p.manualProxyUrl.isValid()) {
      o.text(CURLOPT_PROXY, p.manualProxyUrl.toEncodedUrl());
    } else {
      qzLogObject(qzLog::Warning, "http")
          << "Manual proxy url is invalid " << p.manualProxyUrl.toDisplayableUrl() << " disable proxy for this call";
      o.text(CURLOPT_PROXY, "");
    }
  } else {
    o.text(CURLOPT_PROXY, ""); // no proxy at all, environment included
  }
}

std::vector<CurlOptionValue> ResolveConnectionParameters(const HttpConnection::ConnectionParameters& p,
                                                         const qz::Url& target, HttpProxyFinder& proxyFinder) {
  std::vector<CurlOptionValue> o;
  ResolveConnectionParameters(p, target, proxyFinder, o);
  return o;
}

int ApplyCurlOptions(CURL* h, const std::vector<CurlOptionValue>& options,
                     const std::vector<CurlOptionValue>* current) {
  int result = 0;
  for (size_t i = 0; i < options.size(); ++i) {
    const CurlOptionValue& v = options[i];
    if (current && i < current->size() && (*current)[i] == v)
      continue;
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

int HttpConnection::ConnectionParameters::applyParameters(void* curlHandle, const qz::Url& target,
                                                          HttpProxyFinder& proxyFinder) const {
  return ApplyCurlOptions(static_cast<CURL*>(curlHandle), ResolveConnectionParameters(*this, target, proxyFinder),
                          nullptr);
}

} // namespace qz::http
