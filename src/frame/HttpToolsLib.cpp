#include <HttpTools/frame/HttpToolsLib.h>

#include <HttpTools/frame/HttpToolsLib_p.h>
#include <HttpTools/platform/LibInit.h>
#include <HttpTools/platform/qzCompress.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzOpenSSL.h>
#include <HttpTools/platform/qzStringUtils.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <memory>
#include <stdexcept>
#include <string>

namespace qz {

namespace {
// Read by pool threads on every request.
std::atomic<bool> gVerifySSL{true};
std::atomic<bool> gLoopbackExemption{true};
std::atomic<http::HostNameResolutionPolicy> gResolution{http::HNRP_Whatever};
std::atomic<http::ProxyPolicy> gProxy{http::PP_NoProxy};
int gOpenSSLVersion = 0;
std::unique_ptr<qzThreadPeriodicalUpdater> gUpdater;
const char* gCurlVersionOverride = nullptr;

impl::LibInitCounter gInitCounter("httptools", 1);
} // namespace

namespace impl {

int GetCurlOpenSSLVersion() { return gOpenSSLVersion; }
qzThreadPeriodicalUpdater* GetPeriodicalUpdater() { return gUpdater.get(); }
void SetCurlVersionTextForTest(const char* text) { gCurlVersionOverride = text; }

int FindOpenSSLVersionInCurlVersion(const char* curlVersionText) {
  if (!curlVersionText)
    return 0;
  std::string text(curlVersionText);
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t blank = text.find(' ', pos);
    if (blank == std::string::npos)
      blank = text.size();
    std::string piece = text.substr(pos, blank - pos);
    pos = blank + 1;
    auto notSpace = [](unsigned char c) { return !std::isspace(c); };
    piece.erase(piece.begin(), std::find_if(piece.begin(), piece.end(), notSpace));
    piece.erase(std::find_if(piece.rbegin(), piece.rend(), notSpace).base(), piece.end());
    if (piece.empty())
      continue;
    if (qzStringUtils::StartsWith(piece, "openssl/"))
      return qzOpenSSL::ParseOpenSSLVersionString(piece.substr(8));
  }
  return 0;
}

} // namespace impl

bool IsVerifySSLCertByDefault() { return gVerifySSL; }
void SetVerifySSLCertByDefault(bool verify) { gVerifySSL = verify; }
http::HostNameResolutionPolicy GetDefaultHostNameResolutionPolicy() { return gResolution; }
void SetDefaultHostNameResolutionPolicy(http::HostNameResolutionPolicy policy) {
  gResolution = (policy >= 1 && policy <= 3) ? policy : http::HNRP_Whatever;
}
http::ProxyPolicy GetDefaultProxyPolicy() { return gProxy; }
void SetDefaultProxyPolicy(http::ProxyPolicy policy) {
  // A manual proxy needs a URL that only a connection's own parameters carry.
  gProxy = (policy == http::PP_NoProxy || policy == http::PP_AutomaticProxy) ? policy : http::PP_NoProxy;
}

void SetLoopbackCertificateExemption(bool on) { gLoopbackExemption = on; }
bool IsLoopbackCertificateExemption() { return gLoopbackExemption; }

bool IsHttpToolsInitialized() { return gInitCounter.isInitialized(); }

void initializeHttpTools(bool verifySSLCertByDefault, http::HostNameResolutionPolicy defaultResolution,
                         http::ProxyPolicy defaultProxy) {
  if (!gInitCounter.incrementInitCounter())
    return;
  initializeCompress();
  qzOpenSSL::initializeLibrary(true);
  SetVerifySSLCertByDefault(verifySSLCertByDefault);
  SetDefaultHostNameResolutionPolicy(defaultResolution);
  SetDefaultProxyPolicy(defaultProxy);
  curl_global_init(CURL_GLOBAL_ALL);
  gUpdater = std::make_unique<qzThreadPeriodicalUpdater>(2);

  const char* version = gCurlVersionOverride ? gCurlVersionOverride : curl_version();
  gOpenSSLVersion = impl::FindOpenSSLVersionInCurlVersion(version);
  if (gOpenSSLVersion == 0) {
    qzLogObject(qzLog::Error, "qzHttpTools") << "Cannot get curl openssl version (unknown version)";
    throw std::runtime_error("qzHttpTools : ssl versionning error");
  }
  impl::RegisterThirdPartyLibVersionInfo("libcurl", version);
}

void terminateHttpTools() {
  if (!gInitCounter.decrementInitCounter())
    return;
  impl::UnRegisterThirdPartyLibVersionInfo("libcurl");
  SetVerifySSLCertByDefault(true);
  SetDefaultHostNameResolutionPolicy(http::HNRP_Whatever);
  // The proxy default keeps the value of the last initialisation.
  gUpdater.reset();
  gOpenSSLVersion = 0;
  curl_global_cleanup();
  terminateCompress();
  qzOpenSSL::finalizeLibrary();
}

} // namespace qz
